// The fetchlets through their exported entry points on real commands: the
// OS fetchlet's row and the local metric driver under it, the line and
// token tables, every family's handle, and the abort callback.
#include <gtest/gtest.h>

#include "fos/qvefos_abort.h"
#include "fos/qvefos_os.h"
#include "common/run_support.h"
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
      {{{"command", "sh -c 'echo oops >&2; exit 1'"}},
       Failed(QVE_EXC_RUN_FAILED, "oops\n")},
      {{{"args", "x"}},
       Failed(QVE_EXC_BAD_REQUEST, "Command for fetchlet is NULL")},
      {{{"command", "echo 'a"}},
       Failed(QVE_EXC_BAD_REQUEST, "Argument 'echo 'a' has mismatch quotes")},
      // Failures whose reason is only logged, or nowhere.
      {{{"command", "echo \xff"}}, kFailedQuietly},
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
  EXPECT_EQ(LocalMetric(context_, nullptr),
            Failed(QVE_EXC_BAD_REQUEST, "Request for fetchlet is NULL"));
  for (const char* command : {"false", "echo 'a"}) {
    EXPECT_EQ(
        LocalMetric(context_, NewList({{"command", command}}).get(), false),
        kFailedQuietly)
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
      {token, nested, Succeeded(Nested({{{"a,b"}}, {{"c"}}}))},
      // The error text is the warning only when asked for.
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
    const char *log, *kind;
    qvefet_GetFetchletFn get;
    void (*free)(qvefet_Fetchlet*);
  } families[] = {
      {"fetchlets.os", "OS", qvefos_getFetchlet, qvefos_freeFetchlet},
      {"fetchlets.osline", "OSLine", qvefosl_getFetchlet, qvefosl_freeFetchlet},
      {"fetchlets.oslinetok", "OSLineToken", qvefoslt_getFetchlet,
       qvefoslt_freeFetchlet},
      {"fetchlets.UDM", "UDM", qvefosud_getFetchlet, qvefosud_freeFetchlet},
  };
  qvefet_Context* context = qvehost::NewContext();
  for (const auto& f : families) {
    SCOPED_TRACE(f.kind);
    qvehost::LogCapture capture;
    qvefet_Fetchlet* fetchlet = nullptr;
    EXPECT_EQ(f.get(context, &fetchlet), 0);
    EXPECT_EQ(qvefet_getFetchletContext(fetchlet), context);
    f.free(fetchlet);
    qvehost::RefuseNewFetchlet(true);
    EXPECT_EQ(f.get(context, &fetchlet), -1);
    EXPECT_EQ(fetchlet, nullptr);
    qvehost::RefuseNewFetchlet(false);
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
