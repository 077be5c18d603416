// A started child's pipes, its reaping and its killing.
#include "child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <new>

#include "host_internal.h"
#include "run_resources.h"
#include "qve/embedded.h"
#include "qve/host.h"

namespace qvehost::internal {
namespace {

// Drained output is read in chunks of a full pipe.
constexpr size_t kDrainChunk = size_t{64} * 1024;

// Blocks SIGPIPE in the calling thread around a write to a pipe and swallows
// the one the write raises, so the host never dies of it and the disposition
// of the whole process (which other threads may rely on) is never touched.
class SigpipeGuard {
 public:
  SigpipeGuard() {
    sigemptyset(&pipe_);
    sigaddset(&pipe_, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe_, &old_);
    already_blocked_ = sigismember(&old_, SIGPIPE) == 1;
    if (already_blocked_) {
      sigset_t pending;
      sigpending(&pending);
      was_pending_ = sigismember(&pending, SIGPIPE) == 1;
    }
  }
  ~SigpipeGuard() {
    if (already_blocked_) return;
    const int saved = errno;
    pthread_sigmask(SIG_SETMASK, &old_, nullptr);
    errno = saved;
  }
  SigpipeGuard(const SigpipeGuard&) = delete;
  SigpipeGuard& operator=(const SigpipeGuard&) = delete;

  // The write failed with EPIPE: take its SIGPIPE, unless one was pending
  // before the write (that one is not ours to take).
  void Swallow() {
    if (was_pending_) return;
    const int saved = errno;
    const timespec zero{};
    while (sigtimedwait(&pipe_, nullptr, &zero) < 0 && errno == EINTR) {
    }
    errno = saved;
  }

