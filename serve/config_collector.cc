// One collector of the configuration.
#include <cstdlib>

#include <re2/re2.h>

#include "serve/config_internal.h"
#include "serve/duration.h"
#include "serve/secret_file.h"

namespace fetchlet::serve {
namespace {

const std::vector<std::string> kCollectorKeys = {
    "name",     "kind",      "properties", "password_file",
    "password_credential",   "interval",   "on_scrape", "timeout",
    "table",    "regex",     "metrics",    "value",     "limits",
    "format",   "prefix",    "labels",     "rows",      "children"};

const std::vector<std::string> kModuleKeys = {
    "name",     "kind",      "properties", "password_file",
    "password_credential",   "timeout",    "cache_for", "params",
    "table",    "regex",     "metrics",    "value",     "limits",
    "format",   "prefix",    "labels",     "rows",      "children"};

bool IsCollectorName(const std::string& name) {
  if (name.empty()) return false;
  for (char c : name) {
    if (!((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_')) {
      return false;
    }
  }
  return true;
}

void ReadProperties(YamlReader& reader, const YAML::Node& node,
                    CollectorConfig* collector) {
  for (const auto& entry : reader.Entries(node, "properties", {})) {
    const auto value = reader.String(entry.value, entry.key);
    if (entry.key == "password") {
      reader.Problem(entry.key_node,
                     "a password is never written in the configuration: use "
                     "password_file or password_credential");
    } else if (entry.key == "KTDCLIENT_REQUEST_ID") {
      reader.Problem(entry.key_node,
                     "KTDCLIENT_REQUEST_ID is set for each evaluation");
    } else if (entry.key == "KT_METRIC_TIMEOUT") {
      reader.Warning(entry.key_node,
                     "KT_METRIC_TIMEOUT makes the fetchlet ignore aborts; "
                     "use the collector's timeout");
    }
    if (value && entry.key != "password") {
      collector->properties.emplace_back(entry.key, *value);
    }
  }
}

void ReadPassword(YamlReader& reader, const YamlReader::Entry& entry,
                  CollectorConfig* collector) {
  const auto text = reader.String(entry.value, entry.key);
  if (!text) return;
  std::string path = *text;
  if (entry.key == "password_credential") {
    const char* directory = std::getenv("CREDENTIALS_DIRECTORY");
    if (directory == nullptr || *directory == '\0') {
      reader.Problem(entry.value,
                     "password_credential needs $CREDENTIALS_DIRECTORY, which "
                     "systemd's LoadCredential= sets; started by hand, use "
                     "password_file");
      return;
    }
    if (path.empty() || path.find('/') != std::string::npos || path == "." ||
        path == "..") {
      reader.Problem(entry.value, "invalid credential name '" + path + "'");
      return;
    }
    path = std::string(directory) + "/" + path;
  }
  std::string error;
  const bool read = entry.key == "password_file"
                        ? ReadSecretFile(path, &collector->password, &error)
                        : ReadCredentialFile(path, &collector->password, &error);
  if (!read) reader.Problem(entry.value, error);
}

void ReadTable(YamlReader& reader, const YAML::Node& node, TableSpec* table) {
  for (const auto& entry : reader.Entries(
           node, "table", {"skip_rows", "drop_empty_fields", "nested_table"})) {
    if (entry.key == "skip_rows") {
      table->skip_rows = static_cast<int>(
          reader.Integer(entry.value, entry.key, 0).value_or(0));
    } else if (entry.key == "drop_empty_fields") {
      table->drop_empty_fields =
          reader.Bool(entry.value, entry.key).value_or(false);
    } else {
      const auto index = reader.Integer(entry.value, entry.key, 0);
      if (index) table->nested_table = static_cast<int>(*index);
    }
  }
}

void ReadRegex(YamlReader& reader, const YAML::Node& node,
               CollectorConfig* collector) {
  const auto text = reader.String(node, "regex");
  if (!text) return;
  RE2::Options options;
  options.set_log_errors(false);
  auto compiled = std::make_shared<const RE2>(*text, options);
  if (!compiled->ok()) {
    reader.Problem(node, "regex does not compile: " + compiled->error());
    return;
  }
  collector->regex = *text;
  collector->compiled_regex = std::move(compiled);
}

void ReadMetrics(YamlReader& reader, const YAML::Node& node,
                 CollectorConfig* collector) {
  if (!node.IsSequence() || node.size() == 0) {
    reader.Problem(node, "'metrics' must be a list of families");
    return;
  }
  const FamilySource source{false, collector->format == "json" ? collector : nullptr};
  for (const YAML::Node& item : node) {
    auto metric = ReadMetric(reader, item, source);
    if (metric) collector->metrics.push_back(std::move(*metric));
  }
}

// 0s, the default, may be written out: every scrape evaluates.
Duration CacheFor(YamlReader& reader, const YamlReader::Entry& cache) {
  if (cache.value.IsScalar() &&
      ParseDuration(cache.value.Scalar()) == Duration(0)) {
    return Duration(0);
  }
  return reader.DurationValue(cache.value, cache.key).value_or(Duration(0));
}

void ReadSchedule(YamlReader& reader, const YamlReader::Entry& entry,
                  CollectorConfig* collector) {
  if (entry.key == "interval") {
    collector->interval = reader.DurationValue(entry.value, entry.key);
  } else if (entry.key == "timeout") {
    collector->timeout =
        reader.DurationValue(entry.value, entry.key).value_or(collector->timeout);
  } else {
    collector->cache_for = Duration(0);
    for (const auto& cache : reader.Entries(entry.value, "on_scrape",
                                            {"cache_for"})) {
      collector->cache_for = CacheFor(reader, cache);
    }
  }
}

void ReadEntry(YamlReader& reader, const YamlReader::Entry& entry,
               CollectorConfig* collector, ModuleConfig* module) {
  const std::string& key = entry.key;
  if (key == "name") {
    collector->name = reader.String(entry.value, key).value_or("");
    if (!IsCollectorName(collector->name)) {
      reader.Problem(entry.value, std::string(module ? "module" : "collector") +
                                      " name '" + collector->name +
                                      "' is not [a-z0-9_]+");
    }
  } else if (module != nullptr && (key == "params" || key == "cache_for")) {
    ReadModuleEntry(reader, entry, module);
  } else if (key == "properties") {
    ReadProperties(reader, entry.value, collector);
  } else if (key == "password_file" || key == "password_credential") {
    ReadPassword(reader, entry, collector);
  } else if (key == "interval" || key == "timeout" || key == "on_scrape") {
    ReadSchedule(reader, entry, collector);
  } else if (key == "table") {
    ReadTable(reader, entry.value, &collector->table);
  } else if (key == "regex") {
    ReadRegex(reader, entry.value, collector);
  } else if (key == "metrics") {
    ReadMetrics(reader, entry.value, collector);
  } else if (key == "value") {
    collector->udm_value = ReadMetric(reader, entry.value, FamilySource{true});
  } else if (key == "limits") {
    ReadLimits(reader, entry.value, &collector->limits);
  } else {
    ReadFormatKey(reader, entry, collector);
  }
}

std::optional<CollectorKind> ReadKind(YamlReader& reader,
                                      const YAML::Node& node) {
  if (!node.IsDefined()) return std::nullopt;
  const auto text = reader.String(node, "kind");
  if (!text) return std::nullopt;
  if (const auto kind = agent::KindNamed(*text)) return kind;
  reader.Problem(node, "unknown kind '" + *text + "' (" + agent::KindNames() +
                           ")");
  return std::nullopt;
}

// Without a command every run fails as an invalid request: say so at load.
void CheckCommand(YamlReader& reader, const YAML::Node& node,
                  const CollectorConfig& collector, const char* noun) {
  for (const auto& [name, value] : collector.properties) {
    if (name == "command") return;
  }
  reader.Problem(node, std::string("a ") + noun + " needs the property 'command'");
}

}  // namespace

std::optional<CollectorConfig> ReadCollector(YamlReader& reader,
                                             const YAML::Node& node,
                                             Duration default_timeout,
                                             ModuleConfig* module) {
  const char* noun = module != nullptr ? "module" : "collector";
  CollectorConfig collector;
  collector.where = reader.Where(node);
  collector.timeout = default_timeout;
  const auto entries =
      reader.Entries(node, noun, module != nullptr ? kModuleKeys : kCollectorKeys);
  if (!node.IsMap()) return std::nullopt;
  const auto kind = ReadKind(reader, YamlReader::Find(entries, "kind"));
  if (kind) collector.kind = *kind;
  // The name and the format first: problems name the collector, and the
  // format says how its families name their cells.
  const auto first = [](const std::string& key) {
    return key == "name" || key == "format";
  };
  for (const auto& entry : entries) {
    if (first(entry.key)) ReadEntry(reader, entry, &collector, module);
  }
  for (const auto& entry : entries) {
    if (entry.key != "kind" && !first(entry.key)) {
      ReadEntry(reader, entry, &collector, module);
    }
  }
  for (const char* required : {"name", "kind"}) {
    if (!YamlReader::Find(entries, required).IsDefined()) {
      reader.Problem(node, std::string("missing key '") + required + "'");
    }
  }
  const bool interval = YamlReader::Find(entries, "interval").IsDefined();
  if (module == nullptr &&
      interval == YamlReader::Find(entries, "on_scrape").IsDefined()) {
    reader.Problem(node, "a collector needs exactly one of 'interval' and "
                         "'on_scrape'");
  }
  if (!kind) return collector;
  CheckCommand(reader, node, collector, noun);
  if (!CheckFormatKeys(reader, node, entries, &collector)) {
    CheckKindKeys(reader, node, entries, *kind);
  }
  CheckColumns(reader, collector);
  CheckUdmValue(reader, node, collector);
  return collector;
}

std::optional<CollectorConfig> ReadListEntry(
    YamlReader& reader, const YAML::Node& node, const Config& config,
    std::map<std::string, Position>* names, ModuleConfig* module) {
  auto collector =
      ReadCollector(reader, node, config.evaluation_timeout, module);
  if (!collector) return std::nullopt;
  const auto [it, fresh] = names->emplace(collector->name, collector->where);
  if (!fresh) {
    const char* noun = module != nullptr ? "module" : "collector";
    reader.Problem(node, std::string(noun) + " '" + collector->name +
                             "' is already defined at line " +
                             std::to_string(it->second.line));
    return std::nullopt;
  }
  InheritLimits(config.limits, &collector->limits);
  CheckLimits(reader, collector->limits);
  return collector;
}

}  // namespace fetchlet::serve
