// The UDM fetchlet without a process: requests refused before any run, the
// output protocol on texts, and what a failed run yields by server version.
#include <gtest/gtest.h>

#include "common/run_support.h"
#include "fosud/qvefosud_metric.h"
#include "fosud/qvefosud_protocol.h"

namespace qvetest {
namespace {

using qvehost::LogLevel;

constexpr int32_t kCurrent = QVE_SERVER_VERSION_CURRENT;
const std::string kNoOutput =
    "User Defined Metric id7 did not generate any output";
const std::string kRefused = "cannot create UDM fetchlet result object";

std::string ValueMessage(const std::string& value) {
  return "User Defined Metric id7 returned a value of " + value;
}
Json Value(Json number, Json string, const std::string& message) {
  return Succeeded(UdmRow("id7", number, string, message));
}

class UdmTest : public PluginTest {
 protected:
  // Reads output (nullopt: a null text) with "ID" first unless props has it.
  Json Read(Props props, const Text& output, bool withSlot = true) {
    if (props.empty() || props.front().first != "ID") {
      props.insert(props.begin(), {"ID", "id7"});
    }
    std::string text = output.value_or("");
    qvedrmr_MetricResult* result = nullptr;
    qveue_Exception* exception = nullptr;
    const int32_t status = qvefosud_getResultFromString(
        NewList(props).get(), output ? text.data() : nullptr, &result,
        withSlot ? &exception : nullptr, log_);
    return Outcome(status, result, exception);
  }
  Strings Errors() const {
    return capture_.Texts(LogLevel::kError, "fetchlets.UDM");
  }
  qveulm_LogCtx* log_ = qveulm_getLogCtx(context_->logSource, "fetchlets.UDM");
};

// A complete request without the property named drop.
Props Request(const std::string& drop = "") {
  Props props = {{"command", "/bin/true"}, {"username", "nobody"},
                 {"password", "secret"},   {"ID", "id7"},
                 {"valuetype", "NUMBER"},  {"scriptErrorValue", "-1"}};
  std::erase_if(props, [&](const auto& p) { return p.first == drop; });
  return props;
}

TEST_F(UdmTest, RequestsAreRefusedBeforeAnyRun) {
  const std::string required =
      "Command, command ID, username, password for UDM fetchlet cannot be "
      "NULL";
  const std::string mismatch = "Argument 'sh -c 'echo' has mismatch quotes";
  Props unbalanced = Request("command");
  unbalanced.insert(unbalanced.end(),
                    {{"command", "sh"}, {"args", "-c 'echo"}});
  const Props emptyUser = {
      {"username", ""}, {"password", "p"}, {"ID", "i"}, {"command", "c"}};
  // clang-format off
  const struct {
    std::optional<Props> props;  // nullopt: a null list
    int32_t version;
    bool withSlot;
    Json expected;
    Strings errors;
  } cases[] = {
      {std::nullopt, kCurrent, true,
       Failed(QVE_EXC_BAD_REQUEST, "Request for fetchlet is NULL"), {}},
      {Request("command"), kCurrent, true,
       Failed(QVE_EXC_BAD_REQUEST, required), {}},
      {emptyUser, kCurrent, true, Failed(QVE_EXC_BAD_REQUEST, required), {}},
      {Request("password"), kCurrent, false, kFailedQuietly, {}},
      {unbalanced, kCurrent, true, Failed(QVE_EXC_BAD_REQUEST, mismatch),
       {mismatch}},
      {unbalanced, kCurrent, false, kFailedQuietly, {"No Command to execute"}},
      // An old server takes the refusal as the row's message; without a
      // "valuetype" to read, the row reports in the string column.
      {std::nullopt, kOldServer, true,
       Succeeded(UdmRow(nullptr, nullptr, nullptr,
                        "Request for fetchlet is NULL")), {}},
      {Request("password"), kOldServer, true, Value("-1", nullptr, required),
       {}},
      {Request("password"), kOldServer, false,
       Value("-1", nullptr, kNoOutput), {}},
      {unbalanced, kOldServer, true, Value("-1", nullptr, mismatch),
       {mismatch}},
  };
  // clang-format on
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.props) + " " +
                 std::to_string(c.version) + (c.withSlot ? "" : " no slot"));
    const ServerVersion version(c.version);
    capture_.Clear();
    const auto list = NewList(c.props.value_or(Props{}));
    EXPECT_EQ(Evaluate(qvefosud_getMetric, context_,
                       c.props ? list.get() : nullptr, c.withSlot),
              c.expected);
    EXPECT_EQ(Errors(), c.errors);
  }
  EXPECT_EQ(ChildPids(), std::vector<int>{});
  capture_.Clear();
  qvehost::FailAllocation("qvefosud", 1, false);
  EXPECT_EQ(Evaluate(qvefosud_getMetric, context_, Request()),
            Failed(QVE_EXC_RUN_FAILED, "Unable to allocate memory"));
  EXPECT_EQ(Errors(), Strings{"Memory could not be allocated\n"});
}

