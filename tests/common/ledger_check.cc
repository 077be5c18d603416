#include "common/ledger_check.h"

#include <gtest/gtest.h>

#include "qve/embedded.h"

namespace qvetest {
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

void InstallLedgerCheck() {
  testing::UnitTest::GetInstance()->listeners().Append(new LedgerCheck);
}

}  // namespace qvetest
