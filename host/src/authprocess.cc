// The authenticated process family: a command started by fetchlet-launch
// under a user name and password, and its registration with the multiplexer.
//
// The credentials reach the launcher on a private socket, never in its
// arguments, its environment or a log line, and are wiped from the host's
// memory as soon as they are sent. The launcher's verdict comes back on a
// private pipe that closes once the command has been executed.
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "guard.h"
#include "../launcher/launch_protocol.h"
#include "child_process.h"
#include "iomux.h"
#include "launcher_path.h"
#include "qve/host.h"

using qvehost::internal::ChildProcess;
using qvehost::internal::CloseDescriptor;

namespace {

// The most of the launcher's text that is kept: what one read of the
// runner's buffer holds.
constexpr size_t kMaxLauncherText = QVE_LAUNCHER_TEXT_BUFFER - 1;
// How long a killed launcher may take to end the command and itself before
// it is killed too.
constexpr auto kKillGrace = std::chrono::seconds(5);

size_t CountEntries(char** strings, int32_t count) {
  if (strings == nullptr || count <= 0) return 0;
  size_t n = 0;
  while (n < static_cast<size_t>(count) && strings[n] != nullptr) ++n;
  return n;
}

// A buffer that is wiped before its memory goes back.
class SecretBytes {
 public:
  SecretBytes() = default;
  ~SecretBytes() { Wipe(); }
  SecretBytes(const SecretBytes&) = delete;
  SecretBytes& operator=(const SecretBytes&) = delete;

  // Sized once, so that no reallocation leaves a copy behind.
  void Allocate(size_t size) { bytes_.resize(size); }
  char* data() { return bytes_.data(); }
  size_t size() const { return bytes_.size(); }
  void Wipe() {
    if (bytes_.empty()) return;
    explicit_bzero(bytes_.data(), bytes_.size());
    std::vector<char>().swap(bytes_);
  }

