// Reaching the plug-in: the kind table, loading, and one evaluation under a
// deadline, through the build tree's plug-in.
#include "agent/evaluate.h"

#include <gtest/gtest.h>

#include "tests/serve/serve_runtime_support.h"

namespace fetchlet::agent {
namespace {

using namespace std::chrono_literals;

TEST(AgentTest, KindsNamesAndPrefixesGoBothWays) {
  const struct {
    const char* name;
    Kind kind;
    const char* prefix;
  } cases[] = {{"os", Kind::kOs, "qvefos"},
               {"osline", Kind::kOsLine, "qvefosl"},
               {"oslinetoken", Kind::kOsLineToken, "qvefoslt"},
               {"udm", Kind::kUdm, "qvefosud"}};
  for (const auto& c : cases) {
    EXPECT_EQ(KindNamed(c.name), c.kind) << c.name;
    EXPECT_STREQ(KindName(c.kind), c.name);
    EXPECT_STREQ(KindPrefix(c.kind), c.prefix);
    EXPECT_TRUE(qvetest::EntryPoints(c.kind).has_value()) << c.name;
  }
  EXPECT_EQ(KindNamed("OS"), std::nullopt);
  EXPECT_EQ(KindNamed(""), std::nullopt);
  std::string error;
  EXPECT_EQ(Plugin::Load("/nonexistent/libqvefos.so", &error), nullptr);
  EXPECT_NE(error.find("/nonexistent/libqvefos.so"), std::string::npos);
}

// A hung command met by its deadline, its processes ended: ScheduleTest,
// which evaluates through here.
TEST(AgentTest, EvaluatesUnderADeadline) {
  const struct {
    const char* name;
    std::string command;
    std::optional<std::chrono::milliseconds> within;
    int32_t status;
    bool result;
    bool timed_out;
  } cases[] = {
      {"quick, no deadline", "/bin/echo 1", std::nullopt, 0, true, false},
      {"quick, well within", "/bin/echo 1", 10s, 0, true, false},
      {"failed", "/bin/false", 10s, -1, false, false},
  };
  const auto entry_points = qvetest::EntryPoints(Kind::kOs);
  ASSERT_TRUE(entry_points.has_value());
  uint64_t evaluation = 1000;
  for (const auto& c : cases) {
    const Property command[] = {{"command", c.command}};
    PropertyList list = NewPropertyList(command);
    Call call{++evaluation, "agent-test-" + std::to_string(evaluation), {}};
    if (c.within) call.deadline = std::chrono::steady_clock::now() + *c.within;
    const Outcome outcome = Evaluate(*entry_points, list.get(), call);
    EXPECT_EQ(outcome.status, c.status) << c.name;
    EXPECT_EQ(outcome.result != nullptr, c.result) << c.name;
    EXPECT_EQ(outcome.timed_out, c.timed_out) << c.name;
    EXPECT_EQ(outcome.Succeeded(), c.status == 0 && c.result) << c.name;
  }
}

}  // namespace
}  // namespace fetchlet::agent