TEST_F(UdmTest, ReadsTheTaggedLines) {
  const Props number = {{"valuetype", "NUMBER"}};
  const Json noValue = Value(nullptr, nullptr, kNoOutput);
  // A value in its column with the message that names it.
  auto num = [](const char* v) { return Value(v, nullptr, ValueMessage(v)); };
  auto str = [](const char* v) { return Value(nullptr, v, ValueMessage(v)); };
  // clang-format off
  const struct {
    Props props;
    Text output;
    Json expected;
    bool logged = false;  // the output's first line, at error level
  } cases[] = {
      // Value types: only an absent one defaults to STRING; one unknown
      // gives success without a result.
      {number, "kt_result=42\n", num("42")},
      {{}, "kt_result=42\n", str("42")},
      {{{"valuetype", "number"}}, "kt_result=1\n", Succeeded(nullptr)},
      {{{"valuetype", "GAUGE"}}, "kt_failure=1\n", noValue, true},
      // The first line of each tag wins, in any order, taken as it is.
      {number, "x\nkt_message=hi\nkt_result=87\nkt_result=1\nkt_message=x\n",
       Value("87", nullptr, "hi")},
      {{}, "kt_result=7\r\nkt_message=ok\r\n", Value(nullptr, "7", "ok")},
      {number, "kt_result=\n", num("")},
      {{}, "kt_result=1\nkt_message=\n", Value(nullptr, "1", "")},
      {{}, "KT_RESULT=1\nkt_message=m\n", Value(nullptr, nullptr, "m"), true},
      {number, "kt_result=1\nkt_message=m\nkt_failure=gone\n",
       Value(nullptr, nullptr, "m"), true},
      {{}, "hello\nworld\n", noValue, true},
      {{}, "", noValue},
      {{}, std::nullopt, noValue},
      // The request's own tags replace the defaults; empty ones do not.
      {{{"kt_result_tag", "RESULT:"}}, "kt_result=1\nRESULT:2\n", str("2")},
      {{{"kt_message_tag", "MSG"}, {"kt_failure_tag", "FAIL"}},
       "kt_failure=x\nkt_message=y\nMSGhi\nkt_result=3\n",
       Value(nullptr, "3", "hi")},
      {{{"kt_failure_tag", "FAIL"}}, "kt_result=1\nFAILED\n", noValue, true},
      {{{"kt_result_tag", ""}}, "kt_result=4\n", str("4")},
      {{{"kt_result_tag", "X"}, {"kt_message_tag", "XY"}}, "XY1\n",
       Value(nullptr, "Y1", "1")},
  };
  // clang-format on
  for (const auto& c : cases) {
    const std::string output = c.output.value_or("(null)");
    SCOPED_TRACE(testing::PrintToString(c.props) + " " + output);
    capture_.Clear();
    EXPECT_EQ(Read(c.props, c.output), c.expected);
    EXPECT_EQ(Errors(),
              Strings(c.logged ? 1 : 0,
                      "qvefosud_getResultFromString: output = " +
                          output.substr(0, output.find('\n')) + "\n"));
  }
  // The no-output message is cut to its buffer; the value message is not.
  const std::string id(600, 'i'), value(3000, 'v');
  const std::string prefix = "User Defined Metric " + id;
  EXPECT_EQ(Read({{"ID", id}}, ""),
            Succeeded(UdmRow(
                id, nullptr, nullptr,
                (prefix + " did not generate any output").substr(0, 511))));
  EXPECT_EQ(Read({{"ID", id}}, "kt_result=" + value),
            Succeeded(UdmRow(id, nullptr, value,
                             prefix + " returned a value of " + value)));
}

