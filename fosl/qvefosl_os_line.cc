// The OSLine fetchlet: the command's output as one row per line; the token
// fetchlet's sequence in line mode.
#include "fosl/qvefosl_os_line.h"

#include "fos/qvefos_frame.h"
#include "fos/qvefos_memory.h"
#include "foslt/qvefoslt_os_line_token.h"

namespace qvefosl {
namespace {

struct OsLineFamily {
  static constexpr const char* kLogName = "fetchlets.osline";
  static constexpr const char* kGetFetchletTrace =
      "qvefosl : Entering function - qvefosl_getFetchlet\n";
  static constexpr const char* kFreeFetchletTrace =
      "qvefosl : Entering function - qvefosl_freeFetchlet\n";
  static constexpr const char* kHandleRefused =
      "Could not allocate memory for OSLine fetchlet\n";
  static constexpr qvefet_GetMetricFn kGetMetric = qvefosl_getMetric;
  static constexpr qvefet_FreeFetchletFn kFreeFetchlet = qvefosl_freeFetchlet;
};

constexpr qvefoslt::TableFetchlet kOsLine{
    OsLineFamily::kLogName, "qvefosl : Entering function - qvefosl_getMetric\n",
    "cannot create OSLine fetchlet result object", 0, qvefos::kFoslMemory};

}  // namespace
}  // namespace qvefosl

QVEFOS_EXPORT int32_t qvefosl_getFetchlet(qvefet_Context* fetchletContext,
                                          qvefet_Fetchlet** fetchletOut) {
  return qvefos::GetFetchlet<qvefosl::OsLineFamily>(fetchletContext,
                                                    fetchletOut);
}

QVEFOS_EXPORT void qvefosl_freeFetchlet(qvefet_Fetchlet* fetchlet) {
  qvefos::FreeFetchlet<qvefosl::OsLineFamily>(fetchlet);
}

QVEFOS_EXPORT int32_t qvefosl_getMetric(qvefet_Context* fetchletContext,
                                        qvlnv_NVList* properties,
                                        qvedrmr_MetricResult** resultOut,
                                        qveue_Exception** exceptionOut) {
  return qvefoslt::GetTableMetric(qvefosl::kOsLine, fetchletContext, properties,
                                  resultOut, exceptionOut);
}
