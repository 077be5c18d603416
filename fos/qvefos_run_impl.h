// The run itself: start, feed, collect, wind down, judge, release; included
// by the two runners, each instantiating it over its process kind.
#ifndef QVE_FOS_QVEFOS_RUN_IMPL_H_
#define QVE_FOS_QVEFOS_RUN_IMPL_H_

#include <cstdint>
#include <cstring>

#include "fos/qvefos_abort.h"
#include "fos/qvefos_captured_text.h"
#include "fos/qvefos_memory.h"
#include "fos/qvefos_run.h"
#include "fos/qvefos_runner.h"
#include "qve/host.h"

namespace qvefos {

inline constexpr const char* kAbortAdded = "Added abort callback successfully";
inline constexpr const char* kAbortNotAdded = "Error adding abort callback";
inline constexpr const char* kMuxNotCreated =
    "Unable to create process output multiplexor";
inline constexpr const char* kMuxNotAdded =
    "Unable to add to process output multiplexor";
inline constexpr const char* kStdoutReadFailed =
    "Unable to read output from command execution";
inline constexpr const char* kStderrReadFailed =
    "Unable to read stderr from command execution";
inline constexpr const char* kTimedOut =
    "Metric execution timed out in %d seconds";
inline constexpr const char* kAborted = "Metric execution aborted";
inline constexpr const char* kNoOutput =
    "Command exited abnormally without any output";
inline constexpr const char* kStdoutLog = "Process stdout = %s\n";
inline constexpr const char* kStderrLog = "Process stderr = %s\n";
// A text that cannot grow ends the run like any other failure of it.
inline constexpr const char* kOutOfMemory = "Unable to allocate memory";

inline constexpr int32_t kReadMaximum = 8207;
// The read buffer also takes the launcher's text.
static_assert(kReadMaximum + 1 >= QVE_LAUNCHER_TEXT_BUFFER);
inline constexpr int32_t kWaitBound = 1000;

template <ProcessKind K>
class Run {
 public:
  explicit Run(const RunRequest& request) : r_(request) {}
  Run(const Run&) = delete;
  Run& operator=(const Run&) = delete;

  int32_t Execute() {
    qve_devtrc(r_.log, K::kEntryTrace);
    if constexpr (K::kReplacesProgramPath) ReplaceProgramPath();
    if (Launch()) {
      CollectOutput();
      WindDown();
      Judge();
    }
    Release();
    return status_;
  }

 private:
  struct Stream {
    int32_t kind;
    const char* readFailed;
    CapturedText captured;
    bool open = false;
  };

  void ReplaceProgramPath() {
    char* path = sqvefos_getCommandPath(r_.fetchletContext, r_.argv[0]);
    if (path == nullptr) return;
    if (r_.argv[0] != nullptr) kFosMemory.Free(r_.argv[0]);
    r_.argv[0] = path;
  }

  // Creation, abort registration, start and standard input, in the kind's
  // order. False: the run goes straight to the release.
  bool Launch() {
    if constexpr (K::kRegistersAbortFirst) RegisterAbort();
    process_ = K::Create(r_, Count(r_.argv), Count(r_.envp));
    if (process_ == nullptr) return Fail(QVE_EXC_RUN_FAILED, K::kCreateFailed);
    if constexpr (!K::kRegistersAbortFirst) RegisterAbort();
    const int32_t start = K::Start(process_);
    status_ = start;
    if constexpr (K::kFeedsStdinBeforeJudgingStart) {
      return FeedStdin() && AcceptStart(start);
    } else {
      return AcceptStart(start) && FeedStdin();
    }
  }

  static int32_t Count(char** strings) {
    int32_t n = 0;
    while (strings != nullptr && strings[n] != nullptr) ++n;
    return n;
  }

  void RegisterAbort() {
    abortCell_ = kFosMemory.AllocArray<int32_t>(1);
    if (r_.requestId == nullptr || abortCell_ == nullptr) return;
    if (qvefet_addAbortCallback(r_.fetchletContext, r_.requestId,
                                qvefos_abortFetchlet, abortCell_) == 0) {
      abortRegistered_ = true;
      qve_debug(r_.log, "%s", kAbortAdded);
    } else {
      qve_debug(r_.log, "%s", kAbortNotAdded);
    }
  }

  // Without an exception slot a failed write is only logged and the run
  // goes on: the caller then hears of it only through the command's exit.
  bool FeedStdin() {
    if (!qvefos_writeStdinToCommand<K>(process_, r_.stdinText, r_.log) &&
        r_.exceptionOut != nullptr) {
      return Fail(QVE_EXC_RUN_FAILED, kStdinWriteFailed);
    }
    K::StdinClose(process_);
    return true;
  }

