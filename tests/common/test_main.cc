// The main function of every test binary: the host log off, and a listener
// that fails any test leaving a live block in the host's ledger (every
// module), printing where each block was made, and resets the host's fault
// switches after every test.
#include <gtest/gtest.h>

#include "qve/embedded.h"

namespace {

class LedgerCheck : public testing::EmptyTestEventListener {
  void OnTestEnd(const testing::TestInfo& info) override {
    qvehost::ResetFaults();
    if (qvehost::LiveBlocks().empty()) return;
    ADD_FAILURE_AT(info.file(), info.line())
        << "blocks left live in the ledger:\n"
        << qvehost::DescribeLiveBlocks();
    // Leaks are reported once; the next test starts clean of this report.
  }
};

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  qvehost::SetLogLevel(qvehost::LogLevel::kOff);
  testing::UnitTest::GetInstance()->listeners().Append(new LedgerCheck);
  return RUN_ALL_TESTS();
}
