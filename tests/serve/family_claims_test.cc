// One exposition for all collectors: a family that prints a name another
// collector configured or printed first is dropped and counted, across
// evaluations and reloads.
#include <gtest/gtest.h>

#include "serve/family_claims.h"
#include "serve/format.h"
#include "serve_test_support.h"

namespace qvetest {
namespace {

using fetchlet::serve::Families;
using fetchlet::serve::Family;
using fetchlet::serve::FamilyClaims;
using fetchlet::serve::MetricType;
using Lines = std::vector<std::string>;

// "disk" configures disk_used_bytes and the counter reads_total; "a" and
// "b" print Prometheus text.
constexpr const char* kConfig = R"(collectors:
  - name: disk
    kind: osline
    properties: {command: x}
    interval: 1m
    metrics:
      - {name: disk_used_bytes, help: h, value: {column: 0}}
      - {name: reads_total, help: h, type: counter, value: {column: 0}}
  - name: a
    kind: os
    properties: {command: x}
    interval: 1m
    format: prometheus
  - name: b
    kind: os
    properties: {command: x}
    interval: 1m
    format: prometheus
)";

// An evaluation of collector printing families ("name" or "name:type"),
// then what was kept and the notes.
struct Step {
  std::string collector;
  Lines printed;
  Lines kept;
  Lines notes;
  bool settle = true;  // published: what it held before is free
};

Families Printed(const Lines& names) {
  Families families;
  for (const std::string& name : names) {
    const size_t colon = name.find(':');
    const bool counter = colon != std::string::npos;
    families.push_back({name.substr(0, colon),
                        counter ? MetricType::kCounter : MetricType::kGauge, "", "h",
                        {}});
  }
  return families;
}

struct Case {
  std::string name;
  std::vector<Step> steps;
};

const std::vector<Case> kCases = {
    {"configured_names_stay_their_collectors",
     {{"a", {"disk_used_bytes", "reads", "reads_created", "ok"}, {"ok"},
       {"family disk_used_bytes dropped: disk_used_bytes is collector disk's",
        "family reads dropped: reads is collector disk's",
        "family reads_created dropped: reads_created is collector disk's"}},
      {"disk", {"disk_used_bytes", "reads_total:counter"},
       {"disk_used_bytes", "reads_total"}, {}}}},
    {"first_to_print_a_name_holds_it",
     {{"a", {"x", "y_total:counter"}, {"x", "y_total"}, {}},
      {"b", {"x", "y", "z"}, {"z"},
       {"family x dropped: x is collector a's", "family y dropped: y is collector a's"}},
      {"a", {"x", "y_total:counter"}, {"x", "y_total"}, {}}}},
    {"a_name_no_longer_printed_is_free",
     {{"a", {"x"}, {"x"}, {}},
      {"a", {"w"}, {"w"}, {}},
      {"b", {"x"}, {"x"}, {}}}},
    {"held_until_published",
     {{"a", {"x"}, {"x"}, {}},
      {"a", {"w"}, {"w"}, {}, false},
      {"b", {"x"}, {}, {"family x dropped: x is collector a's"}}}},
    {"the_programs_own_names",
     {{"a", {"fetchlet_collector_up", "process_open_fds", "ok"}, {"ok"},
       {"family fetchlet_collector_up dropped: the name is the program's own",
        "family process_open_fds dropped: the name is the program's own"}}}},
    {"a_collector_not_configured_claims_nothing",
     {{"gone", {"x"}, {"x"}, {}},
      {"a", {"x"}, {"x"}, {}}}},
};

class FamilyClaimsTest : public testing::TestWithParam<Case> {};

TEST_P(FamilyClaimsTest, DropsWhatAnotherCollectorPrints) {
  FamilyClaims claims;
  claims.Configure(LoadServeConfig(kConfig).collectors);
  for (const Step& step : GetParam().steps) {
    Families families = Printed(step.printed);
    Lines notes;
    const uint64_t dropped = claims.Claim(step.collector, &families, &notes);
    Lines kept;
    for (const Family& family : families) kept.push_back(family.name);
    EXPECT_EQ(kept, step.kept) << step.collector;
    EXPECT_EQ(notes, step.notes) << step.collector;
    EXPECT_EQ(dropped, step.notes.size()) << step.collector;
    if (step.settle) claims.Settle(step.collector, families);
  }
}

INSTANTIATE_TEST_SUITE_P(Evaluations, FamilyClaimsTest, testing::ValuesIn(kCases),
                         [](const auto& p) { return p.param.name; });

// A reload frees the names of a collector it removes, and reserves the
// families it configures.
TEST(FamilyClaimsReload, RemovedCollectorsHoldNothing) {
  FamilyClaims claims;
  auto config = LoadServeConfig(kConfig);
  claims.Configure(config.collectors);
  Families families = Printed({"x"});
  Lines notes;
  claims.Claim("a", &families, &notes);
  claims.Settle("a", families);
  std::erase_if(config.collectors, [](const auto& c) { return c.name == "a"; });
  claims.Configure(config.collectors);
  families = Printed({"x"});
  EXPECT_EQ(claims.Claim("b", &families, &notes), 0u);
  EXPECT_EQ(notes, Lines{});
  families = Printed({"x"});
  EXPECT_EQ(claims.Claim("a", &families, &notes), 0u);  // not served: no claim
}

// 10,000 clashing families: each counted, the notes capped.
TEST(FamilyClaimsHostile, NotesCapped) {
  FamilyClaims claims;
  claims.Configure(LoadServeConfig(kConfig).collectors);
  Lines names;
  for (int i = 0; i < 10000; ++i) names.push_back("f" + std::to_string(i));
  Families families = Printed(names);
  Lines notes;
  claims.Claim("a", &families, &notes);
  claims.Settle("a", families);
  families = Printed(names);
  notes.clear();
  EXPECT_EQ(claims.Claim("b", &families, &notes), 10000u);
  EXPECT_TRUE(families.empty());
  ASSERT_EQ(notes.size(), fetchlet::serve::kMaxNotes + 1);
  EXPECT_EQ(notes.back(), "9980 more families dropped");
}

}  // namespace
}  // namespace qvetest