  bool AcceptStart(int32_t start) {
    if (start == 0) return true;
    const StartFailure failure = K::JudgeStart(start);
    if (!failure.afterProgram) return Fail(failure.kind, failure.text);
    const char* program = r_.argv[0] != nullptr ? r_.argv[0] : "";
    const size_t size = std::strlen(program) + std::strlen(failure.text) + 1;
    char* message = kFosMemory.AllocArray<char>(size);
    if (message == nullptr) return Fail(QVE_EXC_RUN_FAILED, kOutOfMemory);
    std::strcat(std::strcpy(message, program), failure.text);
    Fail(failure.kind, message);
    kFosMemory.Free(message);
    return false;
  }

  // Sets the status to -1 and makes the exception, unless the caller gave
  // no slot or an earlier one is there. Always false, for `return Fail(..)`.
  bool Fail(int32_t kind, const char* message) {
    status_ = -1;
    if (r_.exceptionOut != nullptr && *r_.exceptionOut == nullptr) {
      *r_.exceptionOut = qveue_Exception_new_init(kind, message);
    }
    return false;
  }

  void CollectOutput() {
    out_.open = err_.open = true;
    mux_ = sqvejcx_IOMuxor_new(r_.fetchletContext);
    if (mux_ == nullptr) {
      Fail(QVE_EXC_RUN_FAILED, kMuxNotCreated);
      return;
    }
    if (K::AddToMux(mux_, process_, QVE_STREAM_OUTPUTS) != 0) {
      Fail(QVE_EXC_RUN_FAILED, kMuxNotAdded);
      return;
    }
    const uint32_t startSeconds = qveut_currentSeconds();
    while (Wait()) {
      if (!HandleChannels()) return;
      sqvejcx_IOMuxor_freeChannels(channels_);
      channels_ = nullptr;
      count_ = 0;
      std::memset(message_, 0, sizeof message_);
      if (TimeLimitPassedOrAborted(startSeconds)) return EndEarly();
      if (!out_.open && !err_.open) return;
    }
  }

  // A failed wait ends the collection with the status word as it stands.
  bool Wait() {
    return sqvejcx_IOMuxor_select(mux_, kWaitBound, &count_, &channels_) == 0;
  }

  bool HandleChannels() {
    for (uint32_t i = 0; i < count_; ++i) {
      const uint32_t kind = channels_[i].streamKind;
      if (kind == QVE_STREAM_STDOUT && !ReadInto(out_)) return false;
      if (kind == QVE_STREAM_STDERR && !HandleStderrEvent()) return false;
    }
    return true;
  }

  // The first standard-error event of a launched command carries the
  // launcher's own text, if it has any, instead of a read.
  bool HandleStderrEvent() {
    if constexpr (K::kHasLauncherText) {
      if (firstErrorEvent_) {
        firstErrorEvent_ = false;
        ClearReadBuffer();
        status_ = K::LauncherTextRead(process_, readBuffer_);
        const auto length = static_cast<uint32_t>(strnlen(readBuffer_, kReadMaximum));
        if (length > 0) {
          if (!err_.captured.AppendWithSpace(readBuffer_, length)) {
            return Fail(QVE_EXC_RUN_FAILED, kOutOfMemory);
          }
          return true;
        }
      }
    }
    return ReadInto(err_);
  }

  // False when the run must wind down at once.
  bool ReadInto(Stream& stream) {
    const int32_t n = stream.kind == QVE_STREAM_STDOUT
                          ? K::StdoutRead(process_, readBuffer_, kReadMaximum)
                          : K::StderrRead(process_, readBuffer_, kReadMaximum);
    if (n > 0) {
      if (!stream.captured.Append(readBuffer_, static_cast<uint32_t>(n))) {
        return Fail(QVE_EXC_RUN_FAILED, kOutOfMemory);
      }
      ClearReadBuffer();
      status_ = n;
      return true;
    }
    K::RemoveFromMux(mux_, process_, stream.kind);
    CloseStream(stream);
    if (n == QVE_END_OF_STREAM) {
      status_ = 0;
      return true;
    }
    Fail(QVE_EXC_RUN_FAILED, stream.readFailed);
    qve_error(r_.log, "%s", stream.readFailed);
    return false;
  }

