// `limits:` of the file (the defaults) and of a collector: what each run of
// a collector may take, held by the run's cgroup.
#include "qve/embedded.h"
#include "serve/config_internal.h"

namespace fetchlet::serve {
namespace {

const std::vector<std::string> kLimitKeys = {"memory", "pids", "cpu"};

}  // namespace

void ReadLimits(YamlReader& reader, const YAML::Node& node,
                LimitsConfig* limits) {
  for (const auto& entry : reader.Entries(node, "limits", kLimitKeys)) {
    if (entry.key == "memory") {
      limits->memory = reader.Size(entry.value, "memory");
    } else if (entry.key == "pids") {
      const auto pids = reader.Integer(entry.value, "pids", 1);
      if (pids) limits->pids = static_cast<uint64_t>(*pids);
    } else if (entry.key == "cpu") {
      limits->cpu = reader.Number(entry.value, "cpu");
      if (limits->cpu && *limits->cpu <= 0) {
        reader.Problem(entry.value, "'cpu' must be above 0 (a share of a core)");
      }
    }
  }
  limits->where = reader.Where(node);
}

void InheritLimits(const LimitsConfig& defaults, LimitsConfig* limits) {
  if (!limits->memory) limits->memory = defaults.memory;
  if (!limits->pids) limits->pids = defaults.pids;
  if (!limits->cpu) limits->cpu = defaults.cpu;
  if (limits->where.line == 0) limits->where = defaults.where;
}

void CheckLimits(YamlReader& reader, const LimitsConfig& limits) {
  const std::string why = qvehost::RunLimitsError(ToRunLimits(limits));
  if (!why.empty()) reader.ProblemAt(limits.where, "limits: " + why);
}

qvehost::RunLimits ToRunLimits(const LimitsConfig& limits) {
  qvehost::RunLimits run;
  run.memory_bytes = limits.memory.value_or(0);
  run.pids = limits.pids.value_or(0);
  run.cpu = limits.cpu.value_or(0);
  return run;
}

}  // namespace fetchlet::serve
