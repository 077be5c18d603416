// The UDM output protocol on texts, without a process.
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fosud/qvefosud_protocol.h"
#include "fosud/udm_support.h"

namespace qvetest::udm {
namespace {

using qvehost::LogLevel;

constexpr char kId[] = "cpu_check";
const std::string kNoOutput =
    "User Defined Metric cpu_check did not generate any output";
const std::string kOutputLine = "qvefosud_getResultFromString: output = ";

std::string ValueMessage(const std::string& value) {
  return "User Defined Metric cpu_check returned a value of " + value;
}

Json NoValue(const std::string& message) {
  return Succeeded(Row(kId, nullptr, nullptr, message));
}

class ProtocolTest : public testing::Test {
 protected:
  ~ProtocolTest() override { qvehost::DeleteContext(context_); }

  // Reads output (nullopt: a null text) with "ID" first, then props.
  Json Read(const Properties& props, const std::optional<std::string>& output,
            bool withSlot = true) {
    Properties all = {{"ID", kId}};
    all.insert(all.end(), props.begin(), props.end());
    return ReadExactly(all, output, withSlot);
  }

  Json ReadExactly(const Properties& props,
                   const std::optional<std::string>& output, bool withSlot) {
    PropertyList list(props);
    std::vector<char> text;
    if (output) text.assign(output->begin(), output->end());
    text.push_back('\0');
    qvedrmr_MetricResult* result = nullptr;
    qveue_Exception* exception = nullptr;
    const int32_t status = qvefosud_getResultFromString(
        list.get(), output ? text.data() : nullptr, &result,
        withSlot ? &exception : nullptr, log_);
    return Outcome(status, result, exception);
  }

