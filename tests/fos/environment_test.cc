// The environment builder: property entries, the ENV_ARRAY block, precedence,
// and what it writes to standard error when memory runs out.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "fos/qvefos_request.h"
#include "qve/embedded.h"

namespace {

using Strings = std::vector<std::string>;
using Props = std::vector<std::pair<std::string, std::string>>;

// Builds the environment of props; the entries, released. An empty list
// stands for a null environment.
Strings BuildFrom(const Props& props) {
  qvlnv_NVList* list = qvehost::NewPropertyList();
  for (const auto& [name, value] : props) {
    qvehost::SetProperty(list, name, value);
  }
  char** envp = qvefos_buildEnvironment(list);
  qvehost::DeletePropertyList(list);
  Strings entries;
  if (envp == nullptr) return entries;
  for (char** slot = envp; *slot != nullptr; ++slot) entries.emplace_back(*slot);
  EXPECT_FALSE(entries.empty()) << "an environment without entries is null";
  qvefos_freeEnvironment(&envp);
  EXPECT_EQ(envp, nullptr);
  return entries;
}

struct EnvCase {
  Props props;
  Strings entries;
};

TEST(EnvironmentTest, PropertyEntriesInListOrder) {
  const EnvCase cases[] = {
      {{{"ENVPATH", "/usr/bin"}}, {"PATH=/usr/bin"}},
      {{{"ENV", "x"}}, {"=x"}},
      {{{"ENV_ARRAYX", "v"}}, {"_ARRAYX=v"}},
      {{{"KTAgentConditionContextId", "7"}}, {"KTAgentConditionContextId=7"}},
      {{{"ENVA", ""}}, {"A="}},
      {{{"PATH", "/x"}, {"env", "1"}, {"EN", "2"}, {"KTAgentCondition", "3"}},
       {}},
      {{{"ENVB", "2"}, {"command", "c"}, {"ENVA", "1"}}, {"B=2", "A=1"}},
      // Properties are never compared with each other.
      {{{"ENVKTAgentConditionContextA", "1"}, {"KTAgentConditionContextA", "2"}},
       {"KTAgentConditionContextA=1", "KTAgentConditionContextA=2"}},
  };
  for (const EnvCase& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.props));
    EXPECT_EQ(BuildFrom(c.props), c.entries);
  }
}

TEST(EnvironmentTest, EnvArrayBlockAddsNamesNotYetPresent) {
  const EnvCase cases[] = {
      {{{"ENV_ARRAY", "{PATH=/bin}{LANG=fr}"}}, {"PATH=/bin", "LANG=fr"}},
      {{{"ENV_ARRAY", "{PATH=/x}"}, {"ENVPATH", "/y"}}, {"PATH=/y"}},
      {{{"ENVpath", "/y"}, {"ENV_ARRAY", "{PATH=/x}"}}, {"path=/y", "PATH=/x"}},
      {{{"ENVPATH", "/y"}, {"ENV_ARRAY", "{PATHX=1}"}}, {"PATH=/y", "PATHX=1"}},
      {{{"ENV_ARRAY", "{A=1}{A=2}"}}, {"A=1"}},
      {{{"ENV_ARRAY", "{A=1}, {B=2}"}}, {"A=1", "B=2"}},
      {{{"ENV_ARRAY", "{A=x=y}"}}, {"A=x=y"}},
      {{{"ENV_ARRAY", "{A=}"}}, {"A="}},
      {{{"ENV_ARRAY", "{=v}"}}, {"=v"}},
      {{{"ENV_ARRAY", "{A=1"}}, {"A=1"}},
      {{{"ENV_ARRAY", "  {A=1} junk"}}, {"A=1"}},
      {{{"ENV_ARRAY", ""}}, {}},
      {{{"ENV_ARRAY", "A=1"}}, {}},
      // Braces that nest or do not balance, read as the groups fall.
      {{{"ENV_ARRAY", "{A}{B=1}"}}, {"A}{B=1"}},
      {{{"ENV_ARRAY", "{A={B=1}}"}}, {"A={B=1"}},
      {{{"ENV_ARRAY", "{{A=1}}{B=2}"}}, {"{A=1", "B=2"}},
      {{{"ENV_ARRAY", "}{A=1}"}}, {"A=1"}},
      // A group without "=" yields nothing, nor does a "{" at the very end.
      {{{"ENV_ARRAY", "{A}"}}, {}},
      {{{"ENV_ARRAY", "{A=1}{B}"}}, {"A=1"}},
      {{{"ENV_ARRAY", "{A=1}{"}}, {"A=1"}},
      {{{"ENV_ARRAY", "{"}}, {}},
  };
  for (const EnvCase& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.props));
    EXPECT_EQ(BuildFrom(c.props), c.entries);
  }
}

