// The user-defined metric (UDM) family: a user's script run under that
// user's credentials, its tagged output read as one typed value.
#ifndef QVE_FOSUD_QVEFOSUD_METRIC_H_
#define QVE_FOSUD_QVEFOSUD_METRIC_H_

#include <cstdint>

#include "fos/qvefos_export.h"
#include "qve/host.h"

QVEFOS_EXPORT int32_t qvefosud_getFetchlet(qvefet_Context* fetchletContext,
                                           qvefet_Fetchlet** fetchletOut);
QVEFOS_EXPORT void qvefosud_freeFetchlet(qvefet_Fetchlet* fetchlet);

// Runs "command" (then one blank and "args") as "username" with "password"
// and stores in *resultOut the row (ID, number value, string value,
// message), or null. A failed run gives its status and exception on a
// current server, and a row carrying "scriptErrorValue" on an older one.
// Returns 0, -1, or another non-zero status of the runner.
QVEFOS_EXPORT int32_t qvefosud_getMetric(qvefet_Context* fetchletContext,
                                         qvlnv_NVList* properties,
                                         qvedrmr_MetricResult** resultOut,
                                         qveue_Exception** exceptionOut);

// The first phase: checks the request, runs the script with no standard
// input and converts what it captured. On 0, *stdoutOut and *stderrOut hold
// the converted texts (or null), which the caller frees with qve_free0. On
// failure the slots stay null and *exceptionOut (when exceptionOut is given)
// may hold the exception. Everything else the phase made is released.
int32_t qvefosud_getUDMetric(qvefet_Context* fetchletContext,
                             qvlnv_NVList* properties, char** stdoutOut,
                             char** stderrOut, qveue_Exception** exceptionOut,
                             qveulm_LogCtx* log);

#endif  // QVE_FOSUD_QVEFOSUD_METRIC_H_
