// The OSLineToken fetchlet: the command's output as a table of fields.
#include "fos/qvefos_flags.h"
#include "foslt/qvefoslt_os_line_token.h"

#include "fos/qvefos_driver.h"
#include "fos/qvefos_frame.h"
#include "foslt/qvefoslt_parse.h"

namespace qvefoslt {
namespace {

constexpr const char* kSeparateErrorStream = "separateErrorStream";

struct OsLineTokenFamily {
  static constexpr const char* kLogName = "fetchlets.oslinetok";
  static constexpr const char* kGetFetchletTrace =
      "qvefoslt : Entering function - qvefoslt_getFetchlet\n";
  static constexpr const char* kFreeFetchletTrace =
      "qvefoslt : Entering function - qvefoslt_freeFetchlet\n";
  static constexpr const char* kHandleRefused =
      "Could not allocate memory for OSLineToken fetchlet\n";
  static constexpr qvefet_GetMetricFn kGetMetric = qvefoslt_getMetric;
  static constexpr qvefet_FreeFetchletFn kFreeFetchlet = qvefoslt_freeFetchlet;
};

constexpr TableFetchlet kOsLineToken{
    OsLineTokenFamily::kLogName,
    "qvefoslt : Entering function - qvefoslt_getMetric\n",
    "cannot create OSLineToken fetchlet result object", 1,
    qvefos::kFosltMemory};

}  // namespace

int32_t GetTableMetric(const TableFetchlet& fetchlet,
                       qvefet_Context* fetchletContext,
                       qvlnv_NVList* properties,
                       qvedrmr_MetricResult** resultOut,
                       qveue_Exception** exceptionOut) {
  qveulm_LogCtx* log = qvefos::FamilyLog(fetchletContext, fetchlet.logName);
  qve_devtrc(log, fetchlet.getMetricTrace);
  const bool separate =
      qvefos::PropertyIsTrue(properties, kSeparateErrorStream);
  char* out = nullptr;
  char* err = nullptr;
  qveue_Exception* exception = nullptr;
  if (qvefos_getLocalMetric(fetchletContext, properties, separate ? 1 : 0, &out,
                            &err, &exception, log) != 0) {
    qveue_propogateException(exceptionOut, exception);
    *resultOut = nullptr;
    return -1;
  }
  qvedrmr_MetricResult* result =
      qvefoslt_getFromString(out, err, properties, log, fetchlet.tokenize);
  int32_t status = 0;
  if (result == nullptr) {
    status = -1;
    if (exceptionOut != nullptr) {
      *exceptionOut =
          qveue_Exception_new_init(QVE_EXC_NO_RESULT, fetchlet.resultRefused);
    }
  }
  if (out != nullptr) fetchlet.memory.Free(out);
  if (err != nullptr) fetchlet.memory.Free(err);
  *resultOut = result;
  return status;
}

}  // namespace qvefoslt

QVEFOS_EXPORT int32_t qvefoslt_getFetchlet(qvefet_Context* fetchletContext,
                                           qvefet_Fetchlet** fetchletOut) {
  return qvefos::GetFetchlet<qvefoslt::OsLineTokenFamily>(fetchletContext,
                                                          fetchletOut);
}

QVEFOS_EXPORT void qvefoslt_freeFetchlet(qvefet_Fetchlet* fetchlet) {
  qvefos::FreeFetchlet<qvefoslt::OsLineTokenFamily>(fetchlet);
}

QVEFOS_EXPORT int32_t qvefoslt_getMetric(qvefet_Context* fetchletContext,
                                         qvlnv_NVList* properties,
                                         qvedrmr_MetricResult** resultOut,
                                         qveue_Exception** exceptionOut) {
  return qvefoslt::GetTableMetric(qvefoslt::kOsLineToken, fetchletContext,
                                  properties, resultOut, exceptionOut);
}
