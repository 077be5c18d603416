// The OS fetchlet: the command's whole output as one value row.
#include <cstring>

#include "fos/qvefos_flags.h"
#include "fos/qvefos_driver.h"
#include "fos/qvefos_export.h"
#include "fos/qvefos_frame.h"
#include "fos/qvefos_memory.h"
#include "fos/qvefos_os.h"
#include "fos/qvefos_result.h"

namespace qvefos {
namespace {

constexpr const char* kLogName = "fetchlets.os";
constexpr const char* kGetMetricTrace =
    "qvefos : Entering function - qvefos_getMetric\n";
constexpr const char* kResultRefused = "cannot create OS fetchlet result object";

struct OsFamily {
  static constexpr const char* kLogName = qvefos::kLogName;
  static constexpr const char* kGetFetchletTrace =
      "qvefos : Entering function - qvefos_getFetchlet\n";
  static constexpr const char* kFreeFetchletTrace =
      "qvefos : Entering function - qvefos_freeFetchlet\n";
  static constexpr const char* kHandleRefused =
      "Could not allocate memory for OS fetchlet\n";
  static constexpr qvefet_GetMetricFn kGetMetric = qvefos_getMetric;
  static constexpr qvefet_FreeFetchletFn kFreeFetchlet = qvefos_freeFetchlet;
};

// Standard output, then standard error unless it goes to the warning; the
// empty string when there is neither.
char* JoinedOutput(const char* out, const char* err, bool errToWarning) {
  const char* appended = errToWarning ? nullptr : err;
  const size_t outLength = out != nullptr ? std::strlen(out) : 0;
  const size_t n =
      outLength + (appended != nullptr ? std::strlen(appended) : 0);
  auto* joined = kFosMemory.AllocArray<char>(n + 1);
  if (joined == nullptr) return nullptr;
  if (out != nullptr) qveustr_strncpy(joined, out, n);
  if (appended != nullptr) qveustr_strncpy(joined + outLength, appended, n - outLength);
  return joined;
}

void FillRow(qvedrvr_ValueRow* row, const char* out, const char* err,
             bool separate, bool errToWarning) {
  if (separate) {
    qvedrvr_ValueRow_setStringValue(row, 0, out);
    if (!errToWarning) qvedrvr_ValueRow_setStringValue(row, 1, err);
    return;
  }
  char* joined = JoinedOutput(out, err, errToWarning);
  qvedrvr_ValueRow_setStringValue(row, 0, joined);
  if (joined != nullptr) kFosMemory.Free(joined);
}

}  // namespace
}  // namespace qvefos

QVEFOS_EXPORT int32_t qvefos_getFetchlet(qvefet_Context* fetchletContext,
                                         qvefet_Fetchlet** fetchletOut) {
  return qvefos::GetFetchlet<qvefos::OsFamily>(fetchletContext, fetchletOut);
}

QVEFOS_EXPORT void qvefos_freeFetchlet(qvefet_Fetchlet* fetchlet) {
  qvefos::FreeFetchlet<qvefos::OsFamily>(fetchlet);
}

QVEFOS_EXPORT int32_t qvefos_getMetric(qvefet_Context* fetchletContext,
                                       qvlnv_NVList* properties,
                                       qvedrmr_MetricResult** resultOut,
                                       qveue_Exception** exceptionOut) {
  using namespace qvefos;
  qveulm_LogCtx* log = FamilyLog(fetchletContext, kLogName);
  qve_devtrc(log, kGetMetricTrace);
  const bool separate =
      PropertyIsTrue(properties, "separateErrorStream");
  char* out = nullptr;
  char* err = nullptr;
  qveue_Exception* exception = nullptr;
  *resultOut = nullptr;
  if (qvefos_getLocalMetric(fetchletContext, properties, separate ? 1 : 0,
                            &out, &err, &exception, log) != 0) {
    qveue_propogateException(exceptionOut, exception);
    return -1;
  }
  const bool errToWarning =
      PropertyIsTrue(properties, "useStdErrForWarning");
  qvedrmr_MetricResult* result = qvedrmr_MetricResult_new();
  qvedrvr_ValueRow* row = result != nullptr ? qvedrvr_ValueRow_new() : nullptr;
  int32_t status = 0;
  if (row == nullptr) {
    qvefos::ReleaseUnhandedResult(result);
    if (exceptionOut != nullptr) {
      *exceptionOut = qveue_Exception_new_init(QVE_EXC_NO_RESULT, kResultRefused);
    }
    status = -1;
  } else {
    qvedrmr_MetricResult_addValueRow(result, row);
    FillRow(row, out, err, separate, errToWarning);
    if (errToWarning && err != nullptr) qvedrmr_MetricResult_setWarning(result, err);
    *resultOut = result;
  }
  if (out != nullptr) kFosMemory.Free(out);
  if (err != nullptr) kFosMemory.Free(err);
  return status;
}
