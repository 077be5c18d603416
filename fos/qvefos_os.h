// The OS family's exported entry points.
#ifndef QVE_FOS_QVEFOS_OS_H_
#define QVE_FOS_QVEFOS_OS_H_

#include <cstdint>

#include "fos/qvefos_export.h"
#include "qve/host.h"

QVEFOS_EXPORT int32_t qvefos_getFetchlet(qvefet_Context* fetchletContext,
                                         qvefet_Fetchlet** fetchletOut);
QVEFOS_EXPORT void qvefos_freeFetchlet(qvefet_Fetchlet* fetchlet);
// The command's whole output as one value row: column 0 the standard output
// (with the standard error behind it unless "separateErrorStream" puts it in
// column 1 or "useStdErrForWarning" makes it the warning).
QVEFOS_EXPORT int32_t qvefos_getMetric(qvefet_Context* fetchletContext,
                                       qvlnv_NVList* properties,
                                       qvedrmr_MetricResult** resultOut,
                                       qveue_Exception** exceptionOut);

#endif  // QVE_FOS_QVEFOS_OS_H_
