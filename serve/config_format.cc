// format: prometheus and nagios, with their prefix and constant labels;
// format: json, with its rows, children and families by pointer.
#include "serve/config_internal.h"
#include "serve/format_json.h"

namespace fetchlet::serve {
namespace {

struct FormatKeys {
  std::string format;
  std::vector<std::string> keys;  // those of kFormatOnly and kMappingOnly it takes
};

const std::vector<FormatKeys> kFormats = {
    {"prometheus", {"prefix", "labels"}},
    {"nagios", {"prefix"}},
    {"json", {"rows", "children", "metrics"}}};

// Keys that only a format takes, and keys that only mappings take.
const std::vector<std::string> kFormatOnly = {"prefix", "labels", "rows", "children"};
const std::vector<std::string> kMappingOnly = {"table", "regex", "metrics", "value"};

bool Contains(const std::vector<std::string>& list, const std::string& key) {
  return std::find(list.begin(), list.end(), key) != list.end();
}

const FormatKeys* FormatNamed(const std::string& name) {
  for (const FormatKeys& format : kFormats) {
    if (format.format == name) return &format;
  }
  return nullptr;
}

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

// The problem of a key that collector's format (or its lack) does not take.
std::string UnusedKey(const std::string& key, const CollectorConfig& collector) {
  const FormatKeys* format = FormatNamed(collector.format);
  if (format == nullptr) {
    return Contains(kFormatOnly, key) ? "'" + key + "' is not used without a format"
                                      : "";
  }
  if (Contains(format->keys, key)) return "";
  if (Contains(kMappingOnly, key)) return "'" + key + "' is not used with a format";
  if (Contains(kFormatOnly, key)) {
    return "'" + key + "' is not used with format " + collector.format;
  }
  return "";
}

std::optional<std::string> ReadPointer(YamlReader& reader, const YAML::Node& node,
                                       const std::string& key,
                                       const CollectorConfig& collector) {
  auto text = reader.String(node, key);
  if (!text) return std::nullopt;
  if (const std::string error = CheckJsonPointer(*text); !error.empty()) {
    reader.Problem(node, "collector '" + collector.name + "', key '" + key +
                             "': " + error);
    return std::nullopt;
  }
  return text;
}

}  // namespace

int ReadJsonPointer(YamlReader& reader, const YAML::Node& node,
                    const std::string& key, CollectorConfig* collector) {
  const auto pointer = ReadPointer(reader, node, key, *collector);
  return pointer ? JsonColumn(&collector->json, *pointer) : -1;
}

void ReadFormatKey(YamlReader& reader, const YamlReader::Entry& entry,
                   CollectorConfig* collector) {
  if (entry.key == "labels") return ReadConstantLabels(reader, entry.value, collector);
  if (entry.key == "rows" || entry.key == "children") {
    const auto pointer = ReadPointer(reader, entry.value, entry.key, *collector);
    if (pointer) {
      (entry.key == "rows" ? collector->json.rows : collector->json.children) = *pointer;
    }
    return;
  }
  const std::string text = reader.String(entry.value, entry.key).value_or("");
  if (entry.key == "prefix") {
    collector->prefix = text;
    if (!IsValidName(text)) reader.Problem(entry.value, "invalid prefix '" + text + "'");
  } else if (FormatNamed(text) != nullptr) {
    collector->format = text;
  } else {
    reader.Problem(entry.value, "unknown format '" + text + "' (prometheus, nagios, json)");
  }
}

bool CheckFormatKeys(YamlReader& reader, const YAML::Node& node,
                     const std::vector<YamlReader::Entry>& entries,
                     CollectorConfig* collector) {
  for (const auto& entry : entries) {
    const std::string problem = UnusedKey(entry.key, *collector);
    if (!problem.empty()) reader.Problem(entry.key_node, problem);
  }
  if (!YamlReader::Find(entries, "format").IsDefined()) return false;
  if (collector->kind != CollectorKind::kOs) {
    reader.Problem(node, "a format reads an os collector's output");
  }
  if (collector->format == "json" && !YamlReader::Find(entries, "metrics").IsDefined()) {
    reader.Problem(node, "a json format needs 'metrics'");
  }
  if (collector->format == "nagios" && collector->prefix.empty()) {
    collector->prefix = "nagios_" + collector->name;
  }
  return true;
}

}  // namespace fetchlet::serve
