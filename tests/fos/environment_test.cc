// The environment builder: property entries, the ENV_ARRAY block and its
// precedence, and what it writes to standard error when memory runs out.
#include <gtest/gtest.h>

#include "fos/qvefos_request.h"
#include "fos/run_support.h"

namespace qvetest {
namespace {

// The entries built from props, released; none for a null environment.
Strings BuildFrom(const Props& props) {
  const auto list = NewList(props);
  char** envp = qvefos_buildEnvironment(list.get());
  Strings entries;
  for (char** slot = envp; slot != nullptr && *slot != nullptr; ++slot) {
    entries.emplace_back(*slot);
  }
  EXPECT_TRUE(envp == nullptr || !entries.empty()) << "empty but not null";
  qvefos_freeEnvironment(&envp);
  EXPECT_EQ(envp, nullptr);
  return entries;
}

TEST(EnvironmentTest, PropertyEntriesThenTheBlocksNewNames) {
  // clang-format off
  const std::pair<Props, Strings> cases[] = {
      // Properties in list order, never compared with each other.
      {{{"ENVB", "2"}, {"command", "c"}, {"ENVA", ""}, {"ENV", "x"}},
       {"B=2", "A=", "=x"}},
      {{{"KTAgentConditionContextId", "7"},
        {"ENVKTAgentConditionContextId", "1"}},
       {"KTAgentConditionContextId=7", "KTAgentConditionContextId=1"}},
      {{{"ENV_ARRAYX", "v"}, {"env", "1"}, {"KTAgentCondition", "3"}},
       {"_ARRAYX=v"}},
      // The block adds, in its order, the first pair of each name that no
      // entry holds yet; names compare whole and with their case.
      {{{"ENV_ARRAY", "{PATH=/x}{PATHX=1}{path=2}{A=1}{A=2}"},
        {"ENVPATH", "/y"}},
       {"PATH=/y", "PATHX=1", "path=2", "A=1"}},
      {{{"ENV_ARRAY", "  {A=x=y}, {B=} junk{=v}"}}, {"A=x=y", "B=", "=v"}},
      {{{"ENV_ARRAY", "{A=1"}}, {"A=1"}},
      {{{"ENV_ARRAY", "A=1"}}, {}},
      // Braces that nest or do not balance, read as the groups fall; a
      // group with no "=" after it yields nothing.
      {{{"ENV_ARRAY", "{A}{B=1}"}}, {"A}{B=1"}},
      {{{"ENV_ARRAY", "}{{A=1}}{B=2}"}}, {"{A=1", "B=2"}},
      {{{"ENV_ARRAY", "{A=1}{B}"}}, {"A=1"}},
      {{{"ENV_ARRAY", "{A=1}{"}}, {"A=1"}},
  };
  // clang-format on
  for (const auto& [props, entries] : cases) {
    EXPECT_EQ(BuildFrom(props), entries) << testing::PrintToString(props);
  }
}

TEST(EnvironmentTest, EachAllocationFailureIsToldOnStandardError) {
  const Props props = {{"ENVA", "1"}, {"ENV_ARRAY", "{C=3}"}};
  // In order: entry A, the pair table, the block's copy, name C, value 3,
  // entry C, the array.
  const std::pair<uint64_t, std::string> cases[] = {
      {1, "qvefos: Memory allocation error for ENVA\n"},
      {2, "qvefos: Memory allocation error for ENV_ARRAY\n"},
      {4, "qvefos: Memory allocation error for C\n"},
      {6, "qvefos: Memory allocation error for C\n"},
      {7, "qvefos: Could not create array of strings for return"},
      {8, ""},
  };
  for (const auto& [k, told] : cases) {
    qvehost::ResetFaults();
    qvehost::FailAllocation("qvefos", k, false);
    testing::internal::CaptureStderr();
    const size_t entries = BuildFrom(props).size();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), told) << k;
    EXPECT_EQ(entries, told.empty() ? 2u : 0u) << k;
  }
}

}  // namespace
}  // namespace qvetest
