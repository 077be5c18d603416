#include "serve/config.h"

#include <algorithm>
#include <fstream>
#include <tuple>
#include <iostream>
#include <set>
#include <sstream>

#include "serve/config_internal.h"

namespace fetchlet::serve {
namespace {

const std::vector<std::string> kTopKeys = {
    "listen", "evaluation_timeout", "max_concurrent", "jitter",
    "output_limit", "limits", "collectors", "modules",
    "max_concurrent_probes", "probe_timeout_offset"};

bool SameMetric(const MetricDefinition& a, const MetricDefinition& b) {
  return a.name == b.name && a.help == b.help && a.unit == b.unit &&
         a.type == b.type && a.value.column == b.value.column &&
         a.value.scale == b.value.scale &&
         a.value.trim_suffix == b.value.trim_suffix &&
         a.value.map == b.value.map && a.labels == b.labels &&
         a.states == b.states;
}

bool SameMetrics(const std::vector<MetricDefinition>& a,
                 const std::vector<MetricDefinition>& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (!SameMetric(a[i], b[i])) return false;
  }
  return true;
}

bool IsListenAddress(const std::string& text) {
  const size_t colon = text.rfind(':');
  if (colon == std::string::npos || colon == 0) return false;
  const std::string port = text.substr(colon + 1);
  if (port.empty() || port.size() > 5 ||
      port.find_first_not_of("0123456789") != std::string::npos) {
    return false;
  }
  const int number = std::stoi(port);
  return number > 0 && number <= 65535;
}

void ReadTopEntry(YamlReader& reader, const YamlReader::Entry& entry,
                  Config* config) {
  const std::string& key = entry.key;
  if (key == "listen") {
    config->listen = reader.String(entry.value, key).value_or(config->listen);
    if (!IsListenAddress(config->listen)) {
      reader.Problem(entry.value, "'listen' must be ADDRESS:PORT");
    }
  } else if (key == "evaluation_timeout") {
    config->evaluation_timeout = reader.DurationValue(entry.value, key)
                                     .value_or(config->evaluation_timeout);
  } else if (key == "max_concurrent") {
    config->max_concurrent =
        static_cast<int>(reader.Integer(entry.value, key, 1).value_or(0));
  } else if (key == "jitter") {
    const auto jitter = reader.Number(entry.value, key);
    if (jitter && (*jitter < 0 || *jitter > 1)) {
      reader.Problem(entry.value, "'jitter' must lie between 0 and 1");
    }
    config->jitter = jitter.value_or(config->jitter);
  } else if (key == "limits") {
    ReadLimits(reader, entry.value, &config->limits);
  } else if (key == "max_concurrent_probes") {
    config->max_concurrent_probes = static_cast<int>(
        reader.Integer(entry.value, key, 1).value_or(config->max_concurrent_probes));
  } else if (key == "probe_timeout_offset") {
    config->probe_timeout_offset = reader.DurationValue(entry.value, key)
                                       .value_or(config->probe_timeout_offset);
  } else if (key == "output_limit") {
    config->output_limit =
        reader.Size(entry.value, key).value_or(config->output_limit);
  }
}

void ReadCollectors(YamlReader& reader, const YAML::Node& node,
                    Config* config) {
  if (!node.IsSequence()) {
    reader.Problem(node, "'collectors' must be a list");
    return;
  }
  std::map<std::string, Position> names;
  for (const YAML::Node& item : node) {
    auto collector = ReadListEntry(reader, item, *config, &names);
    if (!collector) continue;
    config->collectors.push_back(std::move(*collector));
  }
}


}  // namespace

std::string ConfigProblem::ToString() const {
  return where.file + ":" + std::to_string(where.line) + ":" +
         std::to_string(where.column) + ": " + message;
}

std::string ConfigProblem::ToWarning() const {
  return ConfigProblem{where, "warning: " + message}.ToString();
}

bool SameDefinition(const CollectorConfig& a, const CollectorConfig& b) {
  return a.name == b.name && a.kind == b.kind &&
         a.properties == b.properties && a.password == b.password &&
         a.interval == b.interval && a.cache_for == b.cache_for &&
         a.timeout == b.timeout && a.limits == b.limits &&
         a.table.skip_rows == b.table.skip_rows &&
         a.table.drop_empty_fields == b.table.drop_empty_fields &&
         a.table.nested_table == b.table.nested_table && a.regex == b.regex &&
         SameMetrics(a.metrics, b.metrics) &&
         a.udm_value.has_value() == b.udm_value.has_value() &&
         (!a.udm_value || SameMetric(*a.udm_value, *b.udm_value)) &&
         a.format == b.format && a.prefix == b.prefix && a.labels == b.labels &&
         a.json == b.json;
}

std::optional<Config> LoadConfig(const std::string& path,
                                 std::vector<ConfigProblem>* problems,
                                 std::vector<ConfigProblem>* warnings) {
  const size_t before = problems->size();
  const std::optional<YAML::Node> root = YamlReader::Parse(path, problems);
  if (!root) return std::nullopt;
  YamlReader reader(path, problems, warnings);
  Config config;
  const auto entries = reader.Entries(*root, "the configuration", kTopKeys);
  // Collectors take their default timeout from evaluation_timeout, wherever
  // it stands in the file.
  for (const auto& entry : entries) {
    if (entry.key != "collectors" && entry.key != "modules") {
      ReadTopEntry(reader, entry, &config);
    }
  }
  const YAML::Node collectors = YamlReader::Find(entries, "collectors");
  const YAML::Node modules = YamlReader::Find(entries, "modules");
  if (collectors.IsDefined()) ReadCollectors(reader, collectors, &config);
  if (modules.IsDefined()) ReadModules(reader, modules, &config);
  if (!collectors.IsDefined() && !modules.IsDefined() && root->IsMap()) {
    reader.Problem(*root, "missing key 'collectors'");
  }
  CheckFamilyClashes(reader, config.collectors);
  YamlReader::SortByPlace(problems, before);
  YamlReader::SortByPlace(warnings, 0);
  if (problems->size() != before) return std::nullopt;
  return config;
}

std::optional<Config> LoadConfig(const std::string& path, std::ostream& err) {
  std::vector<ConfigProblem> problems;
  std::vector<ConfigProblem> warnings;
  std::optional<Config> config = LoadConfig(path, &problems, &warnings);
  for (const ConfigProblem& warning : warnings) {
    err << warning.ToWarning() << "\n";
  }
  for (const ConfigProblem& problem : problems) {
    err << problem.ToString() << "\n";
  }
  return config;
}

int CheckConfig(const std::string& path) {
  return LoadConfig(path, std::cerr) ? 0 : 1;
}

}  // namespace fetchlet::serve
