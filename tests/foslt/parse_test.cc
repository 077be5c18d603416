// The table parser on output texts in memory: line classification, tokens,
// nested tables, the warning and its sources, the debug log, field faults.
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "foslt/metric_harness.h"
#include "foslt/qvefoslt_parse.h"
#include "qve/embedded.h"

namespace {

using qvehost::LogLevel;
using qvetest::Flat;
using qvetest::Json;
using qvetest::Nested;
using qvetest::Props;
using qvetest::Table;

constexpr uint32_t kLineMode = 0;
constexpr uint32_t kTokenMode = 1;
constexpr const char* kLogName = "fetchlets.oslinetok";

class ParseTest : public testing::Test {
 protected:
  ~ParseTest() override { qvehost::DeleteContext(context_); }

  // The result as JSON (null when the parser gave none).
  Json Parse(const std::optional<std::string>& out,
             const std::optional<std::string>& err, const Props& props,
             uint32_t tokenize) {
    qvlnv_NVList* list = qvehost::NewPropertyList();
    for (const auto& [name, value] : props) {
      qvehost::SetProperty(list, name, value);
    }
    std::string text = out.value_or("");
    qvedrmr_MetricResult* result = qvefoslt_getFromString(
        out.has_value() ? text.data() : nullptr,
        err.has_value() ? err->c_str() : nullptr, list,
        qveulm_getLogCtx(context_->logSource, kLogName), tokenize);
    qvehost::DeletePropertyList(list);
    Json json = qvehost::ResultToJson(result);
    if (result != nullptr) qvedrmr_MetricResult_delete(result);
    return json;
  }

  std::vector<std::string> Logged(LogLevel level) const {
    return capture_.Texts(level, kLogName);
  }

