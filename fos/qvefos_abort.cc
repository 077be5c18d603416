#include "fos/qvefos_abort.h"

#include "fos/qvefos_frame.h"

namespace {

constexpr const char* kOsLogName = "fetchlets.os";
// The one entry trace without a line feed.
constexpr const char* kAbortTrace =
    "qvefos : Entering function - qvefos_abortFetchlet";
constexpr const char* kAborting = "Aborting request %s";

}  // namespace

int32_t qvefos_abortFetchlet(qvefet_Context* fetchletContext,
                             const char* requestId, void* abortCell) {
  // Always the OS family's log, whichever family's run is aborted.
  qveulm_LogCtx* log = qvefos::FamilyLog(fetchletContext, kOsLogName);
  qve_devtrc(log, kAbortTrace);
  if (requestId != nullptr) {
    qve_debug(log, kAborting, requestId);
    if (abortCell != nullptr) {
      qvefos::MarkAborted(static_cast<int32_t*>(abortCell));
    }
  }
  return 1;
}
