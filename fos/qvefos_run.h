// The one run algorithm behind both runners, over a process kind that names
// the host calls of its process family and the few points where the two
// kinds differ.
#ifndef QVE_FOS_QVEFOS_RUN_H_
#define QVE_FOS_QVEFOS_RUN_H_

#include <concepts>
#include <cstdint>
#include <cstring>

#include "qve/host.h"

namespace qvefos {

// The parameters of one run, as the runners receive them.
struct RunRequest {
  qvefet_Context* fetchletContext;
  char** argv;
  char** envp;
  const char* stdinText;
  int32_t timeoutSeconds;
  const char* requestId;
  int32_t separateErrorStream;
  const char* username;  // authenticated kind only
  const char* password;  // authenticated kind only
  char** stdoutOut;
  char** stderrOut;
  qveue_Exception** exceptionOut;
  qveulm_LogCtx* log;
};

// How a start result that is not 0 fails the run.
struct StartFailure {
  int32_t kind;
  const char* text;
  bool afterProgram;  // the text follows argv[0]
};

template <typename K>
concept ProcessKind = requires(typename K::Process* p, const RunRequest& r,
                               char* buffer, const char* data, int32_t n,
                               uint32_t length, int32_t* slot,
                               sqvejcx_IOMuxor* mux) {
  { K::kEntryTrace } -> std::convertible_to<const char*>;
  { K::kCreateFailed } -> std::convertible_to<const char*>;
  { K::kReplacesProgramPath } -> std::convertible_to<bool>;
  { K::kRegistersAbortFirst } -> std::convertible_to<bool>;
  { K::kFeedsStdinBeforeJudgingStart } -> std::convertible_to<bool>;
  { K::kHasLauncherText } -> std::convertible_to<bool>;
  { K::kWaitsAfterKill } -> std::convertible_to<bool>;
  { K::Create(r, n, n) } -> std::same_as<typename K::Process*>;
  { K::Start(p) } -> std::same_as<int32_t>;
  { K::JudgeStart(n) } -> std::same_as<StartFailure>;
  { K::StdinWrite(p, data, length) } -> std::same_as<int32_t>;
  K::StdinClose(p);
  { K::StdoutRead(p, buffer, n) } -> std::same_as<int32_t>;
  { K::StderrRead(p, buffer, n) } -> std::same_as<int32_t>;
  K::StdoutClose(p);
  K::StderrClose(p);
  { K::AddToMux(mux, p, n) } -> std::same_as<int32_t>;
  K::RemoveFromMux(mux, p, n);
  K::Wait(p);
  K::Kill(p);
  K::GetExitValue(p, slot);
  K::Delete(p);
} && (!K::kHasLauncherText || requires(typename K::Process* p, char* buffer) {
  // buffer holds QVE_LAUNCHER_TEXT_BUFFER bytes
  { K::LauncherTextRead(p, buffer) } -> std::same_as<int32_t>;
});

inline constexpr const char* kWriteStdinTrace =
    "qvefos : Entering function - qvefos_writeStdinToCommand\n";
inline constexpr const char* kStdinWriteFailedLog =
    "Error writing input stream for the java external fetchlet";
inline constexpr const char* kStdinWriteFailed =
    "Error writing input stream for OS fetchlet";

// Writes the whole of stdinText; false after a write failure, which is
// logged here.
template <ProcessKind K>
bool qvefos_writeStdinToCommand(typename K::Process* process,
                                const char* stdinText, qveulm_LogCtx* log) {
  if (stdinText == nullptr) return true;
  qve_devtrc(log, kWriteStdinTrace);
  const auto length = static_cast<uint32_t>(std::strlen(stdinText));
  uint32_t written = 0;
  while (written < length) {
    int32_t n = K::StdinWrite(process, stdinText + written, length - written);
    if (n == QVE_END_OF_STREAM || n == QVE_WRITE_FAILED) {
      qve_error(log, "%s", kStdinWriteFailedLog);
      return false;
    }
    written += static_cast<uint32_t>(n);
  }
  return true;
}

}  // namespace qvefos

#endif  // QVE_FOS_QVEFOS_RUN_H_
