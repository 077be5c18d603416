// The local metric driver: assemble the request, run it with the chosen
// runner, convert the output, hand back the texts or the exception.
#include "fos/qvefos_driver.h"

#include <cstring>

#include "fos/qvefos_convert.h"
#include "fos/qvefos_environment.h"
#include "fos/qvefos_export.h"
#include "fos/qvefos_memory.h"
#include "fos/qvefos_request.h"
#include "fos/qvefos_runner.h"

namespace {

using qvefos::kFosMemory;

constexpr const char* kEntryTrace =
    "qvefos : Entering function - qvefos_getLocalMetric\n";
constexpr const char* kRequestIsNull = "Request for fetchlet is NULL";

// Everything one evaluation builds, released once in the order the driver
// fixes, whatever path the call took.
class Evaluation {
 public:
  Evaluation(qvefet_Context* fetchletContext, qvlnv_NVList* properties,
             qveulm_LogCtx* log)
      : context_(fetchletContext),
        language_(fetchletContext->langHandle),
        properties_(properties),
        log_(log),
        osId_(qveulx_get_OS_LangID(language_)),
        utf8Id_(qveulx_get_UTF8_LangID(language_)) {}
  Evaluation(const Evaluation&) = delete;
  Evaluation& operator=(const Evaluation&) = delete;

  ~Evaluation() {
    if (stdinText_ != nullptr) kFosMemory.Free(stdinText_);
    if (commandLine_ != nullptr) kFosMemory.Free(commandLine_);
    qvefos_freeArguments(argv_);
    if (stdinBuffer_ != nullptr) qveusb_StringBuffer_delete(stdinBuffer_);
    qvefos_freeEnvironment(&envp_);
  }

  int32_t Evaluate(int32_t separateErrorStream, char** stdoutOut,
                   char** stderrOut, qveue_Exception** exceptionOut) {
    if (qvefos::BuildCommandLine(properties_, log_, &commandLine_,
                                 exceptionOut) != 0 ||
        !ToOsCharset(&commandLine_)) {
      return -1;
    }
    argv_ = qvefos_splitArguments(commandLine_, &exception_);
    if (argv_ == nullptr) {
      qveue_propogateException(exceptionOut, exception_);
      return -1;
    }
    envp_ = qvefos_buildEnvironment(properties_);
    stdinBuffer_ = qvefos_getStdinParameters(properties_, log_);
    const int32_t timeoutSeconds = qvefos::ReadTimeoutSeconds(properties_);
    if (stdinBuffer_ != nullptr) {
      stdinText_ = qveusb_StringBuffer_toString(stdinBuffer_);
      if (!ToOsCharset(&stdinText_)) return -1;
    }
    const char* requestId = qvefos::ReadRequestId(properties_, log_);
    const qvefos::RunnerChoice choice = qvefos::ChooseRunner(properties_, log_);
    if (choice.runner == qvefos::Runner::kMissingCredentials) return -1;
    const int32_t status =
        choice.runner == qvefos::Runner::kPlain
            ? qvefos_executeCommand(context_, argv_, envp_, stdinText_,
                                    timeoutSeconds, requestId,
                                    separateErrorStream, stdoutOut, stderrOut,
                                    &exception_, log_)
            : qvefos_executeSecureCommand(
                  context_, argv_, envp_, stdinText_, timeoutSeconds,
                  requestId, separateErrorStream, choice.username,
                  choice.password, stdoutOut, stderrOut, &exception_, log_);
    qvefos_convertOutputToUTF8(context_, properties_, stdoutOut, stderrOut,
                               exception_, log_);
    if (status != 0) qveue_propogateException(exceptionOut, exception_);
    return status;
  }

 private:
  // Replaces *text with its conversion from UTF-8 to the operating system's
  // set; on failure *text stays for the release and no exception is made.
  bool ToOsCharset(char** text) {
    if (*text == nullptr) return false;
    char* converted = nullptr;
    if (qveulx_Convert_CharsetID(language_, utf8Id_, *text, osId_,
                                 &converted) != 0) {
      if (converted != nullptr) kFosMemory.Free(converted);
      return false;
    }
    kFosMemory.Free(*text);
    *text = converted;
    return true;
  }

  qvefet_Context* context_;
  qveulx_LangHandle* language_;
  qvlnv_NVList* properties_;
  qveulm_LogCtx* log_;
  int32_t osId_;
  int32_t utf8Id_;
  qveue_Exception* exception_ = nullptr;
  char* commandLine_ = nullptr;
  char** argv_ = nullptr;
  char** envp_ = nullptr;
  qveusb_StringBuffer* stdinBuffer_ = nullptr;
  char* stdinText_ = nullptr;
};

}  // namespace

QVEFOS_EXPORT int32_t qvefos_getLocalMetric(
    qvefet_Context* fetchletContext, qvlnv_NVList* properties,
    int32_t separateErrorStream, char** stdoutOut, char** stderrOut,
    qveue_Exception** exceptionOut, qveulm_LogCtx* log) {
  Evaluation evaluation(fetchletContext, properties, log);
  qve_devtrc(log, kEntryTrace);
  if (properties == nullptr) {
    if (exceptionOut != nullptr) {
      *exceptionOut = qveue_Exception_new_init(QVE_EXC_BAD_REQUEST,
                                               kRequestIsNull);
    }
    return -1;
  }
  return evaluation.Evaluate(separateErrorStream, stdoutOut, stderrOut,
                             exceptionOut);
}