  qvefet_Context* context_ = qvehost::NewContext();
  qvehost::LogCapture capture_;
};

// ---- The worked example in its shapes ----

constexpr const char* kExample =
    "cpu|12\nWARN:disk low\nmem||80\n--\nswap|\nWARN:again\n";
constexpr const char* kExampleWarning = "disk low\nagain\n";

struct ShapeCase {
  const char* name;
  const char* out;
  Props props;
  Json result;
};

class ShapeTest : public ParseTest,
                  public testing::WithParamInterface<ShapeCase> {};

TEST_P(ShapeTest, GivesTheTable) {
  const ShapeCase& c = GetParam();
  EXPECT_EQ(Parse(c.out, std::nullopt, c.props, kTokenMode), c.result);
}

INSTANTIATE_TEST_SUITE_P(
    WorkedExample, ShapeTest,
    testing::Values(
        ShapeCase{"Nested",
                  kExample,
                  {{"delimiter", "|"},
                   {"tableSeparator", "--"},
                   {"warningStartsWith", "WARN:"}},
                  Nested({{{"cpu", "12"}, {"mem", "", "80"}}, {{"swap", ""}}},
                         kExampleWarning)},
        ShapeCase{"Flat",
                  kExample,
                  {{"delimiter", "|"}, {"warningStartsWith", "WARN:"}},
                  Flat({{"cpu", "12"}, {"mem", "", "80"}, {"--"}, {"swap", ""}},
                       kExampleWarning)},
        // Only prefixed lines are data, and the separator must carry the
        // prefix; a line with both prefixes is data.
        ShapeCase{"StartsWith",
                  "Xcpu|12\nWARN:disk low\nmem||80\nX--\n--\nXswap|\n"
                  "XWARN:both\nWARN:again\n",
                  {{"delimiter", "|"},
                   {"tableSeparator", "X--"},
                   {"warningStartsWith", "WARN:"},
                   {"startsWith", "X"}},
                  Nested({{{"cpu", "12"}}, {{"swap", ""}, {"WARN:both"}}},
                         kExampleWarning)},
        ShapeCase{"StartsWithUnprefixedSeparatorIsNeverSeen",
                  "Xa\nX--\nXb\n",
                  {{"tableSeparator", "--"}, {"startsWith", "X"}},
                  Nested({{{"a"}, {"--"}, {"b"}}})},
        ShapeCase{"WarningLineEqualToSeparatorIsAWarning",
                  "a\nWARN:\nb\n",
                  {{"tableSeparator", "WARN:"}, {"warningStartsWith", "WARN:"}},
                  Nested({{{"a"}, {"b"}}}, "\n")},
        ShapeCase{"SeparatorFirst",
                  "--\na\n",
                  {{"tableSeparator", "--"}},
                  Nested({{}, {{"a"}}})},
        ShapeCase{"SeparatorTwice",
                  "a\n--\n--\nb\n",
                  {{"tableSeparator", "--"}},
                  Nested({{{"a"}}, {}, {{"b"}}})},
        ShapeCase{"SeparatorLast",
                  "a\n--\n",
                  {{"tableSeparator", "--"}},
                  Nested({{{"a"}}})},
        ShapeCase{"EmptyNested", "", {{"tableSeparator", "--"}}, Nested({})},
        ShapeCase{"EmptyFlat", "", {}, Flat({})},
        ShapeCase{"EmptySeparatorMeansFlat",
                  "a\n\nb\n",
                  {{"tableSeparator", ""}},
                  Flat({{"a"}, {""}, {"b"}})},
        ShapeCase{"EmptyStartsWithKeepsEveryLine",
                  "a\nb\n",
                  {{"startsWith", ""}},
                  Flat({{"a"}, {"b"}})}),
    [](const testing::TestParamInfo<ShapeCase>& param) {
      return std::string(param.param.name);
    });

// ---- Fields ----

struct FieldCase {
  const char* name;
  uint32_t tokenize;
  std::optional<std::string> delimiter;
  std::string line;
  Table rows;
};

class FieldTest : public ParseTest,
                  public testing::WithParamInterface<FieldCase> {};

TEST_P(FieldTest, SplitsAtEveryDelimiterByte) {
  const FieldCase& c = GetParam();
  Props props;
  if (c.delimiter.has_value()) props.emplace_back("delimiter", *c.delimiter);
  EXPECT_EQ(Parse(c.line + "\n", std::nullopt, props, c.tokenize),
            Flat(c.rows));
}

INSTANTIATE_TEST_SUITE_P(
    Tokens, FieldTest,
    testing::Values(
        FieldCase{"Two", kTokenMode, ",", "a,b", {{"a", "b"}}},
        FieldCase{"NotMerged", kTokenMode, ",", "a,,b", {{"a", "", "b"}}},
        FieldCase{"Leading", kTokenMode, ",", ",a", {{"", "a"}}},
        FieldCase{"Trailing", kTokenMode, ",", "a,", {{"a", ""}}},
        FieldCase{"OnlyDelimiter", kTokenMode, ",", ",", {{"", ""}}},
        FieldCase{"NoDelimiterInLine", kTokenMode, ",", "abc", {{"abc"}}},
        FieldCase{"EmptyLine", kTokenMode, ",", "", {{""}}},
        FieldCase{"SpaceAndTab",
                  kTokenMode,
                  " \t",
                  "a b\tc  d",
                  {{"a", "b", "c", "", "d"}}},
        FieldCase{"MultiByteDelimiterIsItsBytes",
                  kTokenMode,
                  "\xC2\xA7",
                  "a\xC2\xA7"
                  "b\xC2z",
                  {{"a", "", "b", "z"}}},
        FieldCase{"NoDelimiterProperty",
                  kTokenMode,
                  std::nullopt,
                  "a,b c",
                  {{"a,b c"}}},
        FieldCase{"EmptyDelimiterProperty", kTokenMode, "", "a,b", {{"a,b"}}},
        FieldCase{
            "EmptyLineWithoutDelimiter", kTokenMode, std::nullopt, "", {{""}}},
        FieldCase{"LineModeIgnoresDelimiter", kLineMode, ",", "a,b", {{"a,b"}}},
        FieldCase{"LineModeEmptyLine", kLineMode, std::nullopt, "", {{""}}}),
    [](const testing::TestParamInfo<FieldCase>& param) {
      return std::string(param.param.name);
    });

TEST_F(ParseTest, LineModeAsksNothingOfTheAllocatorForValues) {
  const Json result = Parse("a\nb\n", std::nullopt, {}, kLineMode);
  EXPECT_EQ(result, Flat({{"a"}, {"b"}}));
  EXPECT_EQ(qvehost::AllocationCount("qvefoslt"), 0U);
}

// ---- Warning sources ----

struct WarningCase {
  const char* name;
  Props props;
  std::optional<std::string> err;
  Json result;
  bool notice;
};

class WarningTest : public ParseTest,
                    public testing::WithParamInterface<WarningCase> {};

TEST_P(WarningTest, PicksTheWarningSource) {
  const WarningCase& c = GetParam();
  EXPECT_EQ(Parse("a\nWARN:x\nWARN:\n", c.err, c.props, kLineMode), c.result);
  EXPECT_EQ(Logged(LogLevel::kWarn).size(), c.notice ? 1U : 0U);
}

const Props kBothSources = {{"useStdErrForWarning", "TRUE"},
                            {"warningStartsWith", "WARN:"}};

INSTANTIATE_TEST_SUITE_P(
    Sources, WarningTest,
    testing::Values(WarningCase{"ErrorTextWins", kBothSources, "E",
                                Flat({{"a"}}, "E"), true},
                    WarningCase{"NoErrorTextGivesCollectedLines", kBothSources,
                                std::nullopt, Flat({{"a"}}, "x\n\n"), true},
                    WarningCase{"EmptyErrorTextStillWins", kBothSources, "",
                                Flat({{"a"}}, ""), true},
                    WarningCase{"CollectedLinesOnly",
                                {{"warningStartsWith", "WARN:"}},
                                "E",
                                Flat({{"a"}}, "x\n\n"),
                                false},
                    WarningCase{"ErrorTextOnly",
                                {{"useStdErrForWarning", "TRUE"}},
                                "E",
                                Flat({{"a"}, {"WARN:x"}, {"WARN:"}}, "E"),
                                false},
                    WarningCase{"FlagIsCaseSensitive",
                                {{"useStdErrForWarning", "true"},
                                 {"warningStartsWith", "WARN:"}},
                                "E",
                                Flat({{"a"}}, "x\n\n"),
                                false},
                    WarningCase{"EmptyPrefixMarksNoLineButCountsForTheNotice",
                                {{"useStdErrForWarning", "TRUE"},
                                 {"warningStartsWith", ""}},
                                std::nullopt,
                                Flat({{"a"}, {"WARN:x"}, {"WARN:"}}),
                                true},
                    WarningCase{"NeitherSource",
                                {},
                                "E",
                                Flat({{"a"}, {"WARN:x"}, {"WARN:"}}),
                                false}),
    [](const testing::TestParamInfo<WarningCase>& param) {
      return std::string(param.param.name);
    });

TEST_F(ParseTest, NoticeNamesTheMode) {
  for (uint32_t tokenize : {kLineMode, kTokenMode}) {
    capture_.Clear();
    Parse("", std::nullopt, kBothSources, tokenize);
    EXPECT_EQ(Logged(LogLevel::kWarn),
              std::vector<std::string>{
                  "Mutually exclusive properties \"useStdErrForWarning\" and "
                  "\"warningStarter\" specified for OSLine" +
                  std::to_string(tokenize) + " fetchlet"});
  }
}

// ---- Logs ----

TEST_F(ParseTest, TokenRowNumbersRestartAfterEverySeparator) {
  Parse("Xa,b\ndrop\nWARN:w\nX--\nXc\nXd\n", std::nullopt,
        {{"delimiter", ","},
         {"startsWith", "X"},
         {"warningStartsWith", "WARN:"},
         {"tableSeparator", "X--"}},
        kTokenMode);
  EXPECT_EQ(Logged(LogLevel::kTrace),
            std::vector<std::string>{
                "qvefoslt : Entering function - qvefoslt_getFromString\n"});
  EXPECT_EQ(Logged(LogLevel::kDebug),
            (std::vector<std::string>{"token (1,0)= a\n", "token (1,1)= b\n",
                                      "token (1,0)= c\n", "token (2,0)= d\n"}));
}

TEST_F(ParseTest, LineLogShowsThirtyBytesOfTheValue) {
  Parse("short\n--\n0123456789abcdefghijklmnopqrstuvwxyz\n", std::nullopt,
        {{"tableSeparator", "--"}}, kLineMode);
  EXPECT_EQ(Logged(LogLevel::kDebug),
            (std::vector<std::string>{
                "line(1) =                          short...\n",
                "line(1) = 0123456789abcdefghijklmnopqrst...\n"}));
}

// ---- Faults ----

struct FieldFaultCase {
  const char* name;
  std::optional<std::string> delimiter;
  uint64_t failing;  // the field block that cannot be allocated
  Table rows;
};

class FieldFaultTest : public ParseTest,
                       public testing::WithParamInterface<FieldFaultCase> {};

TEST_P(FieldFaultTest, CutsTheRowShortAtTheFailedField) {
  const FieldFaultCase& c = GetParam();
  Props props;
  if (c.delimiter.has_value()) props.emplace_back("delimiter", *c.delimiter);
  qvehost::FailAllocation("qvefoslt", c.failing, false);
  EXPECT_EQ(Parse("a,b\nc,d,e\n", std::nullopt, props, kTokenMode),
            Flat(c.rows));
  EXPECT_TRUE(Logged(LogLevel::kError).empty());
}

INSTANTIATE_TEST_SUITE_P(
    EachField, FieldFaultTest,
    testing::Values(
        FieldFaultCase{"First", ",", 1, {{}, {"c", "d", "e"}}},
        FieldFaultCase{"Second", ",", 2, {{"a"}, {"c", "d", "e"}}},
        FieldFaultCase{"Third", ",", 3, {{"a", "b"}, {}}},
        FieldFaultCase{"Fourth", ",", 4, {{"a", "b"}, {"c"}}},
        FieldFaultCase{"Fifth", ",", 5, {{"a", "b"}, {"c", "d"}}},
        FieldFaultCase{"None", ",", 6, {{"a", "b"}, {"c", "d", "e"}}},
        FieldFaultCase{"WholeLineCopy", std::nullopt, 1, {{}, {"c,d,e"}}}),
    [](const testing::TestParamInfo<FieldFaultCase>& param) {
      return std::string(param.param.name);
    });

TEST_F(ParseTest, RefusedLineArrayGivesAnEmptyTable) {
  qvehost::FailAllocation("qvefosl", 1, false);
  EXPECT_EQ(
      Parse("a\nWARN:w\n", "E", {{"warningStartsWith", "WARN:"}}, kLineMode),
      Flat({}));
}

TEST_F(ParseTest, RefusedResultGivesNullAndReleasesTheLines) {
  qvehost::RefuseMetricResult(true);
  EXPECT_EQ(
      Parse("a\nb\n", std::nullopt, {{"warningStartsWith", "W"}}, kTokenMode),
      nullptr);
}

}  // namespace
