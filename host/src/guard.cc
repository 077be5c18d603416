#include "guard.h"

#include <cstdio>
#include <exception>

#include "qve/host.h"

namespace qvehost::internal {

void ReportEscaped(const char* operation) noexcept {
  // The log may be what failed; a failure while reporting is not reported.
  thread_local bool reporting = false;
  if (reporting) return;
  reporting = true;
  const char* what = "unknown exception";
  try {
    throw;
  } catch (const std::exception& e) {
    what = e.what();
  } catch (...) {
  }
  qve_error(qveulm_getLogCtx(nullptr, "qvehost"), "%s failed: %s", operation,
            what);
  reporting = false;
}

}  // namespace qvehost::internal
