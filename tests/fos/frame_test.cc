// The fetchlet frame with a family of the test's own, and the abort callback.
#include <gtest/gtest.h>

#include "fos/qvefos_abort.h"
#include "fos/qvefos_frame.h"
#include "qve/embedded.h"

namespace {

using qvehost::LogLevel;

int32_t TestGetMetric(qvefet_Context*, qvlnv_NVList*,
                      qvedrmr_MetricResult** resultOut, qveue_Exception**) {
  *resultOut = nullptr;
  return 0;
}
void TestFreeFetchlet(qvefet_Fetchlet* fetchlet);

struct TestFamily {
  static constexpr const char* kLogName = "fetchlets.test";
  static constexpr const char* kGetFetchletTrace =
      "qvetest : Entering function - qvetest_getFetchlet\n";
  static constexpr const char* kFreeFetchletTrace =
      "qvetest : Entering function - qvetest_freeFetchlet\n";
  static constexpr const char* kHandleRefused =
      "Could not allocate memory for Test fetchlet\n";
  static constexpr qvefet_GetMetricFn kGetMetric = TestGetMetric;
  static constexpr qvefet_FreeFetchletFn kFreeFetchlet = TestFreeFetchlet;
};

void TestFreeFetchlet(qvefet_Fetchlet* fetchlet) {
  qvefos::FreeFetchlet<TestFamily>(fetchlet);
}

class FrameTest : public testing::Test {
 protected:
  ~FrameTest() override { qvehost::DeleteContext(context_); }
  qvefet_Context* context_ = qvehost::NewContext();
  qvehost::LogCapture capture_;
};

TEST_F(FrameTest, MakesAndFreesAHandleWithTraceLines) {
  qvefet_Fetchlet* fetchlet = nullptr;
  ASSERT_EQ(qvefos::GetFetchlet<TestFamily>(context_, &fetchlet), 0);
  ASSERT_NE(fetchlet, nullptr);
  EXPECT_EQ(qvefet_getFetchletContext(fetchlet), context_);
  TestFamily::kFreeFetchlet(fetchlet);
  EXPECT_EQ(capture_.Texts(LogLevel::kTrace, "fetchlets.test"),
            (std::vector<std::string>{TestFamily::kGetFetchletTrace,
                                      TestFamily::kFreeFetchletTrace}));
  EXPECT_TRUE(capture_.Texts(LogLevel::kError).empty());
}

TEST_F(FrameTest, RefusedHandleGivesMinusOneErrorLineAndNullSlot) {
  qvehost::RefuseNewFetchlet(true);
  auto* sentinel = reinterpret_cast<qvefet_Fetchlet*>(&capture_);
  qvefet_Fetchlet* fetchlet = sentinel;
  EXPECT_EQ(qvefos::GetFetchlet<TestFamily>(context_, &fetchlet), -1);
  EXPECT_EQ(fetchlet, nullptr);
  EXPECT_EQ(capture_.Texts(LogLevel::kError, "fetchlets.test"),
            std::vector<std::string>{TestFamily::kHandleRefused});
}

struct AbortCase {
  const char* name;
  const char* requestId;
  bool withCell;
  int32_t cellAfter;
  std::vector<std::string> debugLines;
};

class AbortCallbackTest : public FrameTest,
                          public testing::WithParamInterface<AbortCase> {};

TEST_P(AbortCallbackTest, StoresOneOnlyWithARequestIdentifier) {
  const AbortCase& c = GetParam();
  int32_t cell = 0;
  EXPECT_EQ(qvefos_abortFetchlet(context_, c.requestId,
                                 c.withCell ? &cell : nullptr),
            1);
  EXPECT_EQ(cell, c.cellAfter);
  // Always the OS family's log, with no line feed after the trace.
  EXPECT_EQ(capture_.Texts(LogLevel::kTrace, "fetchlets.os"),
            std::vector<std::string>{
                "qvefos : Entering function - qvefos_abortFetchlet"});
  EXPECT_EQ(capture_.Texts(LogLevel::kDebug, "fetchlets.os"), c.debugLines);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, AbortCallbackTest,
    testing::Values(
        AbortCase{"IdAndCell", "req-7", true, 1, {"Aborting request req-7"}},
        AbortCase{"IdWithoutCell", "req-7", false, 0,
                  {"Aborting request req-7"}},
        AbortCase{"NoIdLeavesCell", nullptr, true, 0, {}}),
    [](const testing::TestParamInfo<AbortCase>& param) {
      return std::string(param.param.name);
    });

}  // namespace