  void CloseStream(Stream& stream) {
    if (stream.kind == QVE_STREAM_STDOUT) {
      K::StdoutClose(process_);
    } else {
      K::StderrClose(process_);
    }
    stream.open = false;
  }

  void ClearReadBuffer() { std::memset(readBuffer_, 0, sizeof readBuffer_); }

  // While a time limit is set, the abort cell is not looked at.
  bool TimeLimitPassedOrAborted(uint32_t startSeconds) {
    if (r_.timeoutSeconds > 0) {
      const uint32_t elapsed = qveut_currentSeconds() - startSeconds;
      if (elapsed <= static_cast<uint32_t>(r_.timeoutSeconds)) return false;
      qveupt_snprintf(message_, sizeof message_, kTimedOut, r_.timeoutSeconds);
      return true;
    }
    if (abortCell_ == nullptr || !IsAborted(abortCell_)) return false;
    qveupt_snprintf(message_, sizeof message_, "%s", kAborted);
    return true;
  }

  void EndEarly() {
    killed_ = true;
    Fail(QVE_EXC_TIMEOUT, message_);
    qve_error(r_.log, "%s", message_);
  }

  void WindDown() {
    if (channels_ != nullptr) sqvejcx_IOMuxor_freeChannels(channels_);
    channels_ = nullptr;
    if (mux_ != nullptr) sqvejcx_IOMuxor_delete(mux_);
    mux_ = nullptr;
    if (out_.open) CloseStream(out_);
    if (err_.open) CloseStream(err_);
    if (killed_) {
      K::Kill(process_);
      if constexpr (K::kWaitsAfterKill) K::Wait(process_);
    } else {
      K::Wait(process_);
    }
    K::GetExitValue(process_, &exitValue_);
  }

  void Judge() {
    if (exitValue_ != 0) {
      FailExit();
    } else if (status_ == 0) {
      out_.captured.HandTo(r_.stdoutOut);
      err_.captured.HandTo(r_.stderrOut);
      return;
    }
    LogAndDropTexts();
  }

  // The message is the standard output (unless kept apart) followed by the
  // standard error, with no separator.
  void FailExit() {
    status_ = -1;
    if (r_.exceptionOut == nullptr || *r_.exceptionOut != nullptr) return;
    const char* out = r_.separateErrorStream == 0 ? out_.captured.text : nullptr;
    const char* err = err_.captured.text;
    const size_t size = (out != nullptr ? std::strlen(out) : 0) +
                        (err != nullptr ? std::strlen(err) : 0);
    if (size == 0) {
      Fail(QVE_EXC_RUN_FAILED, kNoOutput);
      return;
    }
    char* message = kFosMemory.AllocArray<char>(size + 1);
    if (message == nullptr) return;
    if (out != nullptr) std::strcat(message, out);
    if (err != nullptr) std::strcat(message, err);
    Fail(QVE_EXC_RUN_FAILED, message);
    kFosMemory.Free(message);
  }

  void LogAndDropTexts() {
    if (out_.captured.text != nullptr) {
      qve_error(r_.log, kStdoutLog, out_.captured.text);
      out_.captured.Drop();
    }
    if (err_.captured.text != nullptr) {
      qve_error(r_.log, kStderrLog, err_.captured.text);
      err_.captured.Drop();
    }
  }

  // The callback goes before its cell, and the process last.
  void Release() {
    if (r_.requestId != nullptr && abortRegistered_) {
      qvefet_removeAbortCallback(r_.fetchletContext, r_.requestId);
    }
    if (abortCell_ != nullptr) kFosMemory.Free(abortCell_);
    if (process_ != nullptr) K::Delete(process_);
    // Texts of a run that never reached its verdict.
    out_.captured.Drop();
    err_.captured.Drop();
  }

  const RunRequest& r_;
  typename K::Process* process_ = nullptr;
  int32_t* abortCell_ = nullptr;
  bool abortRegistered_ = false;
  sqvejcx_IOMuxor* mux_ = nullptr;
  sqvejcx_Channel* channels_ = nullptr;
  uint32_t count_ = 0;
  Stream out_{QVE_STREAM_STDOUT, kStdoutReadFailed, {}};
  Stream err_{QVE_STREAM_STDERR, kStderrReadFailed, {}};
  bool killed_ = false;
  bool firstErrorEvent_ = true;
  int32_t exitValue_ = 0;
  int32_t status_ = 0;
  char readBuffer_[kReadMaximum + 1] = {};
  char message_[128] = {};
};

}  // namespace qvefos

#endif  // QVE_FOS_QVEFOS_RUN_IMPL_H_
