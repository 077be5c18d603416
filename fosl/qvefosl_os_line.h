// The OSLine family's exported entry points.
#ifndef QVE_FOSL_QVEFOSL_OS_LINE_H_
#define QVE_FOSL_QVEFOSL_OS_LINE_H_

#include <cstdint>

#include "fos/qvefos_export.h"
#include "qve/host.h"

QVEFOS_EXPORT int32_t qvefosl_getFetchlet(qvefet_Context* fetchletContext,
                                          qvefet_Fetchlet** fetchletOut);
QVEFOS_EXPORT void qvefosl_freeFetchlet(qvefet_Fetchlet* fetchlet);
// Runs the command and returns its output as rows of one value: a row per
// kept line (see qvefoslt_getFromString in line mode).
QVEFOS_EXPORT int32_t qvefosl_getMetric(qvefet_Context* fetchletContext,
                                        qvlnv_NVList* properties,
                                        qvedrmr_MetricResult** resultOut,
                                        qveue_Exception** exceptionOut);

#endif  // QVE_FOSL_QVEFOSL_OS_LINE_H_
