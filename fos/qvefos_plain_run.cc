// The plain runner: the run algorithm over the host's plain process family.
#include "fos/qvefos_run_impl.h"

namespace qvefos {
namespace {

constexpr const char* kNotFound = ": not found";
constexpr const char* kNoPermission = ": no execute permission";
constexpr const char* kProcessLimit = "Process Limit exceed";
constexpr const char* kNotRun = "Unable to run the process";

struct PlainProcess {
  using Process = sqvejcp_Process;
  static constexpr const char* kEntryTrace =
      "qvefos : Entering function - qvefos_executeCommand\n";
  static constexpr const char* kCreateFailed =
      "Unable to create sqvejcp Process object";
  static constexpr bool kReplacesProgramPath = true;
  static constexpr bool kRegistersAbortFirst = false;
  // Input is written whatever the start gave, so a write failure is what
  // the caller hears of first.
  static constexpr bool kFeedsStdinBeforeJudgingStart = true;
  static constexpr bool kHasLauncherText = false;
  static constexpr bool kWaitsAfterKill = false;

  static Process* Create(const RunRequest& r, int32_t argc, int32_t envc) {
    return sqvejcp_Process_new_argv_envp(r.fetchletContext, r.argv, argc,
                                         r.envp, envc);
  }
  static int32_t Start(Process* p) {
    return sqvejcp_Process_run_need_pipes(p, QVE_STREAM_ALL);
  }
  static StartFailure JudgeStart(int32_t start) {
    switch (start) {
      case QVE_NOT_FOUND:
        return {QVE_EXC_RUN_FAILED, kNotFound, true};
      case QVE_NO_PERMISSION:
        return {QVE_EXC_RUN_FAILED, kNoPermission, true};
      case QVE_PROCESS_LIMIT:
        return {QVE_EXC_PROCESS_LIMIT, kProcessLimit, false};
      default:
        return {QVE_EXC_RUN_FAILED, kNotRun, false};
    }
  }
  static int32_t StdinWrite(Process* p, const char* data, uint32_t length) {
    return sqvejcp_Process_stdin_write(p, data, length);
  }
  static void StdinClose(Process* p) { sqvejcp_Process_stdin_close(p); }
  static int32_t StdoutRead(Process* p, char* buffer, int32_t maximum) {
    return sqvejcp_Process_stdout_read(p, buffer, maximum);
  }
  static int32_t StderrRead(Process* p, char* buffer, int32_t maximum) {
    return sqvejcp_Process_stderr_read(p, buffer, maximum);
  }
  static void StdoutClose(Process* p) { sqvejcp_Process_stdout_close(p); }
  static void StderrClose(Process* p) { sqvejcp_Process_stderr_close(p); }
  static int32_t AddToMux(sqvejcx_IOMuxor* mux, Process* p, int32_t mask) {
    return sqvejcx_IOMuxor_addProcess(mux, p, mask);
  }
  static void RemoveFromMux(sqvejcx_IOMuxor* mux, Process* p, int32_t kind) {
    sqvejcx_IOMuxor_removeProcess(mux, p, kind);
  }
  static void Wait(Process* p) { sqvejcp_Process_blocking_wait(p); }
  static void Kill(Process* p) { sqvejcp_Process_kill(p); }
  static void GetExitValue(Process* p, int32_t* slot) {
    sqvejcp_Process_getExitValue(p, slot);
  }
  static void Delete(Process* p) { sqvejcp_Process_delete(p); }
};

static_assert(ProcessKind<PlainProcess>);

}  // namespace
}  // namespace qvefos

int32_t qvefos_executeCommand(qvefet_Context* fetchletContext, char** argv,
                              char** envp, const char* stdinText,
                              int32_t timeoutSeconds, const char* requestId,
                              int32_t separateErrorStream, char** stdoutOut,
                              char** stderrOut, qveue_Exception** exceptionOut,
                              qveulm_LogCtx* log) {
  const qvefos::RunRequest request{
      fetchletContext, argv,    envp,      stdinText, timeoutSeconds,
      requestId,       separateErrorStream, nullptr, nullptr,
      stdoutOut,       stderrOut, exceptionOut, log};
  return qvefos::Run<qvefos::PlainProcess>(request).Execute();
}
