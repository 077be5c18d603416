// The fetchlets through their exported entry points on real commands: the
// OS fetchlet's row and the local metric driver under it, the line and
// token tables, every family's handle, and the abort callback.
#include <gtest/gtest.h>

#include "fos/qvefos_abort.h"
#include "fos/qvefos_os.h"
#include "fos/run_support.h"
#include "fosl/qvefosl_os_line.h"
#include "foslt/qvefoslt_os_line_token.h"
#include "fosud/qvefosud_metric.h"

namespace qvetest {
namespace {

using qvehost::LogLevel;

class FetchletTest : public PluginTest {
 protected:
  // Unconvertible text is then told by invalid UTF-8.
  void SetUp() override { qvehost::SetOsCharset("UTF-8"); }
  void TearDown() override { qvehost::SetOsCharset(""); }
};

TEST_F(FetchletTest, OsGivesOneRowOrTheFailure) {
  const char* both = "sh -c 'echo a; echo b >&2'";
  const Json twoNulls = {
      {"rows", Json::array({Json::array({nullptr, nullptr})})},
      {"warning", nullptr}};
  // clang-format off
  const std::pair<Props, Json> cases[] = {
      // The layouts: separateErrorStream and useStdErrForWarning, exact words.
      {{{"command", both}}, Succeeded(Flat({{"a\nb\n"}}))},
      {{{"command", both}, {"useStdErrForWarning", "TRUE"}},
       Succeeded(Flat({{"a\n"}}, "b\n"))},
      {{{"command", both}, {"separateErrorStream", "TRUE"}},
       Succeeded(Flat({{"a\n", "b\n"}}))},
      {{{"command", both}, {"separateErrorStream", "TRUE"},
        {"useStdErrForWarning", "TRUE"}}, Succeeded(Flat({{"a\n"}}, "b\n"))},
      {{{"command", both}, {"separateErrorStream", "true"},
        {"useStdErrForWarning", "true"}}, Succeeded(Flat({{"a\nb\n"}}))},
      {{{"command", "true"}, {"useStdErrForWarning", "TRUE"}},
       Succeeded(Flat({{""}}))},
      {{{"command", "true"}, {"separateErrorStream", "TRUE"}},
       Succeeded(twoNulls)},
      // The request as the driver assembles it.
      {{{"command", "echo"}, {"script", "x"}, {"args", "y"}},
       Succeeded(Flat({{"x y\n"}}))},
      {{{"command", "sh -c 'cat; echo $V'"}, {"ENVV", "v"}, {"STDINa", "1"}},
       Succeeded(Flat({{"a=1\nv\n"}}))},
      {{{"command", "sh -c 'echo oops >&2; exit 1'"}},
       Failed(QVE_EXC_RUN_FAILED, "oops\n")},
      {{{"command", "sleep 10"}, {"KT_METRIC_TIMEOUT", "1"}},
       Failed(QVE_EXC_TIMEOUT, "Metric execution timed out in 1 seconds")},
      {{{"args", "x"}},
       Failed(QVE_EXC_BAD_REQUEST, "Command for fetchlet is NULL")},
      {{{"command", "echo 'a"}},
       Failed(QVE_EXC_BAD_REQUEST, "Argument 'echo 'a' has mismatch quotes")},
      // Failures whose reason is only logged, or nowhere.
      {{{"command", "echo \xff"}}, kFailedQuietly},
      {{{"command", "cat"}, {"STDINx", "\xff"}}, kFailedQuietly},
      {{{"command", "true"}, {"isSecureCommand", "true"}, {"username", "u"}},
       kFailedQuietly},
  };
  // clang-format on
  for (const auto& [props, outcome] : cases) {
    EXPECT_EQ(Evaluate(qvefos_getMetric, context_, props), outcome)
        << testing::PrintToString(props);
  }
  qvehost::RefuseMetricResult(true);
  EXPECT_EQ(
      Evaluate(qvefos_getMetric, context_, {{"command", "true"}}),
      Failed(QVE_EXC_NO_RESULT, "cannot create OS fetchlet result object"));
}

TEST_F(FetchletTest, DriverTakesNullPropertiesAndANullSlot) {
  const RunOutcome none = LocalMetric(context_, nullptr);
  EXPECT_EQ(none.kind, QVE_EXC_BAD_REQUEST);
  EXPECT_EQ(none.message, "Request for fetchlet is NULL");
  for (const char* command : {"false", "echo 'a"}) {
    EXPECT_EQ(
        LocalMetric(context_, NewList({{"command", command}}).get(), false)
            .status,
        -1)
        << command;
  }
}

TEST_F(FetchletTest, LinesAndTokensShareOneSequence) {
  const auto line = qvefosl_getMetric;
  const auto token = qvefoslt_getMetric;
  const Props split = {{"command", "printf 'a,b\\nz\\n\\n'"},
                       {"delimiter", ","}};
  const Props nested = {{"command", "printf 'a,b\\n--\\nc\\n'"},
                        {"tableSeparator", "--"}};
  const Props errText = {{"command", "sh -c 'echo x; printf oops >&2'"}};
  // clang-format off
  const std::tuple<qvefet_GetMetricFn, Props, Json> cases[] = {
      {line, split, Succeeded(Flat({{"a,b"}, {"z"}, {""}}))},
      {token, split, Succeeded(Flat({{"a", "b"}, {"z"}, {""}}))},
      {line, nested, Succeeded(Nested({{{"a,b"}}, {{"c"}}}))},
      {token, nested, Succeeded(Nested({{{"a,b"}}, {{"c"}}}))},
      {token, {{"command", "true"}}, Succeeded(Flat({}))},
      // The error text is the warning only when asked for.
      {line, errText, Succeeded(Flat({{"x"}}))},
      {token, {errText[0], {"useStdErrForWarning", "TRUE"}},
       Succeeded(Flat({{"x"}}, "oops"))},
      {line, {{"command", "sh -c 'echo oops >&2; exit 1'"}},
       Failed(QVE_EXC_RUN_FAILED, "oops\n")},
  };
  // clang-format on
  for (const auto& [getMetric, props, outcome] : cases) {
    EXPECT_EQ(Evaluate(getMetric, context_, props), outcome)
        << (getMetric == line ? "line " : "token ")
        << testing::PrintToString(props);
  }
  qvehost::RefuseMetricResult(true);
  for (const auto& [getMetric, kind] :
       {std::pair{line, "OSLine"}, std::pair{token, "OSLineToken"}}) {
    EXPECT_EQ(Evaluate(getMetric, context_, errText),
              Failed(QVE_EXC_NO_RESULT, std::string("cannot create ") + kind +
                                            " fetchlet result object"));
    EXPECT_EQ(Evaluate(getMetric, context_, errText, false), kFailedQuietly);
  }
}

TEST(FamilyTest, EachFamilyWorksUnderItsOwnLog) {
  const struct {
    const char *prefix, *log, *kind;
    int32_t (*get)(qvefet_Context*, qvefet_Fetchlet**);
    void (*free)(qvefet_Fetchlet*);
    qvefet_GetMetricFn getMetric;
  } families[] = {
      {"qvefos", "fetchlets.os", "OS", qvefos_getFetchlet, qvefos_freeFetchlet,
       qvefos_getMetric},
      {"qvefosl", "fetchlets.osline", "OSLine", qvefosl_getFetchlet,
       qvefosl_freeFetchlet, qvefosl_getMetric},
      {"qvefoslt", "fetchlets.oslinetok", "OSLineToken", qvefoslt_getFetchlet,
       qvefoslt_freeFetchlet, qvefoslt_getMetric},
      {"qvefosud", "fetchlets.UDM", "UDM", qvefosud_getFetchlet,
       qvefosud_freeFetchlet, qvefosud_getMetric},
  };
  qvefet_Context* context = qvehost::NewContext();
  for (const auto& f : families) {
    SCOPED_TRACE(f.prefix);
    qvehost::LogCapture capture;
    qvefet_Fetchlet* fetchlet = nullptr;
    EXPECT_EQ(f.get(context, &fetchlet), 0);
    EXPECT_EQ(qvefet_getFetchletContext(fetchlet), context);
    Evaluate(f.getMetric, context, {});
    f.free(fetchlet);
    qvehost::RefuseNewFetchlet(true);
    EXPECT_EQ(f.get(context, &fetchlet), -1);
    EXPECT_EQ(fetchlet, nullptr);
    qvehost::RefuseNewFetchlet(false);
    const std::string trace =
        std::string(f.prefix) + " : Entering function - " + f.prefix + "_";
    // The handle's traces around those of getMetric and the calls under it.
    const Strings traces = capture.Texts(LogLevel::kTrace, f.log);
    ASSERT_GE(traces.size(), 4u);
    EXPECT_EQ(Strings(traces.begin(), traces.begin() + 2),
              (Strings{trace + "getFetchlet\n", trace + "getMetric\n"}));
    EXPECT_EQ(Strings(traces.end() - 2, traces.end()),
              (Strings{trace + "freeFetchlet\n", trace + "getFetchlet\n"}));
    EXPECT_EQ(capture.Texts(LogLevel::kError, f.log),
              Strings{std::string("Could not allocate memory for ") + f.kind +
                      " fetchlet\n"});
  }
  qvehost::DeleteContext(context);
}

TEST(AbortCallbackTest, MarksTheCellOnlyForARequestIdentifier) {
  qvefet_Context* context = qvehost::NewContext();
  for (const char* id : {"req-7", static_cast<const char*>(nullptr)}) {
    qvehost::LogCapture capture;
    int32_t cell = 0;
    EXPECT_EQ(qvefos_abortFetchlet(context, id, &cell), 1);
    EXPECT_EQ(qvefos_abortFetchlet(context, id, nullptr), 1);
    EXPECT_EQ(cell, id != nullptr ? 1 : 0);
    // Always the OS family's log; the one trace without a line feed.
    EXPECT_EQ(capture.Texts(LogLevel::kTrace, "fetchlets.os"),
              Strings(2, "qvefos : Entering function - qvefos_abortFetchlet"));
    EXPECT_EQ(capture.Texts(LogLevel::kDebug, "fetchlets.os"),
              Strings(id != nullptr ? 2 : 0, "Aborting request req-7"));
  }
  qvehost::DeleteContext(context);
}

}  // namespace
}  // namespace qvetest
