// The table parser on output texts in memory: line classes, fields, nested
// tables, the warning and its sources, the debug log, faults.
#include <gtest/gtest.h>

#include "common/run_support.h"
#include "foslt/qvefoslt_parse.h"

namespace qvetest {
namespace {

using qvehost::LogLevel;

constexpr uint32_t kLineMode = 0;
constexpr uint32_t kTokenMode = 1;
constexpr const char* kLogName = "fetchlets.oslinetok";

class ParseTest : public PluginTest {
 protected:
  // The result as JSON (null when the parser gave none).
  Json Parse(const Text& out, const Text& err, const Props& props,
             uint32_t tokenize = kTokenMode) {
    std::string text = out.value_or("");
    qvedrmr_MetricResult* result = qvefoslt_getFromString(
        out ? text.data() : nullptr, err ? err->c_str() : nullptr,
        NewList(props).get(), qveulm_getLogCtx(context_->logSource, kLogName),
        tokenize);
    return Outcome(0, result, nullptr)["result"];
  }
};

TEST_F(ParseTest, GivesTheTableInEachShape) {
  const char* example =
      "cpu|12\nWARN:disk low\nmem||80\n--\nswap|\nWARN:again\n";
  const char* warning = "disk low\nagain\n";
  const Props warn = {{"warningStartsWith", "WARN:"}};
  // clang-format off
  const std::tuple<std::string, Props, Json> cases[] = {
      {example, {{"delimiter", "|"}, {"tableSeparator", "--"}, warn[0]},
       Nested({{{"cpu", "12"}, {"mem", "", "80"}}, {{"swap", ""}}}, warning)},
      {example, {{"delimiter", "|"}, warn[0]},
       Flat({{"cpu", "12"}, {"mem", "", "80"}, {"--"}, {"swap", ""}}, warning)},
      // Only prefixed lines are data, the separator among them; a line with
      // both prefixes is data.
      {"Xcpu|12\nWARN:disk low\nmem||80\nX--\n--\nXswap|\nXWARN:both\n"
       "WARN:again\n",
       {{"delimiter", "|"}, {"tableSeparator", "X--"}, warn[0],
        {"startsWith", "X"}},
       Nested({{{"cpu", "12"}}, {{"swap", ""}, {"WARN:both"}}}, warning)},
      {"Xa\nX--\nXb\n", {{"tableSeparator", "--"}, {"startsWith", "X"}},
       Nested({{{"a"}, {"--"}, {"b"}}})},
      // A warning line is no separator; separators first, twice and last.
      {"a\nWARN:\nb\n", {{"tableSeparator", "WARN:"}, warn[0]},
       Nested({{{"a"}, {"b"}}}, "\n")},
      {"--\na\n--\n--\nb\n--\n", {{"tableSeparator", "--"}},
       Nested({{}, {{"a"}}, {}, {{"b"}}})},
      {"", {{"tableSeparator", "--"}}, Nested({})},
      // Empty properties select nothing.
      {"a\n\nb\n", {{"tableSeparator", ""}}, Flat({{"a"}, {""}, {"b"}})},
      {"a\nb\n", {{"startsWith", ""}}, Flat({{"a"}, {"b"}})},
      // Every delimiter byte ends a field, a byte of a character too.
      {"a,,b\n,a,\n", {{"delimiter", ","}},
       Flat({{"a", "", "b"}, {"", "a", ""}})},
      {"a b\tc  d\n", {{"delimiter", " \t"}}, Flat({{"a", "b", "c", "", "d"}})},
      {"a\xC2\xA7" "b\xC2z\n", {{"delimiter", "\xC2\xA7"}},
       Flat({{"a", "", "b", "z"}})},
      {"a,b c\n", {}, Flat({{"a,b c"}})},
      // Lines end at a line feed, with a return right before it.
      {"a\r\r\nb\rc\r\n\r\nd", {}, Flat({{"a\r"}, {"b\rc"}, {""}, {"d"}})},
  };
  // clang-format on
  for (const auto& [out, props, result] : cases) {
    EXPECT_EQ(Parse(out, std::nullopt, props), result) << out;
  }
}

TEST_F(ParseTest, PicksTheWarningSource) {
  const Props both = {{"useStdErrForWarning", "TRUE"},
                      {"warningStartsWith", "WARN:"}};
  const Json lines = Flat({{"a"}, {"WARN:x"}, {"WARN:"}});
  // clang-format off
  const std::tuple<Props, Text, Json, bool> cases[] = {
      // The error text wins, even when empty, and brings the notice.
      {both, "E", Flat({{"a"}}, "E"), true},
      {both, "", Flat({{"a"}}, ""), true},
      {both, std::nullopt, Flat({{"a"}}, "x\n\n"), true},
      {{both[1]}, "E", Flat({{"a"}}, "x\n\n"), false},
      {{both[0]}, "E", Flat({{"a"}, {"WARN:x"}, {"WARN:"}}, "E"), false},
      {{{"useStdErrForWarning", "true"}, both[1]}, "E", Flat({{"a"}}, "x\n\n"),
       false},
      // An empty prefix marks no line but counts for the notice.
      {{both[0], {"warningStartsWith", ""}}, std::nullopt, lines, true},
  };
  // clang-format on
  for (const auto& [props, err, result, notice] : cases) {
    SCOPED_TRACE(testing::PrintToString(props));
    capture_.Clear();
    EXPECT_EQ(Parse("a\nWARN:x\nWARN:\n", err, props, kLineMode), result);
    EXPECT_EQ(Logged(LogLevel::kWarn, kLogName).size(), notice ? 1U : 0U);
  }
  for (uint32_t tokenize : {kLineMode, kTokenMode}) {
    capture_.Clear();
    Parse("", std::nullopt, both, tokenize);
    EXPECT_EQ(Logged(LogLevel::kWarn, kLogName),
              Strings{"Mutually exclusive properties \"useStdErrForWarning\" "
                      "and \"warningStarter\" specified for OSLine" +
                      std::to_string(tokenize) + " fetchlet"});
  }
}

TEST_F(ParseTest, DebugLinesNumberRowsWithinTheirTable) {
  Parse("Xa,b\ndrop\nWARN:w\nX--\nXc\nXd\n", std::nullopt,
        {{"delimiter", ","},
         {"startsWith", "X"},
         {"warningStartsWith", "WARN:"},
         {"tableSeparator", "X--"}});
  EXPECT_EQ(Logged(LogLevel::kDebug, kLogName),
            (Strings{"token (1,0)= a\n", "token (1,1)= b\n", "token (1,0)= c\n",
                     "token (2,0)= d\n"}));
  capture_.Clear();
  // Line mode shows thirty bytes of the value.
  Parse("short\n--\n0123456789abcdefghijklmnopqrstuvwxyz\n", std::nullopt,
        {{"tableSeparator", "--"}}, kLineMode);
  EXPECT_EQ(Logged(LogLevel::kDebug, kLogName),
            (Strings{"line(1) =                          short...\n",
                     "line(1) = 0123456789abcdefghijklmnopqrst...\n"}));
}

TEST_F(ParseTest, FaultsCutARowShortOrGiveNoTable) {
  // The field block that cannot be allocated ends its row.
  const std::tuple<Props, uint64_t, Table> cases[] = {
      {{{"delimiter", ","}}, 1, {{}, {"c", "d", "e"}}},
      {{{"delimiter", ","}}, 4, {{"a", "b"}, {"c"}}},
      {{}, 1, {{}, {"c,d,e"}}},
  };
  for (const auto& [props, failing, rows] : cases) {
    qvehost::ResetFaults();
    qvehost::FailAllocation("qvefoslt", failing, false);
    EXPECT_EQ(Parse("a,b\nc,d,e\n", std::nullopt, props), Flat(rows))
        << failing;
  }
  EXPECT_TRUE(Logged(LogLevel::kError).empty());
  qvehost::ResetFaults();
  qvehost::FailAllocation("qvefosl", 1, false);
  EXPECT_EQ(Parse("a\nWARN:w\n", "E", {{"warningStartsWith", "WARN:"}}),
            Flat({}));
  qvehost::RefuseMetricResult(true);
  EXPECT_EQ(Parse("a\nb\n", std::nullopt, {{"warningStartsWith", "W"}}),
            nullptr);
}

}  // namespace
}  // namespace qvetest
