// One spawned child with its pipes: the machinery under both process
// families. Not part of any API.
//
// The child runs in a process group of its own, with default signal
// dispositions, an empty signal mask and only the descriptors it is given:
// 0, 1 and 2 (pipes or /dev/null), plus any InheritedFd. Every descriptor the
// object holds is close-on-exec from birth, so a sibling's child started by
// another thread never inherits it.
//
// Destroying a child that was started and not yet reaped kills its group and
// reaps it: no zombie and no orphan is ever left behind.
#ifndef QVE_HOST_SRC_CHILD_PROCESS_H_
#define QVE_HOST_SRC_CHILD_PROCESS_H_

#include <sys/types.h>

#include <cstddef>
#include <csignal>
#include <cstdint>
#include <span>
#include <vector>

#include "cgroup.h"
#include "iomux.h"

namespace qvehost::internal {

// A descriptor of the host that the child receives at a fixed number (3 or
// above), e.g. a launcher's private pipes. The host keeps its own end.
struct InheritedFd {
  int parent_fd;
  int child_fd;
};

struct SpawnRequest {
  char* const* argv = nullptr;    // argv[0] names the program; null-terminated
  char* const* envp = nullptr;    // null-terminated, never null
  int32_t mask = QVE_STREAM_ALL;  // streams with pipes; others get /dev/null
  bool search_path = true;        // PATH search for a name without '/'
  std::span<const InheritedFd> inherited;
};

// Closes fd unless it is -1, sets it to -1 and keeps errno. Never retried:
// on Linux the descriptor is gone even after EINTR, and a retry could close
// one that another thread has just opened.
void CloseDescriptor(int& fd);

// The host's start result for a start errno: 0, QVE_NOT_FOUND,
// QVE_NO_PERMISSION, QVE_PROCESS_LIMIT, or -1 for any other cause.
int32_t StartResultCode(int error);

class ChildProcess final : public StreamSource {
 public:
  ChildProcess() = default;
  ~ChildProcess();

  // Starts the child once. 0, or the errno of the failure (ENOENT, EACCES,
  // EAGAIN, ...); nothing is left open after a failure. A program the kernel
  // cannot execute (ENOEXEC: a script without "#!") runs through /bin/sh.
  int Start(const SpawnRequest& request);

  bool started() const { return pid_ > 0; }
  pid_t pid() const { return pid_; }
  bool reaped() const { return reaped_; }

  // Bytes written (perhaps fewer than length), or QVE_WRITE_FAILED when the
  // reader is gone or there is no standard input. Never raises SIGPIPE.
  // While the pipe is full, the child's output is drained into held buffers
  // so that a child blocked on its own output can go on reading.
  int32_t WriteStdin(const char* data, uint32_t length);
  void CloseStdin();

  // Bytes read (held bytes first), QVE_END_OF_STREAM once the stream has
  // ended or was closed, -1 on failure (errno kept). A stream past the
  // output limit fails from then on (EFBIG) and its command is killed.
  int32_t Read(uint32_t kind, char* buffer, int32_t maximum);
  // Closes the stream and drops what it held.
  void CloseOutput(uint32_t kind);

  // Waits for the child to end, ends what is left of its process group, and
  // reaps it. 0, or -1 when the child cannot be waited for (never started,
  // or the wait failed: the exit value is then unknown).
  int32_t Wait();
  // Collects the child if it has ended, without blocking (as Wait does).
  void PollExit();
  // SIGKILL to the whole group, then Wait.
  int32_t Kill();
  // Sends sig to the child's group (it is still reserved while the child is
  // unreaped). 0, or -1 with errno.
  int SignalGroup(int sig);
  // The signal KillRunningCommands sends to the group (default SIGKILL); a
  // launcher that passes the kill on to its command wants SIGTERM.
  void set_stop_signal(int sig) { stop_signal_ = sig; }

  // The exit status, 128 + the signal number for a signalled child, or -1
  // while unknown (not started, not reaped, or the wait failed).
  int32_t exit_value() const { return exit_value_; }

  bool HasStream(uint32_t kind) const override;
  bool ReadyWithoutWait(uint32_t kind) const override;
  int PollFd(uint32_t kind) const override;

  // The group's stop signal: the one set for this child, else SIGKILL.
  void SendStop() {
    SignalGroup(stop_signal_ != 0 ? stop_signal_ : SIGKILL);
  }

 private:
  struct Output {
    int fd = -1;
    bool piped = false;
    std::vector<char> held;  // drained while standard input was full
    size_t held_pos = 0;
    uint64_t taken = 0;       // bytes read from the pipe so far
    bool over_limit = false;  // the command was killed for its output
  };

  Output* OutputFor(uint32_t kind);
  const Output* OutputFor(uint32_t kind) const;
  bool AwaitStdinSpace();
  void Drain(Output& out);
  int32_t TakeHeld(Output& out, char* buffer, int32_t maximum);
  bool Reap(bool block);
  // Takes the run's cgroup with its limits; 0 or the errno of the failure.
  int TakeCgroup();
  // Counts n bytes read from kind; false (the command killed and the limit
  // logged, once) when the stream went past the output limit.
  bool Account(uint32_t kind, size_t n);
  void CloseAll();

  pid_t pid_ = 0;
  RunCgroup cgroup_;  // inactive where process groups are the containment
  RunLimits limits_;  // those the run started with
  int pidfd_ = -1;
  bool reaped_ = false;
  int stop_signal_ = 0;
  int32_t exit_value_ = -1;
  int stdin_fd_ = -1;
  bool stdin_nonblocking_ = false;
  Output stdout_;
  Output stderr_;
};

// Sends every started, unreaped child's group its stop signal.
void StopRunningChildren();
// Book-keeping of the children StopRunningChildren reaches. A child is
// tracked only once it exists: TrackRunning signals it at once when a stop
// came after StopCount gave stops_before, while it was being started.
uint64_t StopCount();
void TrackRunning(ChildProcess* child, uint64_t stops_before);
void ForgetRunning(ChildProcess* child);

}  // namespace qvehost::internal

#endif  // QVE_HOST_SRC_CHILD_PROCESS_H_
