// The in-place line splitter.
#include <gtest/gtest.h>

#include "fos/run_support.h"
#include "fosl/qvefosl_lines.h"

namespace qvetest {
namespace {

TEST(LinesTest, CutsLinesInPlaceOrGivesNone) {
  using namespace std::string_literals;
  // clang-format off
  const std::tuple<std::string, Strings, std::string> cases[] = {
      // The text, its lines, and the text once split, NULs included.
      {"a\nb", {"a", "b"}, "a\0b"s},
      {"a\r\nb\r\n", {"a", "b"}, "a\0\0b\0\0"s},
      // Only a return right before a line feed goes.
      {"a\r\r\n", {"a\r"}, "a\r\0\0"s},
      {"a\rb\nc\r", {"a\rb", "c\r"}, "a\rb\0c\r"s},
      {"\r\n", {""}, "\0\0"s},
      {"a\n\nb\n\n", {"a", "", "b", ""}, "a\0\0b\0\0"s},
  };
  // clang-format on
  for (const auto& [given, expected, after] : cases) {
    std::string text = given;  // writable, and NUL-terminated by c_str
    char** lines = nullptr;
    const uint32_t count = qvefosl_getLines(text.data(), &lines);
    EXPECT_EQ(Strings(lines, lines + count), expected);
    for (uint32_t i = 0; i < count; ++i) {
      EXPECT_TRUE(lines[i] >= text.data() && lines[i] <= &text.back());
    }
    EXPECT_EQ(text, after);
    qve_free0(lines, "tests", __LINE__);
  }
  char empty[] = "";
  for (char* text : {static_cast<char*>(nullptr), empty}) {
    auto** lines = reinterpret_cast<char**>(&text);  // not null beforehand
    EXPECT_EQ(qvefosl_getLines(text, &lines), 0U);
    EXPECT_EQ(lines, nullptr);
  }
}

}  // namespace
}  // namespace qvetest
