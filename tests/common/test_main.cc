#include <gtest/gtest.h>

#include "common/ledger_check.h"
#include "qve/embedded.h"

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  qvehost::SetLogLevel(qvehost::LogLevel::kOff);
  qvetest::InstallLedgerCheck();
  return RUN_ALL_TESTS();
}