 private:
  sigset_t pipe_;
  sigset_t old_;
  bool already_blocked_ = false;
  bool was_pending_ = false;
};

int32_t DecodeStatus(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

// Reaps pid, whose end is known, with what it cost; -1 when that fails.
int32_t CollectStatus(pid_t pid, rusage* usage) {
  int status = 0;
  pid_t reaped;
  do {
    reaped = wait4(pid, &status, 0, usage);
  } while (reaped < 0 && errno == EINTR);
  return reaped == pid ? DecodeStatus(status) : -1;
}

// The kernel's record of a reaped child's end (Linux 6.15 and later).
struct PidfdInfo {
  uint64_t mask;
  uint64_t cgroupid;
  uint32_t ids[11];
  int32_t exit_code;
  uint32_t coredump_mask;
  uint32_t spare;
};
static_assert(sizeof(PidfdInfo) == 72);
constexpr uint64_t kPidfdInfoExit = 1u << 3;
constexpr unsigned long kPidfdGetInfo = _IOWR(0xFF, 11, PidfdInfo);

int32_t StatusFromPidfd(int pidfd) {
  if (pidfd < 0) return -1;
  PidfdInfo info;
  std::memset(&info, 0, sizeof info);
  info.mask = kPidfdInfoExit;
  if (ioctl(pidfd, kPidfdGetInfo, &info) != 0 ||
      (info.mask & kPidfdInfoExit) == 0) {
    return -1;
  }
  return DecodeStatus(info.exit_code);
}

}  // namespace

void CloseDescriptor(int& fd) {
  if (fd < 0) return;
  const int saved = errno;
  close(fd);
  errno = saved;
  fd = -1;
}

ChildProcess::~ChildProcess() {
  if (started() && !reaped_) Kill();
  CloseAll();
}

ChildProcess::Output* ChildProcess::OutputFor(uint32_t kind) {
  if (kind == QVE_STREAM_STDOUT) return &stdout_;
  if (kind == QVE_STREAM_STDERR) return &stderr_;
  return nullptr;
}

const ChildProcess::Output* ChildProcess::OutputFor(uint32_t kind) const {
  return const_cast<ChildProcess*>(this)->OutputFor(kind);
}

bool ChildProcess::HasStream(uint32_t kind) const {
  const Output* out = OutputFor(kind);
  return out != nullptr && out->piped;
}

bool ChildProcess::ReadyWithoutWait(uint32_t kind) const {
  const Output* out = OutputFor(kind);
  return out != nullptr && out->piped &&
         (out->held_pos < out->held.size() || out->fd < 0);
}

int ChildProcess::PollFd(uint32_t kind) const {
  const Output* out = OutputFor(kind);
  return out != nullptr ? out->fd : -1;
}

int32_t ChildProcess::WriteStdin(const char* data, uint32_t length) {
  const auto capped =
      static_cast<int32_t>(std::min<uint32_t>(length, INT32_MAX));
  // A command that never started has nothing to feed; its start result is
  // what the caller reports.
  if (!started()) return capped;
  if (stdin_fd_ < 0 || (data == nullptr && capped > 0)) {
    return QVE_WRITE_FAILED;
  }
  if (capped == 0) return 0;
  // Non-blocking only on our end: the child's end stays as it expects.
  if (!stdin_nonblocking_) {
    if (fcntl(stdin_fd_, F_SETFL, O_NONBLOCK) != 0) return QVE_WRITE_FAILED;
    stdin_nonblocking_ = true;
  }
  SigpipeGuard guard;
  for (;;) {
    const ssize_t n = write(stdin_fd_, data, static_cast<size_t>(capped));
    if (n >= 0) return static_cast<int32_t>(n);
    if (errno == EINTR) continue;
    if (errno == EPIPE) {
      guard.Swallow();
      return QVE_WRITE_FAILED;
    }
    if (errno != EAGAIN || !AwaitStdinSpace()) return QVE_WRITE_FAILED;
  }
}

// Waits for room in standard input. Meanwhile the child's output is drained
// into held buffers: a child blocked on a full standard output would never
// read its standard input again.
bool ChildProcess::AwaitStdinSpace() {
  for (;;) {
    // poll skips the negative descriptors of streams that have ended.
    pollfd fds[3] = {{stdin_fd_, POLLOUT, 0},
                     {stdout_.fd, POLLIN, 0},
                     {stderr_.fd, POLLIN, 0}};
    if (poll(fds, 3, -1) < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    if (fds[1].revents != 0) Drain(stdout_);
    if (fds[2].revents != 0) Drain(stderr_);
    // Room, or the reader is gone: the next write tells which.
    if (fds[0].revents != 0) return true;
  }
}

void ChildProcess::Drain(Output& out) {
  const size_t used = out.held.size();
  try {
    out.held.resize(used + kDrainChunk);
  } catch (const std::bad_alloc&) {
    // Leave the bytes in the pipe; the child waits until they are read.
    return;
  }
  ssize_t n;
  do {
    n = read(out.fd, out.held.data() + used, kDrainChunk);
  } while (n < 0 && errno == EINTR);
  out.held.resize(used + (n > 0 ? static_cast<size_t>(n) : 0));
  const uint32_t kind =
      &out == &stdout_ ? QVE_STREAM_STDOUT : QVE_STREAM_STDERR;
  // Ended, broken or over the limit: later reads give the held bytes, then
  // the end (or the failure).
  if (n <= 0 || !Account(kind, static_cast<size_t>(n))) {
    CloseDescriptor(out.fd);
  }
}

void ChildProcess::CloseStdin() { CloseDescriptor(stdin_fd_); }

int32_t ChildProcess::TakeHeld(Output& out, char* buffer, int32_t maximum) {
  const size_t available = out.held.size() - out.held_pos;
  const size_t n = std::min(available, static_cast<size_t>(maximum));
  std::memcpy(buffer, out.held.data() + out.held_pos, n);
  out.held_pos += n;
  if (out.held_pos == out.held.size()) {
    std::vector<char>().swap(out.held);
    out.held_pos = 0;
  }
  return static_cast<int32_t>(n);
}

int32_t ChildProcess::Read(uint32_t kind, char* buffer, int32_t maximum) {
  Output* out = OutputFor(kind);
  if (out == nullptr || !out->piped || buffer == nullptr || maximum <= 0) {
    return -1;
  }
  if (out->over_limit) {
    errno = EFBIG;
    return -1;
  }
  if (out->held_pos < out->held.size()) {
    return TakeHeld(*out, buffer, maximum);
  }
  if (out->fd < 0) return QVE_END_OF_STREAM;
  ssize_t n;
  do {
    n = read(out->fd, buffer, static_cast<size_t>(maximum));
  } while (n < 0 && errno == EINTR);
  if (n > 0 && !Account(kind, static_cast<size_t>(n))) return -1;
  if (n > 0) return static_cast<int32_t>(n);
  if (n < 0) return -1;
  CloseDescriptor(out->fd);
  return QVE_END_OF_STREAM;
}

void ChildProcess::CloseOutput(uint32_t kind) {
  Output* out = OutputFor(kind);
  if (out == nullptr) return;
  CloseDescriptor(out->fd);
  std::vector<char>().swap(out->held);
  out->held_pos = 0;
}

bool ChildProcess::Account(uint32_t kind, size_t n) {
  Output* out = OutputFor(kind);
  out->taken += n;
  const uint64_t limit = OutputLimit();
  if (limit == 0 || out->taken <= limit) return true;
  if (!out->over_limit) {
    out->over_limit = true;
    SignalGroup(SIGKILL);
    qve_error(qveulm_getLogCtx(HostLogSource(), "qvehost"),
              "command %d reached the output limit of %llu bytes on %s; it "
              "was killed",
              static_cast<int>(pid_), static_cast<unsigned long long>(limit),
              kind == QVE_STREAM_STDOUT ? "standard output"
                                        : "standard error");
  }
  CloseDescriptor(out->fd);
  std::vector<char>().swap(out->held);
  out->held_pos = 0;
  errno = EFBIG;
  return false;
}

// Waits for the child's end without reaping it, so that its id still names
// its process group alone; ends what is left of the group (a background job
// the command left behind) and only then reaps the child.
bool ChildProcess::Reap(bool block) {
  if (!started() || reaped_) return reaped_;
  siginfo_t info;
  std::memset(&info, 0, sizeof info);
  const int options = WEXITED | WNOWAIT | (block ? 0 : WNOHANG);
  int rc;
  do {
    rc = waitid(P_PID, static_cast<id_t>(pid_), &info, options);
  } while (rc < 0 && errno == EINTR);
  if (rc == 0 && info.si_pid == 0) return false;  // still running
  const int saved = errno;
  // What the command left running ends with it; the group id stays
  // reserved while the unreaped child holds it.
  if (cgroup_.KillIfPopulated() != 0) kill(-pid_, SIGKILL);
  errno = saved;
  // Out of the running list before the id is freed, so that an emergency
  // stop can never signal an id that another process has taken.
  ForgetRunning(this);
  // rc < 0: the host ignores SIGCHLD and the kernel reaped the child; its
  // pidfd still knows how it ended.
  rusage usage{};
  exit_value_ = rc == 0 ? CollectStatus(pid_, &usage) : StatusFromPidfd(pidfd_);
  CloseDescriptor(pidfd_);
  reaped_ = true;
  if (cgroup_.active()) {
    CgroupFigures figures;
    cgroup_.Remove(&figures);
    RecordRun(pid_, limits_, &figures, &usage);
  } else {
    RecordRun(pid_, limits_, nullptr, rc == 0 ? &usage : nullptr);
  }
  errno = saved;
  return true;
}

int32_t ChildProcess::Wait() {
  if (!started()) return -1;
  Reap(true);
  return exit_value_ >= 0 ? 0 : -1;
}

void ChildProcess::PollExit() { Reap(false); }

int ChildProcess::SignalGroup(int sig) {
  if (!started() || reaped_) {
    errno = ESRCH;
    return -1;
  }
  // cgroup.kill reaches what left the group too.
  if (sig == SIGKILL && cgroup_.Kill() == 0) return 0;
  if (kill(-pid_, sig) == 0) return 0;
  // Not a group leader any more (it called setsid): reach the child itself.
  return kill(pid_, sig);
}

int32_t ChildProcess::Kill() {
  if (!started()) return -1;
  if (!reaped_) SignalGroup(SIGKILL);
  return Wait();
}

void ChildProcess::CloseAll() {
  CloseDescriptor(stdin_fd_);
  CloseDescriptor(pidfd_);
  CloseOutput(QVE_STREAM_STDOUT);
  CloseOutput(QVE_STREAM_STDERR);
}

}  // namespace qvehost::internal

namespace qvehost {
namespace {
std::atomic<uint64_t> g_output_limit{64ull << 20};
}  // namespace

void SetOutputLimit(uint64_t bytes) { g_output_limit.store(bytes); }
uint64_t OutputLimit() { return g_output_limit.load(); }

}  // namespace qvehost