  qvefet_Context* context_ = qvehost::NewContext();
  qveulm_LogCtx* log_ = qveulm_getLogCtx(context_->logSource, "fetchlets.UDM");
  qvehost::LogCapture capture_;
};

struct TextCase {
  const char* name;
  Properties props;
  std::optional<std::string> output;
  Json expected;
  std::vector<std::string> errors;  // error-level lines
};

class ProtocolTextTest : public ProtocolTest,
                         public testing::WithParamInterface<TextCase> {};

TEST_P(ProtocolTextTest, ReadsTheTaggedLines) {
  const TextCase& c = GetParam();
  EXPECT_EQ(Read(c.props, c.output), c.expected);
  EXPECT_EQ(capture_.Texts(LogLevel::kError, "fetchlets.UDM"), c.errors);
}

const Properties kNumber = {{"valuetype", "NUMBER"}};

INSTANTIATE_TEST_SUITE_P(
    ValueTypes, ProtocolTextTest,
    testing::Values(
        TextCase{"Number", kNumber, "kt_result=42\n",
                 Succeeded(Row(kId, "42", nullptr, ValueMessage("42"))), {}},
        TextCase{"String", {{"valuetype", "STRING"}}, "kt_result=up",
                 Succeeded(Row(kId, nullptr, "up", ValueMessage("up"))), {}},
        TextCase{"AbsentIsString", {}, "kt_result=42\n",
                 Succeeded(Row(kId, nullptr, "42", ValueMessage("42"))), {}},
        TextCase{"LowerCaseGivesNothing", {{"valuetype", "number"}},
                 "kt_result=1\n", Succeeded(nullptr), {}},
        TextCase{"EmptyGivesNothing", {{"valuetype", ""}}, "kt_result=1\n",
                 Succeeded(nullptr), {}},
        // Without a value the row does not depend on the type.
        TextCase{"UnknownWithoutValueStillRows", {{"valuetype", "GAUGE"}},
                 "kt_failure=1\n", NoValue(kNoOutput),
                 {kOutputLine + "kt_failure=1\n"}}),
    [](const testing::TestParamInfo<TextCase>& p) { return p.param.name; });

INSTANTIATE_TEST_SUITE_P(
    Lines, ProtocolTextTest,
    testing::Values(
        TextCase{"FirstPerTagWinsInAnyOrder", kNumber,
                 "checking /u01\nkt_message=disk usage high\nkt_result=87\n"
                 "kt_result=12\nkt_message=later\n",
                 Succeeded(Row(kId, "87", nullptr, "disk usage high")), {}},
        TextCase{"CarriageReturnsAreCut", {}, "kt_result=7\r\nkt_message=ok\r\n",
                 Succeeded(Row(kId, nullptr, "7", "ok")), {}},
        TextCase{"ValueIsNotTrimmed", {}, "kt_result= 5 \t\n",
                 Succeeded(Row(kId, nullptr, " 5 \t", ValueMessage(" 5 \t"))),
                 {}},
        TextCase{"EmptyValueIsAValue", kNumber, "kt_result=\n",
                 Succeeded(Row(kId, "", nullptr, ValueMessage(""))), {}},
        TextCase{"EmptyMessageIsKept", {}, "kt_result=1\nkt_message=\n",
                 Succeeded(Row(kId, nullptr, "1", "")), {}},
        TextCase{"LeadingBlankIsNoTag", {}, " kt_result=1\n",
                 NoValue(kNoOutput), {kOutputLine + " kt_result=1\n"}},
        TextCase{"UpperCaseIsNoTag", {}, "KT_RESULT=1\nkt_message=m\n",
                 NoValue("m"), {kOutputLine + "KT_RESULT=1\n"}},
        TextCase{"FailureAfterAValue", kNumber,
                 "kt_result=1\nkt_message=m\nkt_failure=gone\n", NoValue("m"),
                 {kOutputLine + "kt_result=1\n"}},
        TextCase{"FailureAlone", {}, "kt_failure=gone", NoValue(kNoOutput),
                 {kOutputLine + "kt_failure=gone\n"}},
        TextCase{"NoTaggedLine", {}, "hello\nworld\n", NoValue(kNoOutput),
                 {kOutputLine + "hello\n"}},
        TextCase{"OneEmptyLine", {}, "\n", NoValue(kNoOutput),
                 {kOutputLine + "\n"}},
        TextCase{"EmptyOutput", {}, "", NoValue(kNoOutput), {}},
        TextCase{"NullOutput", {}, std::nullopt, NoValue(kNoOutput), {}}),
    [](const testing::TestParamInfo<TextCase>& p) { return p.param.name; });

INSTANTIATE_TEST_SUITE_P(
    TagOverrides, ProtocolTextTest,
    testing::Values(
        TextCase{"ResultTagReplacesDefault", {{"kt_result_tag", "RESULT:"}},
                 "kt_result=1\nRESULT:2\n",
                 Succeeded(Row(kId, nullptr, "2", ValueMessage("2"))), {}},
        TextCase{"DefaultResultTagNoLongerCounts",
                 {{"kt_result_tag", "RESULT:"}}, "kt_result=1\n",
                 NoValue(kNoOutput), {kOutputLine + "kt_result=1\n"}},
        TextCase{"MessageAndFailureTagsWithoutEquals",
                 {{"kt_message_tag", "MSG"}, {"kt_failure_tag", "FAIL"}},
                 "kt_failure=x\nkt_message=y\nMSGhello\nkt_result=3\n",
                 Succeeded(Row(kId, nullptr, "3", "hello")), {}},
        TextCase{"FailureTagReplacesDefault", {{"kt_failure_tag", "FAIL"}},
                 "kt_result=1\nFAILED\n", NoValue(kNoOutput),
                 {kOutputLine + "kt_result=1\n"}},
        TextCase{"EmptyOverrideKeepsDefault", {{"kt_result_tag", ""}},
                 "kt_result=4\n",
                 Succeeded(Row(kId, nullptr, "4", ValueMessage("4"))), {}},
        TextCase{"OneLineServesTwoTags",
                 {{"kt_result_tag", "X"}, {"kt_message_tag", "XY"}}, "XY1\n",
                 Succeeded(Row(kId, nullptr, "Y1", "1")), {}}),
    [](const testing::TestParamInfo<TextCase>& p) { return p.param.name; });

TEST_F(ProtocolTest, NoOutputMessageIsCutTo511Bytes) {
  const std::string id(600, 'i');
  const std::string full =
      "User Defined Metric " + id + " did not generate any output";
  EXPECT_EQ(ReadExactly({{"ID", id}}, "", true),
            Succeeded(Row(id, nullptr, nullptr, full.substr(0, 511))));
}

TEST_F(ProtocolTest, ValueMessageHoldsALongIdAndValueWhole) {
  const std::string id(600, 'i');
  const std::string value(3000, 'v');
  EXPECT_EQ(ReadExactly({{"ID", id}}, "kt_result=" + value, true),
            Succeeded(Row(id, nullptr, value,
                          "User Defined Metric " + id +
                              " returned a value of " + value)));
}

TEST_F(ProtocolTest, WritesEntryTraces) {
  Read({}, "kt_result=1\n");
  EXPECT_EQ(capture_.Texts(LogLevel::kTrace, "fetchlets.UDM"),
            (std::vector<std::string>{
                "qvefosud : Entering function - qvefosud_getResultFromString\n",
                "qvefosud : Entering function - qvefosud_createResultObject\n"}));
}

TEST_F(ProtocolTest, UncopiedMessageLineFallsBackToTheValueMessage) {
  qvehost::FailAllocation("qvefosud", 1, false);
  EXPECT_EQ(Read({}, "kt_message=m\nkt_result=1\n"),
            Succeeded(Row(kId, nullptr, "1", ValueMessage("1"))));
}

struct SlotCase {
  const char* name;
  bool withSlot;
  Json expected;
  std::vector<std::string> errors;
};

class MessageMemoryTest : public ProtocolTest,
                          public testing::WithParamInterface<SlotCase> {};

TEST_P(MessageMemoryTest, FailsWithoutResult) {
  const SlotCase& c = GetParam();
  qvehost::FailAllocation("qvefosud", 1, false);
  EXPECT_EQ(Read({}, "kt_result=1\n", c.withSlot), c.expected);
  EXPECT_EQ(capture_.Texts(LogLevel::kError, "fetchlets.UDM"), c.errors);
}

const std::string kMessageMemoryLog =
    "qvefosud_getResultFromString: cannot allocate memory for UDM message\n";

INSTANTIATE_TEST_SUITE_P(
    Slots, MessageMemoryTest,
    testing::Values(
        SlotCase{"WithSlot", true,
                 Failed(-1, QVE_EXC_RUN_FAILED,
                        "unable to allocate memory for UDM MESSAGE"),
                 {kMessageMemoryLog}},
        SlotCase{"WithoutSlot", false, {{"status", -1}, {"result", nullptr}},
                 {kMessageMemoryLog}}),
    [](const testing::TestParamInfo<SlotCase>& p) { return p.param.name; });

class RefusedResultTest : public ProtocolTest,
                          public testing::WithParamInterface<SlotCase> {};

TEST_P(RefusedResultTest, LeavesTheSlotAsItWas) {
  const SlotCase& c = GetParam();
  qvehost::RefuseMetricResult(true);
  auto* sentinel = reinterpret_cast<qvedrmr_MetricResult*>(&capture_);
  qvedrmr_MetricResult* result = sentinel;
  qveue_Exception* exception = nullptr;
  const int32_t status = qvefosud_createResultObject(
      kId, "1", nullptr, "m", &result, c.withSlot ? &exception : nullptr, log_);
  EXPECT_EQ(result, sentinel);
  EXPECT_EQ(Outcome(status, nullptr, exception), c.expected);
  EXPECT_EQ(capture_.Texts(LogLevel::kError, "fetchlets.UDM"), c.errors);
}

INSTANTIATE_TEST_SUITE_P(
    Slots, RefusedResultTest,
    testing::Values(
        SlotCase{"WithSlot", true,
                 Failed(-1, QVE_EXC_NO_RESULT,
                        "cannot create UDM fetchlet result object"),
                 {}},
        SlotCase{"WithoutSlot", false, {{"status", -1}, {"result", nullptr}},
                 {"qvefosud_createResultObject: cannot create UDM fetchlet "
                  "result object\n"}}),
    [](const testing::TestParamInfo<SlotCase>& p) { return p.param.name; });

// Every allocation of the plug-in fails in turn: each reading ends in a row
// or in a documented failure, and leaves nothing behind.
TEST_F(ProtocolTest, AllocationSweepEndsInARowOrADocumentedFailure) {
  for (uint64_t k = 1;; ++k) {
    qvehost::ResetFaults();
    qvehost::FailAllocation("", k, false);
    const Json outcome = Read({}, "noise\nkt_message=m\nkt_result=1\n");
    const uint64_t made = qvehost::AllocationCount("");
    if (outcome["status"] == 0) {
      EXPECT_TRUE(outcome["result"].is_object()) << "k=" << k;
    } else {
      EXPECT_EQ(outcome["kind"], QVE_EXC_RUN_FAILED) << "k=" << k;
    }
    EXPECT_TRUE(qvehost::LiveBlocks().empty()) << "k=" << k;
    if (made < k) break;
  }
}

}  // namespace
}  // namespace qvetest::udm
