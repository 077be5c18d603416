// The local metric driver through its exported entry point.
#include <unistd.h>

#include <algorithm>

#include <gtest/gtest.h>

#include "fos/qvefos_driver.h"
#include "qve/embedded.h"

namespace {

using qvehost::LogLevel;
using Text = std::optional<std::string>;
using Properties = std::vector<std::pair<std::string, std::string>>;

struct DriverOutcome {
  int32_t status = 0;
  Text out;
  Text err;
  int32_t kind = 0;  // 0: the slot stayed empty
  std::string message;
};

class DriverTest : public testing::Test {
 protected:
  void SetUp() override { qvehost::SetOsCharset("UTF-8"); }
  ~DriverTest() override { qvehost::DeleteContext(context_); }

  DriverOutcome Evaluate(const Properties& properties, bool withSlot = true,
                         int32_t separate = 0) {
    qvlnv_NVList* list = qvehost::NewPropertyList();
    for (const auto& [name, value] : properties) {
      qvehost::SetProperty(list, name, value);
    }
    DriverOutcome outcome = Evaluate(list, withSlot, separate);
    qvehost::DeletePropertyList(list);
    return outcome;
  }

  DriverOutcome Evaluate(qvlnv_NVList* list, bool withSlot, int32_t separate) {
    char* out = nullptr;
    char* err = nullptr;
    qveue_Exception* exception = nullptr;
    DriverOutcome o;
    o.status = qvefos_getLocalMetric(context_, list, separate, &out, &err,
                                     withSlot ? &exception : nullptr, log_);
    o.out = Take(out);
    o.err = Take(err);
    if (exception != nullptr) {
      o.kind = qveue_Exception_getKind(exception);
      o.message = qveue_Exception_getErrorMessage(exception);
      qveue_Exception_delete(exception);
    }
    return o;
  }

  static Text Take(char* text) {
    if (text == nullptr) return std::nullopt;
    std::string copy(text);
    qve_free0(text, "tests", __LINE__);
    return copy;
  }

