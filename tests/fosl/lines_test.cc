// The in-place line splitter.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "fosl/qvefosl_lines.h"
#include "qve/embedded.h"

namespace {

struct SplitCase {
  const char* name;
  std::string text;
  std::vector<std::string> lines;
  std::string after;  // the whole text once split, NULs included
};

class SplitTest : public testing::TestWithParam<SplitCase> {};

TEST_P(SplitTest, CutsLinesInPlace) {
  const SplitCase& c = GetParam();
  std::string text = c.text;  // writable, and NUL-terminated by c_str
  char** lines = nullptr;
  const uint32_t count = qvefosl_getLines(text.data(), &lines);
  ASSERT_EQ(count, c.lines.size());
  ASSERT_NE(lines, nullptr);
  for (uint32_t i = 0; i < count; ++i) {
    EXPECT_GE(lines[i], text.data());
    EXPECT_LE(lines[i], text.data() + text.size());
    EXPECT_EQ(lines[i], c.lines[i]) << "line " << i;
  }
  EXPECT_EQ(text, c.after);
  qve_free0(lines, "test", __LINE__);
}

using namespace std::string_literals;

INSTANTIATE_TEST_SUITE_P(
    LineEnds, SplitTest,
    testing::Values(
        SplitCase{"NoFinalFeed", "a\nb", {"a", "b"}, "a\0b"s},
        SplitCase{"FinalFeed", "a\nb\n", {"a", "b"}, "a\0b\0"s},
        SplitCase{"CarriageReturns", "a\r\nb\r\n", {"a", "b"}, "a\0\0b\0\0"s},
        SplitCase{"OnlyTheLastReturnGoes", "a\r\r\n", {"a\r"}, "a\r\0\0"s},
        SplitCase{"BareReturnStays", "a\r", {"a\r"}, "a\r"},
        SplitCase{"ReturnInsideALine", "a\rb\nc", {"a\rb", "c"}, "a\rb\0c"s},
        SplitCase{"OnlyAFeed", "\n", {""}, "\0"s},
        SplitCase{"OnlyReturnAndFeed", "\r\n", {""}, "\0\0"s},
        SplitCase{"EmptyLineBetween", "a\n\nb", {"a", "", "b"}, "a\0\0b"s},
        SplitCase{"EmptyLastLine", "a\nb\n\n", {"a", "b", ""}, "a\0b\0\0"s},
        SplitCase{"MultiByteUntouched",
                  "\xC3\xA9t\xC3\xA9\n\xE6\x97\xA5",
                  {"\xC3\xA9t\xC3\xA9", "\xE6\x97\xA5"},
                  "\xC3\xA9t\xC3\xA9\0\xE6\x97\xA5"s}),
    [](const testing::TestParamInfo<SplitCase>& param) {
      return std::string(param.param.name);
    });

TEST(SplitNothingTest, NullAndEmptyTextsGiveNoArray) {
  char empty[] = "";
  for (char* text : {static_cast<char*>(nullptr), empty}) {
    auto** sentinel = reinterpret_cast<char**>(&text);
    char** lines = sentinel;
    EXPECT_EQ(qvefosl_getLines(text, &lines), 0U);
    EXPECT_EQ(lines, nullptr);
  }
}

TEST(SplitNothingTest, RefusedArrayGivesNoLinesAndLeavesTheText) {
  qvehost::FailAllocation("qvefosl", 1, false);
  char text[] = "a\nb\n";
  char** lines = nullptr;
  EXPECT_EQ(qvefosl_getLines(text, &lines), 0U);
  EXPECT_EQ(lines, nullptr);
  EXPECT_STREQ(text, "a\nb\n");
}

}  // namespace
