// A family as the configuration describes it, and its checks.
#include <algorithm>
#include <set>

#include "serve/config_internal.h"

namespace fetchlet::serve {
namespace {

const std::vector<std::pair<std::string, MetricType>> kTypes = {
    {"gauge", MetricType::kGauge},
    {"counter", MetricType::kCounter},
    {"info", MetricType::kInfo},
    {"stateset", MetricType::kStateset}};

bool EndsWith(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() &&
         text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

std::optional<MetricType> ReadType(YamlReader& reader, const YAML::Node& node) {
  const auto text = reader.String(node, "type");
  if (!text) return std::nullopt;
  for (const auto& [name, type] : kTypes) {
    if (name == *text) return type;
  }
  reader.Problem(node, "unknown type '" + *text +
                           "' (gauge, counter, info, stateset)");
  return std::nullopt;
}

void ReadMap(YamlReader& reader, const YAML::Node& node, ValueSpec* value) {
  for (const auto& entry : reader.Entries(node, "map", {})) {
    const auto number = reader.Number(entry.value, entry.key);
    if (number) value->map.emplace_back(entry.key, *number);
  }
  if (node.IsMap() && node.size() == 0) reader.Problem(node, "map is empty");
}

// The keys of a value shared by table columns and udm values.
void ReadValueKey(YamlReader& reader, const YamlReader::Entry& entry,
                  ValueSpec* value) {
  if (entry.key == "column") {
    value->column =
        static_cast<int>(reader.Integer(entry.value, "column", 0).value_or(0));
  } else if (entry.key == "scale") {
    value->scale = reader.Number(entry.value, "scale").value_or(1);
  } else if (entry.key == "trim_suffix") {
    value->trim_suffix = reader.String(entry.value, "trim_suffix").value_or("");
  } else if (entry.key == "map") {
    ReadMap(reader, entry.value, value);
  }
}

void ReadLabels(YamlReader& reader, const YAML::Node& node,
                const FamilySource& source, MetricDefinition* definition) {
  for (const auto& entry : reader.Entries(node, "labels", {})) {
    const auto column =
        source.json != nullptr
            ? ReadJsonPointer(reader, entry.value, entry.key, source.json)
            : reader.Integer(entry.value, entry.key, 0).value_or(-1);
    if (column >= 0) definition->labels.emplace_back(entry.key, static_cast<int>(column));
    if (!IsValidName(entry.key) || entry.key.starts_with("__")) {
      reader.Problem(entry.key_node, "invalid label name '" + entry.key + "'");
    }
  }
}

void ReadStates(YamlReader& reader, const YAML::Node& node, MetricDefinition* definition) {
  if (!node.IsSequence()) {
    reader.Problem(node, "'states' must be a list");
    return;
  }
  for (const YAML::Node& state : node) {
    const auto text = reader.String(state, "states");
    if (!text) continue;
    if (std::find(definition->states.begin(), definition->states.end(), *text) !=
        definition->states.end()) {
      reader.Problem(state, "duplicate state '" + *text + "'");
    }
    definition->states.push_back(*text);
  }
}

void ReadValue(YamlReader& reader, const YAML::Node& node,
               const FamilySource& source, ValueSpec* value) {
  const char* column = source.json != nullptr ? "pointer" : "column";
  for (const auto& entry : reader.Entries(
           node, "value", {column, "scale", "trim_suffix", "map"})) {
    if (entry.key == "pointer") {
      value->column = ReadJsonPointer(reader, entry.value, entry.key, source.json);
    } else {
      ReadValueKey(reader, entry, value);
    }
  }
}

void ReadMetricKey(YamlReader& reader, const YamlReader::Entry& entry,
                   const FamilySource& source, MetricDefinition* definition) {
  if (entry.key == "name") {
    definition->name = reader.String(entry.value, "name").value_or("");
  } else if (entry.key == "help") {
    definition->help = reader.String(entry.value, "help").value_or("");
  } else if (entry.key == "unit") {
    definition->unit = reader.String(entry.value, "unit").value_or("");
  } else if (entry.key == "type") {
    definition->type = ReadType(reader, entry.value).value_or(definition->type);
  } else if (entry.key == "labels") {
    ReadLabels(reader, entry.value, source, definition);
  } else if (entry.key == "states") {
    ReadStates(reader, entry.value, definition);
  } else if (entry.key == "value") {
    ReadValue(reader, entry.value, source, &definition->value);
  } else if (source.udm) {
    ReadValueKey(reader, entry, &definition->value);
  }
}

// _total, _info and the unit at the end of the name as the type wants them.
void CheckSuffixes(YamlReader& reader, const YAML::Node& node,
                   const MetricDefinition& metric) {
  const std::string& name = metric.name;
  const bool counter = metric.type == MetricType::kCounter;
  if (counter && !EndsWith(name, "_total")) {
    reader.Problem(node, "counter '" + name + "' must end in _total");
  }
  if (!counter && EndsWith(name, "_total")) {
    reader.Problem(node, "only a counter's name ends in _total");
  }
  if (metric.type == MetricType::kInfo && EndsWith(name, "_info")) {
    reader.Problem(node, "info family '" + name +
                             "' is named without _info, which its samples get");
  }
  if (metric.unit.empty()) return;
  if (metric.type == MetricType::kInfo ||
      metric.type == MetricType::kStateset) {
    reader.Problem(node, "an info or stateset family has no unit");
  } else if (!IsValidName(metric.unit) ||
             !EndsWith(name, "_" + metric.unit + (counter ? "_total" : ""))) {
    reader.Problem(node, "unit '" + metric.unit + "' must be the suffix of '" +
                             name + "'" + (counter ? " before _total" : ""));
  }
}

void CheckStates(YamlReader& reader, const YAML::Node& node,
                 const MetricDefinition& metric) {
  if (metric.type != MetricType::kStateset) {
    if (!metric.states.empty()) reader.Problem(node, "only a stateset has states");
    return;
  }
  if (metric.states.empty()) reader.Problem(node, "a stateset needs states");
  for (const auto& label : metric.labels) {
    if (label.first == metric.name) {
      reader.Problem(node, "label '" + metric.name +
                               "' is the stateset's own state label");
    }
  }
}

}  // namespace

bool IsValidName(const std::string& name) {
  if (name.empty() || (name[0] >= '0' && name[0] <= '9')) return false;
  return std::all_of(name.begin(), name.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
           (c >= '0' && c <= '9') || c == '_';
  });
}

std::optional<MetricDefinition> ReadMetric(YamlReader& reader,
                                           const YAML::Node& node,
                                           const FamilySource& source) {
  const bool udm = source.udm;
  const std::vector<std::string> keys =
      udm ? std::vector<std::string>{"name", "help", "unit", "type", "states",
                                     "scale", "trim_suffix", "map"}
          : std::vector<std::string>{"name", "help",   "unit",  "type",
                                     "value", "labels", "states"};
  const size_t before = reader.ProblemCount();
  MetricDefinition definition;
  definition.where = reader.Where(node);
  const auto entries = reader.Entries(node, udm ? "value" : "metric", keys);
  for (const auto& entry : entries) ReadMetricKey(reader, entry, source, &definition);
  if (!node.IsMap()) return std::nullopt;
  for (const char* required : {"name", "help"}) {
    if (!YamlReader::Find(entries, required).IsDefined()) {
      reader.Problem(node, std::string("missing key '") + required + "'");
    }
  }
  // A column or pointer given but bad has its own problem.
  const YAML::Node value = YamlReader::Find(entries, "value");
  const bool given = value.IsMap() && value[source.json ? "pointer" : "column"];
  const bool needs_column = !udm && definition.type != MetricType::kInfo && !given;
  if (needs_column) {
    reader.Problem(node, source.json != nullptr ? "missing value pointer"
                                                : "missing value column");
  }
  if (!udm && definition.type == MetricType::kInfo &&
      YamlReader::Find(entries, "value").IsDefined()) {
    reader.Problem(node, "an info family takes no value");
  }
  if (reader.ProblemCount() != before) return std::nullopt;
  CheckFamily(reader, node, definition);
  if (reader.ProblemCount() != before) return std::nullopt;
  return definition;
}

void CheckFamily(YamlReader& reader, const YAML::Node& node,
                 const MetricDefinition& metric) {
  const std::string& name = metric.name;
  if (!IsValidName(name)) {
    reader.Problem(node, "invalid family name '" + name + "'");
    return;
  }
  if (name.starts_with("fetchlet_") || name.starts_with("process_")) {
    reader.Problem(node, "family name '" + name +
                             "' is reserved for the program's own metrics");
  }
  if (metric.help.empty()) reader.Problem(node, "help is empty");
  CheckSuffixes(reader, node, metric);
  CheckStates(reader, node, metric);
}

}  // namespace fetchlet::serve