TEST(EnvironmentTest, EntryMatchesNameFollowedByEquals) {
  const std::pair<std::pair<const char*, const char*>, int32_t> cases[] = {
      {{"PATH=/x", "PATH"}, 1}, {{"PATH=", "PATH"}, 1},
      {{"=x", ""}, 1},          {{"PATHX=1", "PATH"}, 0},
      {{"PATH", "PATH"}, 0},    {{"path=/x", "PATH"}, 0},
      {{"PA", "PATH"}, 0},      {{"X=PATH=1", "PATH"}, 0},
  };
  for (const auto& [args, expected] : cases) {
    SCOPED_TRACE(std::string(args.first) + " / " + args.second);
    EXPECT_EQ(qvefos_envEntryMatches(args.first, args.second), expected);
  }
}

TEST(EnvironmentTest, FreeEnvironmentIgnoresNull) {
  char** envp = nullptr;
  qvefos_freeEnvironment(&envp);
  EXPECT_EQ(envp, nullptr);
  qvefos_freeArguments(nullptr);
}

std::string BuildCapturingStderr(const Props& props, Strings* entries) {
  testing::internal::CaptureStderr();
  *entries = BuildFrom(props);
  return testing::internal::GetCapturedStderr();
}

TEST(EnvironmentTest, AllocationFailuresAreToldOnStderr) {
  const Props props = {{"ENVA", "1"}, {"ENV_ARRAY", "{C=3}"}};
  Strings entries;
  qvehost::FailAllocation("qvefos", 1, false);
  EXPECT_EQ(BuildCapturingStderr(props, &entries),
            "qvefos: Memory allocation error for ENVA\n");
  EXPECT_TRUE(entries.empty());

  qvehost::ResetFaults();
  EXPECT_EQ(BuildCapturingStderr(props, &entries), "");
  const uint64_t last = qvehost::AllocationCount("qvefos");
  qvehost::ResetFaults();
  qvehost::FailAllocation("qvefos", last, false);
  EXPECT_EQ(BuildCapturingStderr(props, &entries),
            "qvefos: Could not create array of strings for return");
  EXPECT_TRUE(entries.empty());
}

TEST(EnvironmentTest, EachFailingAllocationGivesNullAndOneMessage) {
  const Props props = {{"ENVA", "1"},
                       {"KTAgentConditionContextB", "2"},
                       {"ENV_ARRAY", "{C=3}, {A=4}{D=5}"}};
  const Strings full = {"A=1", "KTAgentConditionContextB=2", "C=3", "D=5"};
  const std::string kEntryError = "qvefos: Memory allocation error for ";
  for (uint64_t k = 1;; ++k) {
    SCOPED_TRACE(k);
    ASSERT_LT(k, 100u);
    qvehost::ResetFaults();
    qvehost::FailAllocation("qvefos", k, false);
    Strings entries;
    const std::string err = BuildCapturingStderr(props, &entries);
    if (qvehost::AllocationCount("qvefos") < k) {
      EXPECT_EQ(entries, full);
      EXPECT_EQ(err, "");
      break;
    }
    EXPECT_TRUE(entries.empty());
    const bool told = (err.starts_with(kEntryError) && err.ends_with("\n") &&
                       err.find('\n') == err.size() - 1) ||
                      err == "qvefos: Could not create array of strings for "
                             "return";
    EXPECT_TRUE(told) << err;
    EXPECT_TRUE(qvehost::LiveBlocks("qvefos").empty());
  }
}

}  // namespace
