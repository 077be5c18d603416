// Exceptions and their hand-over to a caller's slot.
#include <gtest/gtest.h>

#include "qve/embedded.h"
#include "qve/host.h"

namespace {

TEST(ExceptionTest, KeepsKindAndItsOwnCopyOfTheMessage) {
  char message[] = "first";
  qveue_Exception* exception = qveue_Exception_new_init(QVE_EXC_RUN_FAILED, message);
  message[0] = 'X';
  EXPECT_STREQ(qveue_Exception_getErrorMessage(exception), "first");
  EXPECT_EQ(qveue_Exception_getKind(exception), QVE_EXC_RUN_FAILED);
  qveue_Exception_setErrorMessage(exception, "second");
  EXPECT_STREQ(qveue_Exception_getErrorMessage(exception), "second");
  qveue_Exception_delete(exception);
}

struct PropagateCase {
  const char* name;
  bool with_slot;
  bool with_exception;
};

class PropagateTest : public testing::TestWithParam<PropagateCase> {};

// The ledger check after the test proves the exception is released when no
// slot takes it.
TEST_P(PropagateTest, SlotTakesWhatItIsGivenElseTheExceptionIsReleased) {
  const PropagateCase& c = GetParam();
  qveue_Exception* exception =
      c.with_exception ? qveue_Exception_new_init(QVE_EXC_TIMEOUT, "t") : nullptr;
  auto* stale = reinterpret_cast<qveue_Exception*>(0x1);
  qveue_Exception* slot = stale;
  qveue_propogateException(c.with_slot ? &slot : nullptr, exception);
  if (c.with_slot) {
    EXPECT_EQ(slot, exception);
    qveue_Exception_delete(slot);
  } else {
    EXPECT_EQ(slot, stale);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, PropagateTest,
    testing::Values(PropagateCase{"SlotAndException", true, true},
                    PropagateCase{"SlotAndNull", true, false},
                    PropagateCase{"NoSlot", false, true},
                    PropagateCase{"NoSlotAndNull", false, false}),
    [](const auto& p) { return std::string(p.param.name); });

}  // namespace