TEST_F(UdmTest, WithoutMemoryOrResultObject) {
  // The message line cannot be copied: the value message stands in.
  qvehost::FailAllocation("qvefosud", 1, false);
  EXPECT_EQ(Read({}, "kt_message=m\nkt_result=1\n"),
            Value(nullptr, "1", ValueMessage("1")));
  for (bool withSlot : {true, false}) {
    // No message at all.
    qvehost::ResetFaults();
    qvehost::FailAllocation("qvefosud", 1, false);
    capture_.Clear();
    EXPECT_EQ(Read({}, "kt_result=1\n", withSlot),
              withSlot ? Failed(QVE_EXC_RUN_FAILED,
                                "unable to allocate memory for UDM MESSAGE")
                       : kFailedQuietly);
    EXPECT_EQ(Errors(), Strings{"qvefosud_getResultFromString: cannot "
                                "allocate memory for UDM message\n"});
    // No result object: the slot stays as it was.
    qvehost::RefuseMetricResult(true);
    capture_.Clear();
    auto* sentinel = reinterpret_cast<qvedrmr_MetricResult*>(&capture_);
    qvedrmr_MetricResult* result = sentinel;
    qveue_Exception* exception = nullptr;
    const int32_t status =
        qvefosud_createResultObject("id7", "1", nullptr, "m", &result,
                                    withSlot ? &exception : nullptr, log_);
    EXPECT_EQ(result, sentinel);
    EXPECT_EQ(Outcome(status, nullptr, exception),
              withSlot ? Failed(QVE_EXC_NO_RESULT, kRefused) : kFailedQuietly);
    EXPECT_EQ(Errors(),
              Strings(withSlot ? 0 : 1,
                      "qvefosud_createResultObject: " + kRefused + "\n"));
  }
}

TEST_F(UdmTest, FailedRunStandsOrBecomesTheErrorRow) {
  auto typed = [](const char* type) {
    return Props{
        {"ID", "id7"}, {"scriptErrorValue", "-1"}, {"valuetype", type}};
  };
  // clang-format off
  const struct {
    int32_t version;
    Props props;
    int32_t failedStatus;
    const char* held;  // the held exception's message; null: none
    Json expected;
  } cases[] = {
      {kOldServer, typed("NUMBER"), -1, "boom", Value("-1", nullptr, "boom")},
      {kOldServer, {{"ID", "id7"}, {"scriptErrorValue", "-1"}}, 4, "boom",
       Value(nullptr, "-1", "boom")},
      // An unknown type gives no row, and the exception is gone too.
      {kOldServer, typed("number"), -1, "boom", kFailedQuietly},
      {kOldServer, typed("NUMBER"), -1, nullptr,
       Value("-1", nullptr, kNoOutput)},
      {kCurrent + 0x10000, typed("STRING"), 7, "boom",
       Failed(QVE_EXC_RUN_FAILED, "boom", 7)},
      {kCurrent, typed("NUMBER"), 3, nullptr,
       {{"status", 3}, {"result", nullptr}}},
  };
  // clang-format on
  auto apply = [this](const Props& props, int32_t failedStatus,
                      const char* held) {
    qvedrmr_MetricResult* result = nullptr;
    qveue_Exception* exception =
        held ? qveue_Exception_new_init(QVE_EXC_RUN_FAILED, held) : nullptr;
    const int32_t status =
        qvefosud_getResultFromFailure(context_, NewList(props).get(),
                                      failedStatus, &result, &exception, log_);
    return Outcome(status, result, exception);
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.props) + " " +
                 std::to_string(c.version));
    const ServerVersion version(c.version);
    EXPECT_EQ(apply(c.props, c.failedStatus, c.held), c.expected);
  }
  // An old server's row that the host refuses is reported instead.
  const ServerVersion version(kOldServer);
  qvehost::RefuseMetricResult(true);
  EXPECT_EQ(apply(typed("NUMBER"), -1, "boom"),
            Failed(QVE_EXC_NO_RESULT, kRefused));
}

}  // namespace
}  // namespace qvetest
