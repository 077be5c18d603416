// format: prometheus and nagios, with their prefix and constant labels.
#include "serve/config_internal.h"

namespace fetchlet::serve {
namespace {

const std::vector<std::string> kFormats = {"prometheus", "nagios"};

void ReadConstantLabels(YamlReader& reader, const YAML::Node& node,
                        CollectorConfig* collector) {
  for (const auto& entry : reader.Entries(node, "labels", {})) {
    const auto value = reader.String(entry.value, entry.key);
    if (!IsValidName(entry.key) || entry.key.starts_with("__")) {
      reader.Problem(entry.key_node, "invalid label name '" + entry.key + "'");
    } else if (value) {
      collector->labels.emplace_back(entry.key, *value);
    }
  }
}

}  // namespace

void ReadFormatKey(YamlReader& reader, const YamlReader::Entry& entry,
                   CollectorConfig* collector) {
  if (entry.key == "labels") return ReadConstantLabels(reader, entry.value, collector);
  const std::string text = reader.String(entry.value, entry.key).value_or("");
  if (entry.key == "prefix") {
    collector->prefix = text;
    if (!IsValidName(text)) reader.Problem(entry.value, "invalid prefix '" + text + "'");
  } else if (std::find(kFormats.begin(), kFormats.end(), text) != kFormats.end()) {
    collector->format = text;
  } else {
    reader.Problem(entry.value, "unknown format '" + text + "' (prometheus, nagios)");
  }
}

bool CheckFormatKeys(YamlReader& reader, const YAML::Node& node,
                     const std::vector<YamlReader::Entry>& entries,
                     CollectorConfig* collector) {
  const bool format = YamlReader::Find(entries, "format").IsDefined();
  for (const auto& entry : entries) {
    const bool format_key = entry.key == "prefix" || entry.key == "labels";
    const bool mapping_key = entry.key == "table" || entry.key == "regex" ||
                             entry.key == "metrics" || entry.key == "value";
    if (format ? mapping_key : format_key) {
      reader.Problem(entry.key_node, "'" + entry.key + "' is not used " +
                                         (format ? "with a format" : "without a format"));
    }
    if (entry.key == "labels" && collector->format == "nagios") {
      reader.Problem(entry.key_node, "a nagios format takes no labels");
    }
  }
  if (!format) return false;
  if (collector->kind != CollectorKind::kOs) {
    reader.Problem(node, "a format reads an os collector's output");
  }
  if (collector->format == "nagios" && collector->prefix.empty()) {
    collector->prefix = "nagios_" + collector->name;
  }
  return true;
}

}  // namespace fetchlet::serve
