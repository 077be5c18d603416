// modules: collectors without a schedule, run by /probe for one target at a
// time; their params and the ${NAME} their properties use.
#include <re2/re2.h>

#include <map>

#include "serve/config_internal.h"
#include "serve/module_params.h"

namespace fetchlet::serve {
namespace {

// The families every probe answer has besides the module's own.
const std::vector<std::string> kProbeFamilies = {"probe_success",
                                                 "probe_duration_seconds"};

bool IsParamName(const std::string& name) {
  if (name.empty() || (name[0] >= '0' && name[0] <= '9')) return false;
  return std::all_of(name.begin(), name.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_';
  });
}

ModuleParam TargetParam() {
  ModuleParam target{"target", kDefaultTargetPattern, nullptr, std::nullopt};
  target.compiled = std::make_shared<const RE2>(target.pattern);
  return target;
}

void CompilePattern(YamlReader& reader, const YAML::Node& node,
                    ModuleParam* param) {
  RE2::Options options;
  options.set_log_errors(false);
  auto compiled = std::make_shared<const RE2>(param->pattern, options);
  if (!compiled->ok()) {
    reader.Problem(node, "pattern of param '" + param->name +
                             "' does not compile: " + compiled->error());
    return;
  }
  param->compiled = std::move(compiled);
}

void ReadParam(YamlReader& reader, const YamlReader::Entry& entry,
               ModuleConfig* module) {
  if (!IsParamName(entry.key) || entry.key == "module") {
    reader.Problem(entry.key_node, "invalid param name '" + entry.key + "'");
    return;
  }
  ModuleParam param{entry.key, "", nullptr, std::nullopt};
  const auto entries = reader.Entries(entry.value, "param '" + entry.key + "'",
                                      {"pattern", "default"});
  const YAML::Node pattern = YamlReader::Find(entries, "pattern");
  const YAML::Node fallback = YamlReader::Find(entries, "default");
  if (fallback.IsDefined()) param.default_value = reader.String(fallback, "default");
  if (pattern.IsDefined()) {
    param.pattern = reader.String(pattern, "pattern").value_or("");
    CompilePattern(reader, pattern, &param);
  } else if (param.name == "target") {
    param = TargetParam();
    param.default_value = reader.String(fallback, "default");
  } else if (entry.value.IsMap()) {
    reader.Problem(entry.value, "param '" + param.name + "' needs a 'pattern'");
  }
  if (param.compiled && param.default_value) {
    const std::string why = ValueProblem(param, *param.default_value);
    if (!why.empty()) {
      reader.Problem(fallback, "default of param '" + param.name + "' " + why);
    }
  }
  if (param.name == "target") {
    module->params.front() = std::move(param);
  } else {
    module->params.push_back(std::move(param));
  }
}

bool Declared(const ModuleConfig& module, const std::string& name) {
  return std::any_of(module.params.begin(), module.params.end(),
                     [&](const ModuleParam& p) { return p.name == name; });
}

// Each ${NAME} of the properties is a declared param.
void CheckReferences(YamlReader& reader, const YAML::Node& node,
                     const ModuleConfig& module) {
  const YAML::Node properties = node["properties"];
  const YAML::Node& where = properties.IsDefined() ? properties : node;
  for (const auto& [name, value] : module.collector.properties) {
    std::vector<std::string> names;
    if (!ParamReferences(value, &names)) {
      reader.Problem(where, "property '" + name + "' has a '${' without '}'");
    }
    for (const std::string& used : names) {
      if (Declared(module, used)) continue;
      std::string text = "property '" + name + "' uses '${";
      text += used;
      text += "}', which is not among the module's params";
      reader.Problem(where, text);
    }
  }
}

void CheckProbeFamilies(YamlReader& reader, const CollectorConfig& collector) {
  std::vector<const MetricDefinition*> families;
  families.reserve(collector.metrics.size() + 1);
  for (const MetricDefinition& metric : collector.metrics) families.push_back(&metric);
  if (collector.udm_value) families.push_back(&*collector.udm_value);
  for (const MetricDefinition* metric : families) {
    if (std::find(kProbeFamilies.begin(), kProbeFamilies.end(), metric->name) !=
        kProbeFamilies.end()) {
      reader.ProblemAt(metric->where, "family '" + metric->name +
                                          "' is one every probe answers with");
    }
  }
  CheckFamilyClashes(reader, {collector});
}

}  // namespace

void ReadModuleEntry(YamlReader& reader, const YamlReader::Entry& entry,
                     ModuleConfig* module) {
  if (entry.key == "cache_for") {
    module->cache_for = reader.DurationValue(entry.value, entry.key);
    return;
  }
  for (const auto& param : reader.Entries(entry.value, "params", {})) {
    ReadParam(reader, param, module);
  }
}

void ReadModules(YamlReader& reader, const YAML::Node& node, Config* config) {
  if (!node.IsSequence()) {
    reader.Problem(node, "'modules' must be a list");
    return;
  }
  std::map<std::string, Position> names;
  for (const YAML::Node& item : node) {
    ModuleConfig module;
    module.params.push_back(TargetParam());
    auto collector = ReadListEntry(reader, item, *config, &names, &module);
    if (!collector) continue;
    module.collector = std::move(*collector);
    CheckReferences(reader, item, module);
    CheckProbeFamilies(reader, module.collector);
    config->modules.push_back(std::move(module));
  }
}

}  // namespace fetchlet::serve
