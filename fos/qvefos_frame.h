// The creation and release of fetchlet handles, the same for every family:
// each family names its log, its trace lines, its failure message and its
// two functions, and instantiates the frame once.
#ifndef QVE_FOS_QVEFOS_FRAME_H_
#define QVE_FOS_QVEFOS_FRAME_H_

#include <concepts>
#include <cstdint>

#include "qve/host.h"

namespace qvefos {

template <typename F>
concept FetchletFamily = requires {
  { F::kLogName } -> std::convertible_to<const char*>;
  { F::kGetFetchletTrace } -> std::convertible_to<const char*>;
  { F::kFreeFetchletTrace } -> std::convertible_to<const char*>;
  { F::kHandleRefused } -> std::convertible_to<const char*>;
  { F::kGetMetric } -> std::convertible_to<qvefet_GetMetricFn>;
  { F::kFreeFetchlet } -> std::convertible_to<qvefet_FreeFetchletFn>;
};

inline qveulm_LogCtx* FamilyLog(qvefet_Context* fetchletContext,
                                const char* logName) {
  return qveulm_getLogCtx(fetchletContext->logSource, logName);
}

// The slot receives the handle, or null when the host refuses to make one.
template <FetchletFamily F>
int32_t GetFetchlet(qvefet_Context* fetchletContext,
                    qvefet_Fetchlet** fetchletOut) {
  qveulm_LogCtx* log = FamilyLog(fetchletContext, F::kLogName);
  qve_devtrc(log, F::kGetFetchletTrace);
  qvefet_Fetchlet* fetchlet =
      qvefet_newFetchlet(F::kGetMetric, fetchletContext, F::kFreeFetchlet);
  int32_t status = 0;
  if (fetchlet == nullptr) {
    qve_error(log, "%s", F::kHandleRefused);
    status = -1;
  }
  if (fetchletOut != nullptr) *fetchletOut = fetchlet;
  return status;
}

template <FetchletFamily F>
void FreeFetchlet(qvefet_Fetchlet* fetchlet) {
  qveulm_LogCtx* log =
      FamilyLog(qvefet_getFetchletContext(fetchlet), F::kLogName);
  qve_devtrc(log, F::kFreeFetchletTrace);
  qvefet_freeFetchlet(fetchlet);
}

}  // namespace qvefos

#endif  // QVE_FOS_QVEFOS_FRAME_H_
