// The UDM fetchlet: check the request, run the script under the user's
// credentials, convert its output, read the tagged lines into the result.
#include "fos/qvefos_flags.h"
#include "fosud/qvefosud_metric.h"

#include <cstring>

#include "fos/qvefos_convert.h"
#include "fos/qvefos_environment.h"
#include "fos/qvefos_frame.h"
#include "fos/qvefos_memory.h"
#include "fos/qvefos_request.h"
#include "fos/qvefos_runner.h"
#include "fosud/qvefosud_protocol.h"

namespace qvefosud {
namespace {

using qvefos::kFosudMemory;

constexpr char kLogName[] = "fetchlets.UDM";
constexpr char kGetMetricTrace[] =
    "qvefosud : Entering function - qvefosud_getMetric\n";
constexpr char kGetUDMetricTrace[] =
    "qvefosud : Entering function - qvefosud_getUDMetric\n";

constexpr char kRequestIsNull[] = "Request for fetchlet is NULL";
constexpr char kRequiredMissing[] =
    "Command, command ID, username, password for UDM fetchlet cannot be NULL";
constexpr char kNoCommand[] = "No Command to execute";
constexpr char kNoMemoryLog[] = "Memory could not be allocated\n";
constexpr char kNoMemory[] = "Unable to allocate memory";

struct UdmFamily {
  static constexpr const char* kLogName = qvefosud::kLogName;
  static constexpr const char* kGetFetchletTrace =
      "qvefosud : Entering function - qvefosud_getFetchlet\n";
  static constexpr const char* kFreeFetchletTrace =
      "qvefosud : Entering function - qvefosud_freeFetchlet\n";
  static constexpr const char* kHandleRefused =
      "Could not allocate memory for UDM fetchlet\n";
  static constexpr qvefet_GetMetricFn kGetMetric = qvefosud_getMetric;
  static constexpr qvefet_FreeFetchletFn kFreeFetchlet = qvefosud_freeFetchlet;
};

bool IsEmpty(const char* value) { return value == nullptr || *value == '\0'; }

// The values a UDM cannot run without, borrowed from the property list.
struct Required {
  const char* command;
  const char* username;
  const char* password;
  const char* id;
};

// Everything the first phase makes, released once when it ends, in the
// order the phase fixes.
class UdmRun {
 public:
  UdmRun(qvefet_Context* fetchletContext, qvlnv_NVList* properties,
         qveue_Exception** exceptionOut, qveulm_LogCtx* log)
      : context_(fetchletContext),
        properties_(properties),
        exceptionOut_(exceptionOut),
        log_(log) {}
  UdmRun(const UdmRun&) = delete;
  UdmRun& operator=(const UdmRun&) = delete;
  ~UdmRun() {
    qvefos_freeArguments(argv_);
    if (commandLine_ != nullptr) kFosudMemory.Free(commandLine_);
    if (runtime_ != nullptr) qvedcpdpr_PDPRuntime_delete(runtime_);
    qvefos_freeEnvironment(&envp_);
  }

  int32_t Execute(char** stdoutOut, char** stderrOut) {
    if (properties_ == nullptr) return Refuse(kRequestIsNull);
    const Required required{Value("command"), Value("username"),
                            Value("password"), Value("ID")};
    if (IsEmpty(required.command) || IsEmpty(required.username) ||
        IsEmpty(required.password) || IsEmpty(required.id)) {
      return Refuse(kRequiredMissing);
    }
    const char* args = Value("args");
    envp_ = qvefos_buildEnvironment(properties_);
    const int32_t separateErrorStream =
        qvefos::IsTrue(Value("separateErrorStream")) ? 1 : 0;
    if (!AssembleCommandLine(required.command, args) || !Split()) return -1;
    const int32_t timeoutSeconds = qvefos::ReadTimeoutSeconds(properties_);
    const char* requestId = qvefos::ReadRequestId(properties_, log_);
    // Made for the host to see the request, never read here; a host that
    // refuses one does not stop the run.
    runtime_ = qvedcpdpr_getPDPRuntimeFromNVPairs(context_, properties_);
    const int32_t status = qvefos_executeSecureCommand(
        context_, argv_, envp_, nullptr, timeoutSeconds, requestId,
        separateErrorStream, required.username, required.password, stdoutOut,
        stderrOut, exceptionOut_, log_);
    qvefos_convertOutputToUTF8(
        context_, properties_, stdoutOut, stderrOut,
        exceptionOut_ != nullptr ? *exceptionOut_ : nullptr, log_);
    return status;
  }

