// Families of different collectors share one exposition: no two may yield
// the same family name or the same sample name in either format.
#include <map>

#include "serve/config_internal.h"
#include "serve/family_claims.h"

namespace fetchlet::serve {
namespace {

struct Claim {
  std::string family;  // the family whose name is claimed
  const MetricDefinition* metric;
};

std::string Place(const Position& where) {
  return "line " + std::to_string(where.line);
}

}  // namespace

std::vector<const MetricDefinition*> ConfiguredFamilies(const CollectorConfig& collector) {
  std::vector<const MetricDefinition*> families;
  families.reserve(collector.metrics.size() + 1);
  for (const MetricDefinition& metric : collector.metrics) families.push_back(&metric);
  if (collector.udm_value) families.push_back(&*collector.udm_value);
  return families;
}

void CheckFamilyClashes(YamlReader& reader,
                        const std::vector<CollectorConfig>& collectors) {
  std::map<std::string, Claim> claims;
  for (const CollectorConfig& collector : collectors) {
    for (const MetricDefinition* metric : ConfiguredFamilies(collector)) {
      for (const std::string& name : PrintedNames({metric->name, metric->type, "", "", {}})) {
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
