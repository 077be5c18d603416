// Test support shared by every test binary.
#ifndef QVE_TESTS_COMMON_LEDGER_CHECK_H_
#define QVE_TESTS_COMMON_LEDGER_CHECK_H_

namespace qvetest {

// Installs the listener that fails any test leaving a live block in the
// host's ledger (every module), printing where each block was made, and
// resets the host's fault switches after every test.
void InstallLedgerCheck();

}  // namespace qvetest

#endif  // QVE_TESTS_COMMON_LEDGER_CHECK_H_
