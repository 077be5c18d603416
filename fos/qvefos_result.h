// Release of a result the plug-in made but could not fill. An agent's host
// need not offer a release for results, so the plug-in references it weakly;
// without it, that empty result is lost on this rare path.
#ifndef QVE_FOS_QVEFOS_RESULT_H_
#define QVE_FOS_QVEFOS_RESULT_H_

#include "qve/host.h"

extern "C" void qvedrmr_MetricResult_delete(qvedrmr_MetricResult* result)
    __attribute__((weak));

namespace qvefos {

inline void ReleaseUnhandedResult(qvedrmr_MetricResult* result) {
  if (result != nullptr && qvedrmr_MetricResult_delete != nullptr) {
    qvedrmr_MetricResult_delete(result);
  }
}

}  // namespace qvefos

#endif  // QVE_FOS_QVEFOS_RESULT_H_
