#include "serve/family_claims.h"


#include "serve/format.h"

namespace fetchlet::serve {
namespace {

constexpr std::string_view kTotal = "_total";

}  // namespace

std::vector<std::string> PrintedNames(const Family& family) {
  std::string base = family.name;
  if (family.type == MetricType::kCounter && base.ends_with(kTotal)) {
    base.resize(base.size() - kTotal.size());
  }
  switch (family.type) {
    case MetricType::kCounter:
      return {base, family.name, base + "_created"};
    case MetricType::kInfo:
      return {base, base + "_info"};
    case MetricType::kHistogram:
      return {base, base + "_bucket", base + "_sum", base + "_count",
              base + "_created"};
    case MetricType::kSummary:
      return {base, base + "_sum", base + "_count", base + "_created"};
    default:
      return {base};
  }
}

void FamilyClaims::Configure(const std::vector<CollectorConfig>& collectors) {
  std::lock_guard lock(mutex_);
  reserved_.clear();
  std::unordered_map<std::string, std::vector<std::string>> holdings;
  for (const CollectorConfig& collector : collectors) {
    for (const MetricDefinition* metric : ConfiguredFamilies(collector)) {
      for (std::string& name : PrintedNames({metric->name, metric->type, "", "", {}})) {
        reserved_.emplace(std::move(name), collector.name);
      }
    }
    auto held = holdings_.find(collector.name);
    holdings[collector.name] =
        held != holdings_.end() ? std::move(held->second) : std::vector<std::string>{};
  }
  for (const auto& [collector, names] : holdings_) {
    if (holdings.contains(collector)) continue;
    for (const std::string& name : names) held_.erase(name);
  }
  holdings_ = std::move(holdings);
}

const std::string* FamilyClaims::Owner(const std::string& collector,
                                       const std::string& name) const {
  for (const auto* owners : {&reserved_, &held_}) {
    const auto found = owners->find(name);
    if (found != owners->end() && found->second != collector) return &found->second;
  }
  return nullptr;
}

uint64_t FamilyClaims::Claim(const std::string& collector, Families* families,
                             std::vector<std::string>* notes) {
  std::lock_guard lock(mutex_);
  const auto holding = holdings_.find(collector);
  if (holding == holdings_.end()) return 0;
  uint64_t dropped = 0;
  const auto drop = [&](const Family& family, const std::string& why) {
    if (++dropped <= kMaxNotes) notes->push_back("family " + family.name + " dropped: " + why);
    return true;
  };
  std::erase_if(*families, [&](const Family& family) {
    // A plug-in's prefix may be "fetchlet_collector" and a label "up".
    if (family.name.starts_with("fetchlet_") || family.name.starts_with("process_")) {
      return drop(family, "the name is the program's own");
    }
    const std::vector<std::string> names = PrintedNames(family);
    for (const std::string& name : names) {
      const std::string* owner = Owner(collector, name);
      if (owner != nullptr) return drop(family, name + " is collector " + *owner + "'s");
    }
    for (const std::string& name : names) {
      if (held_.emplace(name, collector).second) holding->second.push_back(name);
    }
    return false;
  });
  if (dropped > kMaxNotes) {
    notes->push_back(std::to_string(dropped - kMaxNotes) +
                     " more families dropped");
  }
  return dropped;
}

void FamilyClaims::Settle(const std::string& collector, const Families& families) {
  std::lock_guard lock(mutex_);
  const auto holding = holdings_.find(collector);
  if (holding == holdings_.end()) return;
  for (const std::string& name : holding->second) held_.erase(name);
  holding->second.clear();
  for (const Family& family : families) {
    for (std::string& name : PrintedNames(family)) {
      if (held_.emplace(name, collector).second) holding->second.push_back(std::move(name));
    }
  }
}

}  // namespace fetchlet::serve