 private:
  std::vector<char> bytes_;
};

// Appends n NUL-terminated strings at *next.
void PutStrings(const char* const* strings, size_t n, char** next) {
  for (size_t i = 0; i < n; ++i) {
    const size_t bytes = std::strlen(strings[i]) + 1;
    std::memcpy(*next, strings[i], bytes);
    *next += bytes;
  }
}

size_t StringBytes(const char* const* strings, size_t n) {
  size_t bytes = 0;
  for (size_t i = 0; i < n; ++i) bytes += std::strlen(strings[i]) + 1;
  return bytes;
}

bool SendAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    // MSG_NOSIGNAL: a launcher that is gone costs no SIGPIPE.
    const ssize_t n = send(fd, data, size, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

// Reads fd to its end, keeping at most kMaxLauncherText bytes.
std::string ReadVerdict(int fd) {
  std::string text;
  char chunk[1024];
  for (;;) {
    const ssize_t n = read(fd, chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return text;
    const size_t room = kMaxLauncherText - text.size();
    text.append(chunk, std::min(room, static_cast<size_t>(n)));
  }
}

bool HasEnded(pid_t pid) {
  siginfo_t info;
  std::memset(&info, 0, sizeof info);
  // An error (the child is gone already) counts as ended.
  return waitid(P_PID, static_cast<id_t>(pid), &info,
                WEXITED | WNOHANG | WNOWAIT) != 0 ||
         info.si_pid != 0;
}

// Waits up to the grace period for pid to end, without reaping it: through
// its pidfd where the kernel has them, else by looking now and then.
bool AwaitEnd(pid_t pid) {
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + kKillGrace;
  int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  while (!HasEnded(pid)) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(
        deadline - Clock::now());
    if (left.count() <= 0) break;
    if (pidfd >= 0) {
      pollfd fd{pidfd, POLLIN, 0};
      poll(&fd, 1, static_cast<int>(left.count()));
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  }
  CloseDescriptor(pidfd);
  return HasEnded(pid);
}

}  // namespace

struct qvejcap_Process {
  qvefet_Context* context = nullptr;
  bool separate_error_stream = false;
  std::vector<std::string> argv;
  // user NUL password NUL {NAME=VALUE NUL}: the launcher's request.
  SecretBytes request;
  ChildProcess child;
  std::string launcher_text;
  // The launcher refused the user: it started no command and is ending.
  bool refused = false;

  ~qvejcap_Process() {
    if (child.started() && !child.reaped()) Kill();
  }

  int32_t Run();
  int32_t Kill();

 private:
  int Spawn(const std::string& launcher, int request_fd, int verdict_fd);
  int32_t JudgeVerdict(std::string verdict);
};

int qvejcap_Process::Spawn(const std::string& launcher, int request_fd,
                           int verdict_fd) {
  std::vector<char*> launch_argv;
  launch_argv.reserve(argv.size() + 4);
  launch_argv.push_back(const_cast<char*>(launcher.c_str()));
  std::string config = qvehost::internal::LauncherConfig();
  if (!config.empty()) {
    config.insert(0, qvelaunch::kConfigOption);
    launch_argv.push_back(config.data());
  }
  launch_argv.push_back(const_cast<char*>(qvelaunch::kCommandMark));
  for (std::string& arg : argv) launch_argv.push_back(arg.data());
  launch_argv.push_back(nullptr);
  // Nothing of the host's environment: the launcher makes its own, and the
  // command's travels with the credentials.
  char* launch_env[] = {nullptr};
  const qvehost::internal::InheritedFd inherited[] = {
      {request_fd, qvelaunch::kRequestFd}, {verdict_fd, qvelaunch::kErrorFd}};
  qvehost::internal::SpawnRequest spawn;
  spawn.argv = launch_argv.data();
  spawn.envp = launch_env;
  spawn.mask = QVE_STREAM_ALL;
  spawn.search_path = false;
  spawn.inherited = inherited;
  // An emergency stop gives the command the launcher's grace; the launcher
  // alone may signal it.
  child.set_stop_signal(qvelaunch::kStopSignal);
  return child.Start(spawn);
}

// An empty verdict: the command was executed. A refusal started nothing, and
// the caller reads why through the launcher's text; an execution failure
// fails the start.
int32_t qvejcap_Process::JudgeVerdict(std::string verdict) {
  if (verdict.empty()) return 0;
  const char tag = verdict.front();
  const bool known =
      tag == qvelaunch::kRefusedTag || tag == qvelaunch::kExecFailedTag;
  if (known) verdict.erase(0, 1);
  if (!verdict.empty() && verdict.back() == '\n') verdict.pop_back();
  launcher_text = std::move(verdict);
  refused = tag == qvelaunch::kRefusedTag;
  return refused ? 0 : -1;
}

int32_t qvejcap_Process::Run() {
  if (child.started() || argv.empty()) return -1;
  const std::string launcher = qvehost::internal::ResolveLauncherPath();
  if (launcher.empty()) return -1;
  int sent[2] = {-1, -1};
  int verdict[2] = {-1, -1};
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sent) != 0) {
    return -1;
  }
  if (pipe2(verdict, O_CLOEXEC) != 0) {
    CloseDescriptor(sent[0]);
    CloseDescriptor(sent[1]);
    return -1;
  }
  const int error = Spawn(launcher, sent[1], verdict[1]);
  CloseDescriptor(sent[1]);
  CloseDescriptor(verdict[1]);
  if (error == 0) SendAll(sent[0], request.data(), request.size());
  // Sent or not, the credentials are not needed again.
  request.Wipe();
  CloseDescriptor(sent[0]);
  std::string text = error == 0 ? ReadVerdict(verdict[0]) : std::string();
  CloseDescriptor(verdict[0]);
  return error == 0 ? JudgeVerdict(std::move(text)) : -1;
}

// The launcher kills the command's group, which the host may have no right
// to signal, then reaps the command and ends. Only a launcher that does not
// end in time is killed outright (and the command with it).
int32_t qvejcap_Process::Kill() {
  if (!child.started()) return -1;
  if (!child.reaped() && child.SignalGroup(qvelaunch::kKillSignal) == 0) {
    child.SignalGroup(SIGCONT);
    if (AwaitEnd(child.pid())) return child.Wait();
  }
  return child.Kill();
}

using qvehost::internal::Guarded;

