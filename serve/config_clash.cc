// Families of different collectors share one exposition: no two may yield
// the same family name or the same sample name in either format.
#include <map>

#include "serve/config_internal.h"

namespace fetchlet::serve {
namespace {

struct Claim {
  std::string family;  // the family whose name is claimed
  const MetricDefinition* metric;
};

// The family name that OpenMetrics prints on # TYPE lines.
std::string BaseName(const MetricDefinition& metric) {
  if (metric.type == MetricType::kCounter) {
    return metric.name.substr(0, metric.name.size() - 6);
  }
  return metric.name;
}

// Every name a family's lines carry.
std::vector<std::string> ClaimedNames(const MetricDefinition& metric) {
  const std::string base = BaseName(metric);
  switch (metric.type) {
    case MetricType::kCounter:
      return {base, metric.name, base + "_created"};
    case MetricType::kInfo:
      return {base, base + "_info"};
    default:
      return {base};
  }
}

std::string Place(const Position& where) {
  return "line " + std::to_string(where.line);
}

std::vector<const MetricDefinition*> FamiliesOf(const CollectorConfig& collector) {
  std::vector<const MetricDefinition*> families;
  families.reserve(collector.metrics.size() + 1);
  for (const MetricDefinition& metric : collector.metrics) families.push_back(&metric);
  if (collector.udm_value) families.push_back(&*collector.udm_value);
  return families;
}

}  // namespace

void CheckFamilyClashes(YamlReader& reader,
                        const std::vector<CollectorConfig>& collectors) {
  std::map<std::string, Claim> claims;
  for (const CollectorConfig& collector : collectors) {
    for (const MetricDefinition* metric : FamiliesOf(collector)) {
      for (const std::string& name : ClaimedNames(*metric)) {
        const auto [it, fresh] = claims.emplace(name, Claim{name, metric});
        if (fresh || it->second.metric == metric) continue;
        const MetricDefinition& other = *it->second.metric;
        const std::string text =
            other.name == metric->name
                ? "family '" + metric->name + "' is already defined at " +
                      Place(other.where)
                : "family '" + metric->name + "' clashes with '" +
                      other.name + "' of " + Place(other.where) +
                      " over the name '" + name + "'";
        reader.ProblemAt(metric->where, text);
        break;
      }
    }
  }
}

}  // namespace fetchlet::serve
