// The UDM fetchlet's entry points on requests refused before any process
// starts.
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fos/run_support.h"
#include "fosud/qvefosud_metric.h"
#include "fosud/udm_support.h"

namespace qvetest::udm {
namespace {

using qvehost::LogLevel;

constexpr int32_t kCurrent = QVE_SERVER_VERSION_CURRENT;
const std::string kRequired =
    "Command, command ID, username, password for UDM fetchlet cannot be NULL";
const std::string kMismatch = "Argument 'sh -c 'echo' has mismatch quotes";

class UdmMetricTest : public testing::Test {
 protected:
  ~UdmMetricTest() override { qvehost::DeleteContext(context_); }

  // props nullopt: a null property list.
  Json Evaluate(const std::optional<Properties>& props, bool withSlot) {
    std::optional<PropertyList> list;
    if (props) list.emplace(*props);
    auto* result = reinterpret_cast<qvedrmr_MetricResult*>(&capture_);
    qveue_Exception* exception = nullptr;
    const int32_t status =
        qvefosud_getMetric(context_, list ? list->get() : nullptr, &result,
                           withSlot ? &exception : nullptr);
    return Outcome(status, result, exception);
  }

  qvefet_Context* context_ = qvehost::NewContext();
  qvehost::LogCapture capture_;
};

struct RequestCase {
  const char* name;
  std::optional<Properties> props;
  int32_t version;
  bool withSlot;
  Json expected;
  std::vector<std::string> errors;
};

class UdmRequestTest : public UdmMetricTest,
                       public testing::WithParamInterface<RequestCase> {};

TEST_P(UdmRequestTest, IsRefusedBeforeAnyRun) {
  const RequestCase& c = GetParam();
  const ServerVersion version(c.version);
  EXPECT_EQ(Evaluate(c.props, c.withSlot), c.expected);
  EXPECT_EQ(capture_.Texts(LogLevel::kError, "fetchlets.UDM"), c.errors);
  EXPECT_EQ(ChildPids(), std::vector<int>{});
}

// A complete request but for the property named "drop", which is left out,
// and the one named "empty", which is present without a value.
Properties Request(const std::string& drop, const std::string& empty = "") {
  Properties props;
  for (const auto& [name, value] :
       Properties{{"command", "/bin/true"}, {"username", "nobody"},
                  {"password", "secret"}, {"ID", "disk"},
                  {"valuetype", "NUMBER"}, {"scriptErrorValue", "-1"}}) {
    if (name != drop) props.emplace_back(name, name == empty ? "" : value);
  }
  return props;
}
Properties Unbalanced() {
  Properties props = Request("command");
  props.emplace_back("command", "sh");
  props.emplace_back("args", "-c 'echo");
  return props;
}

INSTANTIATE_TEST_SUITE_P(
    CurrentServer, UdmRequestTest,
    testing::Values(
        RequestCase{"NullList", std::nullopt, kCurrent, true,
                    Failed(-1, QVE_EXC_BAD_REQUEST,
                           "Request for fetchlet is NULL"),
                    {}},
        RequestCase{"NoCommand", Request("command"), kCurrent, true,
                    Failed(-1, QVE_EXC_BAD_REQUEST, kRequired), {}},
        RequestCase{"EmptyUsername", Request("", "username"), kCurrent, true,
                    Failed(-1, QVE_EXC_BAD_REQUEST, kRequired), {}},
        RequestCase{"NoPassword", Request("password"), kCurrent, true,
                    Failed(-1, QVE_EXC_BAD_REQUEST, kRequired), {}},
        RequestCase{"EmptyId", Request("", "ID"), kCurrent, true,
                    Failed(-1, QVE_EXC_BAD_REQUEST, kRequired), {}},
        RequestCase{"NoPasswordNoSlot", Request("password"), kCurrent, false,
                    {{"status", -1}, {"result", nullptr}}, {}},
        RequestCase{"UnbalancedQuotes", Unbalanced(), kCurrent, true,
                    Failed(-1, QVE_EXC_BAD_REQUEST, kMismatch), {kMismatch}},
        RequestCase{"UnbalancedQuotesNoSlot", Unbalanced(), kCurrent, false,
                    {{"status", -1}, {"result", nullptr}},
                    {"No Command to execute"}}),
    [](const testing::TestParamInfo<RequestCase>& p) { return p.param.name; });

INSTANTIATE_TEST_SUITE_P(
    OldServer, UdmRequestTest,
    testing::Values(
        // No "valuetype" to read: the row reports in the string column.
        RequestCase{"NullList", std::nullopt, kOldServer, true,
                    Succeeded(Row(nullptr, nullptr, nullptr,
                                  "Request for fetchlet is NULL")),
                    {}},
        RequestCase{"NoPassword", Request("password"), kOldServer, true,
                    Succeeded(Row("disk", "-1", nullptr, kRequired)), {}},
        RequestCase{"NoPasswordNoSlot", Request("password"), kOldServer, false,
                    Succeeded(Row("disk", "-1", nullptr,
                                  "User Defined Metric disk did not generate "
                                  "any output")),
                    {}},
        RequestCase{"UnbalancedQuotes", Unbalanced(), kOldServer, true,
                    Succeeded(Row("disk", "-1", nullptr, kMismatch)),
                    {kMismatch}}),
    [](const testing::TestParamInfo<RequestCase>& p) { return p.param.name; });

TEST_F(UdmMetricTest, TracesTheFirstPhaseUnderItsLog) {
  Evaluate(std::nullopt, true);
  EXPECT_EQ(capture_.Texts(LogLevel::kTrace, "fetchlets.UDM"),
            (std::vector<std::string>{
                "qvefosud : Entering function - qvefosud_getMetric\n",
                "qvefosud : Entering function - qvefosud_getUDMetric\n"}));
}

TEST_F(UdmMetricTest, CommandLineMemoryFailureIsKindTwelve) {
  qvehost::FailAllocation("qvefosud", 1, false);
  EXPECT_EQ(Evaluate(Request(""), true),
            Failed(-1, QVE_EXC_RUN_FAILED, "Unable to allocate memory"));
  EXPECT_EQ(capture_.Texts(LogLevel::kError, "fetchlets.UDM"),
            std::vector<std::string>{"Memory could not be allocated\n"});
}

TEST_F(UdmMetricTest, HandleUnderTheUdmLog) {
  qvefet_Fetchlet* fetchlet = nullptr;
  ASSERT_EQ(qvefosud_getFetchlet(context_, &fetchlet), 0);
  qvefosud_freeFetchlet(fetchlet);
  qvehost::RefuseNewFetchlet(true);
  EXPECT_EQ(qvefosud_getFetchlet(context_, &fetchlet), -1);
  EXPECT_EQ(fetchlet, nullptr);
  EXPECT_EQ(capture_.Texts(LogLevel::kTrace, "fetchlets.UDM"),
            (std::vector<std::string>{
                "qvefosud : Entering function - qvefosud_getFetchlet\n",
                "qvefosud : Entering function - qvefosud_freeFetchlet\n",
                "qvefosud : Entering function - qvefosud_getFetchlet\n"}));
  EXPECT_EQ(capture_.Texts(LogLevel::kError, "fetchlets.UDM"),
            std::vector<std::string>{
                "Could not allocate memory for UDM fetchlet\n"});
}

}  // namespace
}  // namespace qvetest::udm
