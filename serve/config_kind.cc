// What each kind of collector takes and needs.
#include <re2/re2.h>

#include "serve/config_internal.h"

namespace fetchlet::serve {
namespace {

struct KindKeys {
  CollectorKind kind;
  const char* name;  // with its article, for messages
  std::vector<std::string> required;
  std::vector<std::string> unused;
};

const std::vector<KindKeys> kKindKeys = {
    {CollectorKind::kOs, "an os", {"regex", "metrics"}, {"table", "value"}},
    {CollectorKind::kOsLine, "an osline", {"metrics"}, {"regex", "value"}},
    {CollectorKind::kOsLineToken, "an oslinetoken", {"metrics"},
     {"regex", "value"}},
    {CollectorKind::kUdm, "a udm", {"value"}, {"table", "regex", "metrics"}}};

std::string Place(const std::string& prefix, const MetricDefinition& metric) {
  return prefix + " of family '" + metric.name + "'";
}

}  // namespace

void CheckKindKeys(YamlReader& reader, const YAML::Node& node,
                   const std::vector<YamlReader::Entry>& entries,
                   CollectorKind kind) {
  for (const KindKeys& keys : kKindKeys) {
    if (keys.kind != kind) continue;
    for (const std::string& key : keys.required) {
      if (!YamlReader::Find(entries, key).IsDefined()) {
        reader.Problem(node, std::string(keys.name) + " collector needs '" +
                                 key + "'");
      }
    }
    for (const auto& entry : entries) {
      for (const std::string& key : keys.unused) {
        if (entry.key != key) continue;
        reader.Problem(entry.key_node, "'" + key + "' is not used by " +
                                           keys.name + " collector");
      }
    }
  }
}

void CheckColumns(YamlReader& reader, const CollectorConfig& collector) {
  if (collector.kind != CollectorKind::kOs || !collector.compiled_regex) return;
  const int groups = collector.compiled_regex->NumberOfCapturingGroups();
  for (const MetricDefinition& metric : collector.metrics) {
    std::vector<int> columns;
    if (metric.value.column >= 0) columns.push_back(metric.value.column);
    for (const auto& label : metric.labels) columns.push_back(label.second);
    for (int column : columns) {
      if (column <= groups) continue;
      reader.ProblemAt(metric.where,
                       Place("column " + std::to_string(column), metric) +
                           " is beyond the regex's " + std::to_string(groups) +
                           " groups");
    }
  }
}

void CheckUdmValue(YamlReader& reader, const YAML::Node& node,
                   const CollectorConfig& collector) {
  if (collector.kind != CollectorKind::kUdm || !collector.udm_value) return;
  std::string valuetype = "STRING";
  for (const auto& [name, value] : collector.properties) {
    if (name == "valuetype") valuetype = value;
  }
  const MetricDefinition& metric = *collector.udm_value;
  const bool numeric = metric.type == MetricType::kGauge ||
                       metric.type == MetricType::kCounter;
  if (valuetype == "NUMBER") {
    if (!numeric || !metric.value.map.empty()) {
      reader.Problem(node, "a NUMBER value maps to a gauge or a counter "
                           "without map");
    }
  } else if (valuetype == "STRING") {
    if (numeric && metric.value.map.empty()) {
      reader.Problem(node, "a STRING value needs type stateset, type info "
                           "or a map");
    }
  } else {
    reader.Problem(node, "valuetype '" + valuetype +
                             "' yields no value: use NUMBER or STRING");
  }
}

}  // namespace fetchlet::serve
