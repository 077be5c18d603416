// The OSLine and OSLineToken fetchlets through their exported entry points,
// with real commands: the same sequence in line and in token mode.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "fosl/qvefosl_os_line.h"
#include "foslt/metric_harness.h"
#include "foslt/qvefoslt_os_line_token.h"
#include "qve/embedded.h"

namespace {

using qvehost::LogLevel;
using qvetest::Flat;
using qvetest::Json;
using qvetest::Nested;
using qvetest::Props;
using qvetest::Succeeded;

struct Family {
  const char* prefix;  // of the module and its entry points
  const char* logName;
  const char* kind;  // as its messages name it
  int32_t (*getFetchlet)(qvefet_Context*, qvefet_Fetchlet**);
  void (*freeFetchlet)(qvefet_Fetchlet*);
  qvefet_GetMetricFn getMetric;
  int tokenize;
};

const Family kOsLine{"qvefosl",
                     "fetchlets.osline",
                     "OSLine",
                     qvefosl_getFetchlet,
                     qvefosl_freeFetchlet,
                     qvefosl_getMetric,
                     0};
const Family kOsLineToken{"qvefoslt",
                          "fetchlets.oslinetok",
                          "OSLineToken",
                          qvefoslt_getFetchlet,
                          qvefoslt_freeFetchlet,
                          qvefoslt_getMetric,
                          1};

std::string Trace(const Family& family, const char* function) {
  return std::string(family.prefix) + " : Entering function - " +
         family.prefix + "_" + function + "\n";
}

class TableFetchletTest : public testing::TestWithParam<const Family*> {
 protected:
  TableFetchletTest() {
    EXPECT_EQ(family().getFetchlet(context_, &fetchlet_), 0);
  }
  ~TableFetchletTest() override {
    if (fetchlet_ != nullptr) family().freeFetchlet(fetchlet_);
    qvehost::DeleteContext(context_);
  }

  const Family& family() const { return *GetParam(); }
  // Line mode gives one column where token mode splits.
  bool Splits() const { return family().tokenize != 0; }
  Json Evaluate(const Props& props, bool exceptionSlot = true) {
    return qvetest::Evaluate(family().getMetric, context_, props,
                             exceptionSlot);
  }

  qvehost::LogCapture capture_;
  qvefet_Context* context_ = qvehost::NewContext();
  qvefet_Fetchlet* fetchlet_ = nullptr;
};

TEST_P(TableFetchletTest, ShapesTheOutputInItsMode) {
  EXPECT_EQ(
      Evaluate({{"command", "printf 'a,b\\nz\\n\\n'"}, {"delimiter", ","}}),
      Succeeded(Splits() ? Flat({{"a", "b"}, {"z"}, {""}})
                         : Flat({{"a,b"}, {"z"}, {""}})));
  EXPECT_EQ(Evaluate({{"command", "printf 'a,b\\n--\\nc\\n'"},
                      {"tableSeparator", "--"}}),
            Succeeded(Nested({{{"a,b"}}, {{"c"}}})));
}

TEST_P(TableFetchletTest, ErrorTextIsTheWarningOrReleased) {
  const Props command = {{"command", "sh -c 'echo x; printf oops >&2'"}};
  Props asWarning = command;
  asWarning.emplace_back("separateErrorStream", "TRUE");
  asWarning.emplace_back("useStdErrForWarning", "TRUE");
  EXPECT_EQ(Evaluate(asWarning), Succeeded(Flat({{"x"}}, "oops")));
  EXPECT_EQ(Evaluate(command), Succeeded(Flat({{"x"}})));
}

TEST_P(TableFetchletTest, NoOutputGivesAnEmptyTable) {
  EXPECT_EQ(Evaluate({{"command", "true"}}), Succeeded(Flat({})));
  EXPECT_EQ(Evaluate({{"command", "true"}, {"tableSeparator", "--"}}),
            Succeeded(Nested({})));
}

TEST_P(TableFetchletTest, FailedCommandPassesTheDriversException) {
  EXPECT_EQ(Evaluate({{"command", "sh -c 'echo oops >&2; exit 1'"}}),
            qvetest::Failed(QVE_EXC_RUN_FAILED, "oops\n"));
}

TEST_P(TableFetchletTest, RefusedResultIsKindTenWithOrWithoutASlot) {
  const Props props = {{"command", "sh -c 'echo a; echo b >&2'"},
                       {"separateErrorStream", "TRUE"}};
  qvehost::RefuseMetricResult(true);
  EXPECT_EQ(Evaluate(props),
            qvetest::Failed(QVE_EXC_NO_RESULT, std::string("cannot create ") +
                                                   family().kind +
                                                   " fetchlet result object"));
  EXPECT_EQ(Evaluate(props, false),
            (Json{{"status", -1}, {"result", nullptr}}));
}

TEST_P(TableFetchletTest, LogsOnItsOwnLogWithItsModeInTheNotice) {
  Evaluate({{"command", "printf 'W:w\\n'"},
            {"useStdErrForWarning", "TRUE"},
            {"warningStartsWith", "W:"}});
  const auto trace = capture_.Texts(LogLevel::kTrace, family().logName);
  ASSERT_GE(trace.size(), 3U);
  EXPECT_EQ(trace[0], Trace(family(), "getFetchlet"));
  EXPECT_EQ(trace[1], Trace(family(), "getMetric"));
  EXPECT_EQ(trace.back(),
            "qvefoslt : Entering function - qvefoslt_getFromString\n");
  EXPECT_EQ(capture_.Texts(LogLevel::kWarn),
            std::vector<std::string>{
                "Mutually exclusive properties \"useStdErrForWarning\" and "
                "\"warningStarter\" specified for OSLine" +
                std::to_string(family().tokenize) + " fetchlet"});
}

TEST_P(TableFetchletTest, ReportsARefusedHandleAndFreesItsOwn) {
  qvefet_Fetchlet* refused = fetchlet_;
  qvehost::RefuseNewFetchlet(true);
  EXPECT_EQ(family().getFetchlet(context_, &refused), -1);
  EXPECT_EQ(refused, nullptr);
  family().freeFetchlet(std::exchange(fetchlet_, nullptr));
  EXPECT_EQ(capture_.Texts(LogLevel::kTrace, family().logName),
            (std::vector<std::string>{Trace(family(), "getFetchlet"),
                                      Trace(family(), "getFetchlet"),
                                      Trace(family(), "freeFetchlet")}));
  EXPECT_EQ(
      capture_.Texts(LogLevel::kError, family().logName),
      std::vector<std::string>{std::string("Could not allocate memory for ") +
                               family().kind + " fetchlet\n"});
}

INSTANTIATE_TEST_SUITE_P(Families, TableFetchletTest,
                         testing::Values(&kOsLine, &kOsLineToken),
                         [](const testing::TestParamInfo<const Family*>& p) {
                           return std::string(p.param->kind);
                         });

}  // namespace