extern "C" {

qvejcap_Process* qvejcap_Process_new(qvefet_Context* fetchletContext,
                                     char** argv, int32_t argc, char** envp,
                                     int32_t envc, int32_t separateErrorStream,
                                     const char* username,
                                     const char* password,
                                     void* /*reserved*/) {
  return Guarded<qvejcap_Process*>(
      __func__, nullptr, [&]() -> qvejcap_Process* {
    if (username == nullptr || password == nullptr) return nullptr;
    auto process = std::make_unique<qvejcap_Process>();
    process->context = fetchletContext;
    process->separate_error_stream = separateErrorStream != 0;
    const size_t args = CountEntries(argv, argc);
    process->argv.assign(argv, argv + args);
    const size_t envs = CountEntries(envp, envc);
    const char* const credentials[] = {username, password};
    process->request.Allocate(StringBytes(credentials, 2) +
                              StringBytes(envp, envs));
    char* next = process->request.data();
    PutStrings(credentials, 2, &next);
    PutStrings(envp, envs, &next);
    return process.release();
  });
}

int32_t qvejcap_Process_run(qvejcap_Process* process) {
  return Guarded<int32_t>(__func__, -1, [&]() -> int32_t {
    return process != nullptr ? process->Run() : -1;
  });
}

int32_t qvejcap_Process_qvo_stderr_read(qvejcap_Process* process,
                                        char* buffer, int32_t /*reserved1*/,
                                        int32_t /*reserved2*/) {
  return Guarded<int32_t>(__func__, 0, [&]() -> int32_t {
    if (process == nullptr || buffer == nullptr) return -1;
    const std::string& text = process->launcher_text;
    std::memcpy(buffer, text.data(), text.size());
    buffer[text.size()] = '\0';
    return 0;
  });
}

int32_t qvejcap_Process_command_stderr_read(qvejcap_Process* process,
                                            char* buffer, int32_t maximum) {
  return Guarded<int32_t>(__func__, -1, [&]() -> int32_t {
    if (process == nullptr) return -1;
    return process->child.Read(QVE_STREAM_STDERR, buffer, maximum);
  });
}

int32_t qvejcap_Process_stdin_write(qvejcap_Process* process, const char* data,
                                    uint32_t length) {
  return Guarded<int32_t>(__func__, -1, [&]() -> int32_t {
    if (process == nullptr) return QVE_WRITE_FAILED;
    // No command to feed: the refusal is what the caller reports.
    if (process->refused) {
      return static_cast<int32_t>(std::min<uint32_t>(length, INT32_MAX));
    }
    return process->child.WriteStdin(data, length);
  });
}

void qvejcap_Process_stdin_close(qvejcap_Process* process) {
  Guarded(__func__, [&] {
    if (process != nullptr) process->child.CloseStdin();
  });
}

int32_t qvejcap_Process_stdout_read(qvejcap_Process* process, char* buffer,
                                    int32_t maximum) {
  return Guarded<int32_t>(__func__, -1, [&]() -> int32_t {
    if (process == nullptr) return -1;
    return process->child.Read(QVE_STREAM_STDOUT, buffer, maximum);
  });
}

void qvejcap_Process_stdout_close(qvejcap_Process* process) {
  Guarded(__func__, [&] {
    if (process != nullptr) process->child.CloseOutput(QVE_STREAM_STDOUT);
  });
}

void qvejcap_Process_stderr_close(qvejcap_Process* process) {
  Guarded(__func__, [&] {
    if (process != nullptr) process->child.CloseOutput(QVE_STREAM_STDERR);
  });
}

int32_t qvejcap_Process_blocking_wait(qvejcap_Process* process) {
  return Guarded<int32_t>(__func__, -1, [&]() -> int32_t {
    return process != nullptr ? process->child.Wait() : -1;
  });
}

int32_t qvejcap_Process_kill(qvejcap_Process* process) {
  return Guarded<int32_t>(__func__, -1, [&]() -> int32_t {
    return process != nullptr ? process->Kill() : -1;
  });
}

int32_t qvejcap_Process_getExitValue(qvejcap_Process* process,
                                     int32_t* exitValue) {
  return Guarded<int32_t>(__func__, -1, [&]() -> int32_t {
    if (process == nullptr || exitValue == nullptr) return -1;
    process->child.PollExit();
    *exitValue = process->child.exit_value();
    return *exitValue >= 0 ? 0 : -1;
  });
}

void qvejcap_Process_delete(qvejcap_Process* process) {
  Guarded(__func__, [&] {
    delete process;
  });
}

int32_t sqvejcx_IOMuxor_addAuthProcess(sqvejcx_IOMuxor* mux,
                                       qvejcap_Process* process, int32_t mask) {
  return Guarded<int32_t>(__func__, -1, [&]() -> int32_t {
    if (process == nullptr) return -1;
    return qvehost::internal::MuxAddSource(mux, &process->child, process, mask);
  });
}

int32_t sqvejcx_IOMuxor_removeAuthProcess(sqvejcx_IOMuxor* mux,
                                          qvejcap_Process* process,
                                          int32_t kind) {
  return Guarded<int32_t>(__func__, -1, [&]() -> int32_t {
    if (process == nullptr) return -1;
    return qvehost::internal::MuxRemoveSource(mux, &process->child, kind);
  });
}

}  // extern "C"