 private:
  const char* Value(const char* name) const {
    return qvlnvlgv_getValue(properties_, name);
  }

  int32_t Refuse(const char* message) {
    if (exceptionOut_ != nullptr) {
      *exceptionOut_ = qveue_Exception_new_init(QVE_EXC_BAD_REQUEST, message);
    }
    return -1;
  }

  // The command, one blank, the arguments: neither trimmed nor converted.
  bool AssembleCommandLine(const char* command, const char* args) {
    const size_t argsLength = args != nullptr ? std::strlen(args) : 0;
    const size_t size = std::strlen(command) + argsLength + 4;
    commandLine_ = kFosudMemory.AllocArray<char>(size);
    if (commandLine_ == nullptr) {
      qve_error(log_, "%s", kNoMemoryLog);
      if (exceptionOut_ != nullptr) {
        *exceptionOut_ =
            qveue_Exception_new_init(QVE_EXC_RUN_FAILED, kNoMemory);
      }
      return false;
    }
    qveustr_strncpy(commandLine_, command, size);
    std::strncat(commandLine_, " ", size - std::strlen(commandLine_));
    if (args != nullptr) std::strncat(commandLine_, args, argsLength);
    return true;
  }

  // A splitter that failed has left its own exception (mismatched quotes)
  // only when it was given a slot.
  bool Split() {
    argv_ = qvefos_splitArguments(commandLine_, exceptionOut_);
    if (argv_ != nullptr) return true;
    if (exceptionOut_ != nullptr && *exceptionOut_ != nullptr) {
      qve_error(log_, "%s", qveue_Exception_getErrorMessage(*exceptionOut_));
      return false;
    }
    if (exceptionOut_ != nullptr) {
      *exceptionOut_ =
          qveue_Exception_new_init(QVE_EXC_BAD_REQUEST, kNoCommand);
    }
    qve_error(log_, "%s", kNoCommand);
    return false;
  }

  qvefet_Context* const context_;
  qvlnv_NVList* const properties_;
  qveue_Exception** const exceptionOut_;
  qveulm_LogCtx* const log_;
  char** argv_ = nullptr;
  char* commandLine_ = nullptr;
  qvedcpdpr_PDPRuntime* runtime_ = nullptr;
  char** envp_ = nullptr;
};

}  // namespace
}  // namespace qvefosud

int32_t qvefosud_getUDMetric(qvefet_Context* fetchletContext,
                             qvlnv_NVList* properties, char** stdoutOut,
                             char** stderrOut, qveue_Exception** exceptionOut,
                             qveulm_LogCtx* log) {
  qve_devtrc(log, qvefosud::kGetUDMetricTrace);
  qvefosud::UdmRun run(fetchletContext, properties, exceptionOut, log);
  return run.Execute(stdoutOut, stderrOut);
}

QVEFOS_EXPORT int32_t qvefosud_getFetchlet(qvefet_Context* fetchletContext,
                                           qvefet_Fetchlet** fetchletOut) {
  return qvefos::GetFetchlet<qvefosud::UdmFamily>(fetchletContext, fetchletOut);
}

QVEFOS_EXPORT void qvefosud_freeFetchlet(qvefet_Fetchlet* fetchlet) {
  qvefos::FreeFetchlet<qvefosud::UdmFamily>(fetchlet);
}

// The first phase releases its own objects before the result is formed; the
// captured texts go after it.
QVEFOS_EXPORT int32_t qvefosud_getMetric(qvefet_Context* fetchletContext,
                                         qvlnv_NVList* properties,
                                         qvedrmr_MetricResult** resultOut,
                                         qveue_Exception** exceptionOut) {
  using qvefosud::kFosudMemory;
  qveulm_LogCtx* log = qvefos::FamilyLog(fetchletContext, qvefosud::kLogName);
  qve_devtrc(log, qvefosud::kGetMetricTrace);
  char* out = nullptr;
  char* err = nullptr;
  qvedrmr_MetricResult* result = nullptr;
  int32_t status = qvefosud_getUDMetric(fetchletContext, properties, &out, &err,
                                        exceptionOut, log);
  if (status != 0) {
    status = qvefosud_getResultFromFailure(fetchletContext, properties, status,
                                           &result, exceptionOut, log);
  } else {
    status = qvefosud_getResultFromString(properties, out, &result,
                                          exceptionOut, log);
  }
  if (out != nullptr) kFosudMemory.Free(out);
  if (err != nullptr) kFosudMemory.Free(err);
  *resultOut = result;
  return status;
}
