// The authenticated runner: the run algorithm over the host's authenticated
// process family, which starts the command through the launcher.
#include "fos/qvefos_run_impl.h"

namespace qvefos {
namespace {

constexpr const char* kNotRun = "Unable to run the process";

struct AuthenticatedProcess {
  using Process = qvejcap_Process;
  static constexpr const char* kEntryTrace =
      "qvefos : Entering function - qvefos_executeSecureCommand\n";
  static constexpr const char* kCreateFailed =
      "Unable to create qvejcap Process object";
  // The launcher is given argv as it is.
  static constexpr bool kReplacesProgramPath = false;
  static constexpr bool kRegistersAbortFirst = true;
  // Nothing is written to a command that did not start.
  static constexpr bool kFeedsStdinBeforeJudgingStart = false;
  static constexpr bool kHasLauncherText = true;
  // The launcher passes the kill on to the command and must be reaped.
  static constexpr bool kWaitsAfterKill = true;

  static Process* Create(const RunRequest& r, int32_t argc, int32_t envc) {
    return qvejcap_Process_new(r.fetchletContext, r.argv, argc, r.envp, envc,
                               r.separateErrorStream, r.username, r.password,
                               nullptr);
  }
  static int32_t Start(Process* p) { return qvejcap_Process_run(p); }
  // The launcher does not tell why a start failed.
  static StartFailure JudgeStart(int32_t) {
    return {QVE_EXC_RUN_FAILED, kNotRun, false};
  }
  static int32_t StdinWrite(Process* p, const char* data, uint32_t length) {
    return qvejcap_Process_stdin_write(p, data, length);
  }
  static void StdinClose(Process* p) { qvejcap_Process_stdin_close(p); }
  static int32_t StdoutRead(Process* p, char* buffer, int32_t maximum) {
    return qvejcap_Process_stdout_read(p, buffer, maximum);
  }
  static int32_t LauncherTextRead(Process* p, char* buffer) {
    return qvejcap_Process_qvo_stderr_read(p, buffer, 0, 0);
  }
  static int32_t StderrRead(Process* p, char* buffer, int32_t maximum) {
    return qvejcap_Process_command_stderr_read(p, buffer, maximum);
  }
  static void StdoutClose(Process* p) { qvejcap_Process_stdout_close(p); }
  static void StderrClose(Process* p) { qvejcap_Process_stderr_close(p); }
  static int32_t AddToMux(sqvejcx_IOMuxor* mux, Process* p, int32_t mask) {
    return sqvejcx_IOMuxor_addAuthProcess(mux, p, mask);
  }
  static void RemoveFromMux(sqvejcx_IOMuxor* mux, Process* p, int32_t kind) {
    sqvejcx_IOMuxor_removeAuthProcess(mux, p, kind);
  }
  static void Wait(Process* p) { qvejcap_Process_blocking_wait(p); }
  static void Kill(Process* p) { qvejcap_Process_kill(p); }
  static void GetExitValue(Process* p, int32_t* slot) {
    qvejcap_Process_getExitValue(p, slot);
  }
  static void Delete(Process* p) { qvejcap_Process_delete(p); }
};

static_assert(ProcessKind<AuthenticatedProcess>);

}  // namespace
}  // namespace qvefos

int32_t qvefos_executeSecureCommand(
    qvefet_Context* fetchletContext, char** argv, char** envp,
    const char* stdinText, int32_t timeoutSeconds, const char* requestId,
    int32_t separateErrorStream, const char* username, const char* password,
    char** stdoutOut, char** stderrOut, qveue_Exception** exceptionOut,
    qveulm_LogCtx* log) {
  const qvefos::RunRequest request{
      fetchletContext, argv,      envp,      stdinText,    timeoutSeconds,
      requestId,       separateErrorStream,  username,     password,
      stdoutOut,       stderrOut, exceptionOut, log};
  return qvefos::Run<qvefos::AuthenticatedProcess>(request).Execute();
}
