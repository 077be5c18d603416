// What a failed first phase yields, by the server version the host reports.
#include <string>

#include <gtest/gtest.h>

#include "fosud/qvefosud_protocol.h"
#include "fosud/udm_support.h"

namespace qvetest::udm {
namespace {

constexpr int32_t kCurrent = QVE_SERVER_VERSION_CURRENT;
const std::string kNoOutput =
    "User Defined Metric disk did not generate any output";

struct FailureCase {
  const char* name;
  int32_t version;
  Properties props;
  int32_t failedStatus;
  const char* held;  // message of the held exception; null: none held
  bool withSlot;
  Json expected;
};

class FailureRuleTest : public testing::TestWithParam<FailureCase> {
 protected:
  ~FailureRuleTest() override { qvehost::DeleteContext(context_); }

  Json Apply(const FailureCase& c) {
    const ServerVersion version(c.version);
    PropertyList list(c.props);
    qveue_Exception* exception =
        c.held != nullptr
            ? qveue_Exception_new_init(QVE_EXC_RUN_FAILED, c.held)
            : nullptr;
    qvedrmr_MetricResult* result = nullptr;
    const int32_t status = qvefosud_getResultFromFailure(
        context_, list.get(), c.failedStatus, &result,
        c.withSlot ? &exception : nullptr, log_);
    return Outcome(status, result, exception);
  }

  qvefet_Context* context_ = qvehost::NewContext();
  qveulm_LogCtx* log_ = qveulm_getLogCtx(context_->logSource, "fetchlets.UDM");
};

TEST_P(FailureRuleTest, StandsOrBecomesTheErrorRow) {
  EXPECT_EQ(Apply(GetParam()), GetParam().expected);
}

Properties Typed(const char* type) {
  return {{"ID", "disk"}, {"scriptErrorValue", "-1"}, {"valuetype", type}};
}
const Properties kUntyped = {{"ID", "disk"}, {"scriptErrorValue", "-1"}};

INSTANTIATE_TEST_SUITE_P(
    OldServer, FailureRuleTest,
    testing::Values(
        FailureCase{"NumberCarriesTheMessage", kOldServer, Typed("NUMBER"), -1,
                    "boom", true,
                    Succeeded(Row("disk", "-1", nullptr, "boom"))},
        FailureCase{"StringCarriesTheMessage", kOldServer, Typed("STRING"), -1,
                    "boom", true,
                    Succeeded(Row("disk", nullptr, "-1", "boom"))},
        FailureCase{"AbsentTypeIsString", kOldServer, kUntyped, 4, "boom",
                    true, Succeeded(Row("disk", nullptr, "-1", "boom"))},
        FailureCase{"OtherTypeDropsTheException", kOldServer, Typed("number"),
                    -1, "boom", true, {{"status", -1}, {"result", nullptr}}},
        FailureCase{"OtherTypeKeepsAPositiveStatus", kOldServer, Typed(""), 3,
                    nullptr, true, {{"status", 3}, {"result", nullptr}}},
        FailureCase{"NoExceptionSaysNoOutput", kOldServer, Typed("NUMBER"), -1,
                    nullptr, true,
                    Succeeded(Row("disk", "-1", nullptr, kNoOutput))},
        FailureCase{"NoSlotSaysNoOutput", kOldServer, Typed("STRING"), -1,
                    nullptr, false,
                    Succeeded(Row("disk", nullptr, "-1", kNoOutput))},
        FailureCase{"NoErrorValue", kOldServer,
                    {{"ID", "disk"}, {"valuetype", "NUMBER"}}, -1, "boom",
                    true, Succeeded(Row("disk", nullptr, nullptr, "boom"))}),
    [](const testing::TestParamInfo<FailureCase>& p) { return p.param.name; });

INSTANTIATE_TEST_SUITE_P(
    CurrentServer, FailureRuleTest,
    testing::Values(
        FailureCase{"KeepsStatusAndException", kCurrent, Typed("NUMBER"), -1,
                    "boom", true, Failed(-1, QVE_EXC_RUN_FAILED, "boom")},
        FailureCase{"NewerKeepsAPositiveStatus", kCurrent + 0x10000,
                    Typed("STRING"), 7, "boom", true,
                    Failed(7, QVE_EXC_RUN_FAILED, "boom")},
        FailureCase{"WithoutExceptionGivesNone", kCurrent, Typed("NUMBER"), 5,
                    nullptr, true, {{"status", 5}, {"result", nullptr}}}),
    [](const testing::TestParamInfo<FailureCase>& p) { return p.param.name; });

TEST(FailureRuleRefusedResultTest, OldServerReportsTheRefusalInstead) {
  const ServerVersion version(kOldServer);
  qvefet_Context* context = qvehost::NewContext();
  PropertyList list(Typed("NUMBER"));
  qvehost::RefuseMetricResult(true);
  qveue_Exception* exception =
      qveue_Exception_new_init(QVE_EXC_RUN_FAILED, "boom");
  qvedrmr_MetricResult* result = nullptr;
  const int32_t status = qvefosud_getResultFromFailure(
      context, list.get(), -1, &result, &exception,
      qveulm_getLogCtx(context->logSource, "fetchlets.UDM"));
  EXPECT_EQ(Outcome(status, result, exception),
            Failed(-1, QVE_EXC_NO_RESULT,
                   "cannot create UDM fetchlet result object"));
  qvehost::DeleteContext(context);
}

}  // namespace
}  // namespace qvetest::udm
