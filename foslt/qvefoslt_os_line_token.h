// The OSLineToken family's exported entry points, and the metric sequence it
// shares with the OSLine fetchlet.
#ifndef QVE_FOSLT_QVEFOSLT_OS_LINE_TOKEN_H_
#define QVE_FOSLT_QVEFOSLT_OS_LINE_TOKEN_H_

#include <cstdint>

#include "fos/qvefos_export.h"
#include "fos/qvefos_memory.h"
#include "qve/host.h"

QVEFOS_EXPORT int32_t qvefoslt_getFetchlet(qvefet_Context* fetchletContext,
                                           qvefet_Fetchlet** fetchletOut);
QVEFOS_EXPORT void qvefoslt_freeFetchlet(qvefet_Fetchlet* fetchlet);
// Runs the command and returns its output as a table: a row per kept line, a
// column per field between "delimiter" bytes (see qvefoslt_getFromString).
QVEFOS_EXPORT int32_t qvefoslt_getMetric(qvefet_Context* fetchletContext,
                                         qvlnv_NVList* properties,
                                         qvedrmr_MetricResult** resultOut,
                                         qveue_Exception** exceptionOut);

namespace qvefoslt {

// What tells the line and the token fetchlet apart.
struct TableFetchlet {
  const char* logName;
  const char* getMetricTrace;
  const char* resultRefused;  // message of the kind-10 exception
  uint32_t tokenize;
  const qvefos::ModuleMemory& memory;  // releases the captured texts
};

// Runs the command through the local metric driver and parses its standard
// output. 0 with the result in *resultOut; -1 with null there and, when
// exceptionOut is not null, the driver's exception or a kind-10 one when the
// host refused the result object.
int32_t GetTableMetric(const TableFetchlet& fetchlet,
                       qvefet_Context* fetchletContext,
                       qvlnv_NVList* properties,
                       qvedrmr_MetricResult** resultOut,
                       qveue_Exception** exceptionOut);

}  // namespace qvefoslt

#endif  // QVE_FOSLT_QVEFOSLT_OS_LINE_TOKEN_H_
