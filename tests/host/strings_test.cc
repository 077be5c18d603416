// String helpers of the host runtime.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "qve/host.h"

namespace {

struct CompareCase {
  const char* name;
  const char* first;
  const char* second;
  bool equal_exact;
  bool equal_ignoring_case;
};

class CompareTest : public testing::TestWithParam<CompareCase> {};

TEST_P(CompareTest, ExactAndCaseInsensitiveComparisons) {
  const CompareCase& c = GetParam();
  EXPECT_EQ(qve_equals(c.first, c.second) != 0, c.equal_exact);
  EXPECT_EQ(strcaseeq(c.first, c.second) == 0, c.equal_ignoring_case);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, CompareTest,
    testing::Values(CompareCase{"Same", "TRUE", "TRUE", true, true},
                    CompareCase{"CaseDiffers", "true", "TRUE", false, true},
                    CompareCase{"Longer", "TRUEx", "TRUE", false, false},
                    CompareCase{"Shorter", "TRU", "TRUE", false, false},
                    CompareCase{"Empty", "", "", true, true},
                    CompareCase{"NonAsciiLetters", "\xc9", "\xe9", false, false},  // ASCII only
                    CompareCase{"NullFirst", nullptr, "TRUE", false, false}),
    [](const auto& p) { return std::string(p.param.name); });

TEST(StringsTest, SnprintfCutsToFitAndReportsTheWholeLength) {
  char buffer[6];
  EXPECT_EQ(qveupt_snprintf(buffer, sizeof buffer, "%s-%d", "abc", 1234), 8);
  EXPECT_STREQ(buffer, "abc-1");
  EXPECT_EQ(qveupt_snprintf(nullptr, 0, "%d", 42), 2);
}

TEST(StringsTest, StrncpyPadsAndDoesNotTerminateWhenCut) {
  char buffer[6];
  std::memset(buffer, 'x', sizeof buffer);
  qveustr_strncpy(buffer, "ab", 4);
  EXPECT_EQ(std::string(buffer, 6), std::string("ab\0\0xx", 6));
  qveustr_strncpy(buffer, "abcdefgh", 3);
  EXPECT_EQ(std::string(buffer, 6), std::string("abc\0xx", 6));
}

TEST(StringsTest, CurrentSecondsIsWallClock) {
  EXPECT_GT(qveut_currentSeconds(), 1600000000u);
}

}  // namespace