  qvefet_Context* context_ = qvehost::NewContext();
  qveulm_LogCtx* log_ = qveulm_getLogCtx(context_->logSource, "fetchlets.os");
  qvehost::LogCapture capture_;
};

struct OutcomeCase {
  const char* name;
  Properties properties;
  int32_t status;
  Text out;
  Text err;
  int32_t kind;
  const char* message;
};

class DriverOutcomeTest : public DriverTest,
                          public testing::WithParamInterface<OutcomeCase> {};

TEST_P(DriverOutcomeTest, MatchesTheOutcomeTable) {
  const OutcomeCase& c = GetParam();
  DriverOutcome o = Evaluate(c.properties);
  EXPECT_EQ(o.status, c.status);
  EXPECT_EQ(o.out, c.out);
  EXPECT_EQ(o.err, c.err);
  EXPECT_EQ(o.kind, c.kind);
  EXPECT_EQ(o.message, c.message);
}

INSTANTIATE_TEST_SUITE_P(
    Outcomes, DriverOutcomeTest,
    testing::Values(
        OutcomeCase{"Success", {{"command", " sh -c 'echo a; echo b >&2' "}},
                    0, "a\n", "b\n", 0, ""},
        OutcomeCase{"NothingWritten", {{"command", "true"}}, 0, {}, {}, 0, ""},
        OutcomeCase{"ScriptAndArgsAppended",
                    {{"command", "echo"}, {"script", "x"}, {"args", "y"}}, 0,
                    "x y\n", {}, 0, ""},
        OutcomeCase{"EnvironmentAndStdin",
                    {{"command", "sh -c 'cat; echo $V'"},
                     {"ENVV", "v"},
                     {"STDINa", "1"}},
                    0, "a=1\nv\n", {}, 0, ""},
        OutcomeCase{"ExitValue", {{"command", "sh -c 'echo oops >&2; exit 1'"}},
                    -1, {}, {}, QVE_EXC_RUN_FAILED, "oops\n"},
        OutcomeCase{"TimeLimit",
                    {{"command", "sleep 10"}, {"KT_METRIC_TIMEOUT", "2"}}, -1,
                    {}, {}, QVE_EXC_TIMEOUT,
                    "Metric execution timed out in 2 seconds"},
        OutcomeCase{"NotFound", {{"command", "/x/y"}}, -1, {}, {},
                    QVE_EXC_RUN_FAILED, "/x/y: not found"},
        OutcomeCase{"NoCommand", {{"args", "x"}}, -1, {}, {},
                    QVE_EXC_BAD_REQUEST, "Command for fetchlet is NULL"},
        OutcomeCase{"EmptyCommand", {{"command", ""}}, -1, {}, {},
                    QVE_EXC_BAD_REQUEST, "Command for fetchlet is NULL"},
        OutcomeCase{"MismatchedQuotes", {{"command", "echo 'a"}}, -1, {}, {},
                    QVE_EXC_BAD_REQUEST, "Argument 'echo 'a' has mismatch quotes"},
        OutcomeCase{"CommandNotConvertible", {{"command", "echo \xff"}}, -1,
                    {}, {}, 0, ""},
        OutcomeCase{"StdinNotConvertible",
                    {{"command", "cat"}, {"STDINx", "\xff"}}, -1, {}, {}, 0,
                    ""},
        OutcomeCase{"SecureWithoutPassword",
                    {{"command", "true"},
                     {"isSecureCommand", "true"},
                     {"username", "nobody"}},
                    -1, {}, {}, 0, ""}),
    [](const testing::TestParamInfo<OutcomeCase>& param) {
      return std::string(param.param.name);
    });

TEST_F(DriverTest, NullPropertiesAndNullSlot) {
  DriverOutcome o = Evaluate(nullptr, true, 0);
  EXPECT_EQ(o.status, -1);
  EXPECT_EQ(o.kind, QVE_EXC_BAD_REQUEST);
  EXPECT_EQ(o.message, "Request for fetchlet is NULL");
  EXPECT_EQ(Evaluate({{"command", "false"}}, false).status, -1);
  EXPECT_EQ(Evaluate({{"command", "echo 'a"}}, false).status, -1);
}

TEST_F(DriverTest, TrimsTheCommandInPlaceAndLogsTheRequestId) {
  qvlnv_NVList* list = qvehost::NewPropertyList();
  qvehost::SetProperty(list, "command", "  echo hi \n");
  qvehost::SetProperty(list, "KTDCLIENT_REQUEST_ID", "r-9");
  EXPECT_EQ(Evaluate(list, true, 0).out, "hi\n");
  EXPECT_STREQ(qvlnvlgv_getValue(list, "command"), "  echo hi");
  qvehost::DeletePropertyList(list);
  const auto debug = capture_.Texts(LogLevel::kDebug, "fetchlets.os");
  EXPECT_NE(std::find(debug.begin(), debug.end(),
                      "Metric evaluation for KTD request ID  r-9"),
            debug.end());
}

TEST_F(DriverTest, SecureRunWithoutPasswordLogsTheReasonAndRunsNothing) {
  Evaluate({{"command", "touch /tmp/should-not-exist-qve"},
            {"isSecureCommand", "TRUE"},
            {"username", "x"}});
  EXPECT_EQ(capture_.Texts(LogLevel::kError),
            std::vector<std::string>{
                "Error running secure command. Either username or password "
                "isn't provided while isSecureCommand is set to TRUE."});
  EXPECT_NE(access("/tmp/should-not-exist-qve", F_OK), 0);
}

TEST_F(DriverTest, AllocationFailuresReleaseEverything) {
  const Properties properties = {{"command", "sh -c 'cat; echo $V >&2'"},
                                 {"ENVV", "v"},
                                 {"ENV_ARRAY", "{W=1}"},
                                 {"STDINa", "1\n2"}};
  for (uint64_t k = 1;; ++k) {
    qvehost::ResetFaults();
    qvehost::FailAllocation("qvefos", k, false);
    DriverOutcome o = Evaluate(properties);
    if (o.status != 0) {
      EXPECT_EQ(o.status, -1) << k;
    }
    EXPECT_TRUE(qvehost::LiveBlocks().empty())
        << k << "\n" << qvehost::DescribeLiveBlocks();
    if (qvehost::AllocationCount("qvefos") < k) break;
  }
}

}  // namespace
