// Starting a child: pipes, then clone3 straight into the run's cgroup (when
// there is one) and exec.
//
// clone3 rather than posix_spawn: only it puts the child in its cgroup before
// the command runs, so that no fast double fork escapes. It also hands back
// a pidfd, which keeps the exit status when a host that ignores SIGCHLD has
// its children reaped by the kernel (an exit signal other than SIGCHLD would
// not help: exec sets it back). Both containments start children this way.
#include <fcntl.h>
#include <linux/close_range.h>
#include <linux/sched.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "cgroup.h"
#include "child_process.h"

namespace qvehost::internal {
namespace {

constexpr char kDevNull[] = "/dev/null";
constexpr char kDefaultPath[] = "/bin:/usr/bin";
// Mutable because argument vectors are arrays of char*; never written.
char kShell[] = "/bin/sh";

// Moves fd to floor or above, close-on-exec, so that the child's dup2 onto a
// lower number never overwrites a source it still needs, and never meets the
// same number (dup2 onto itself would leave close-on-exec set).
int RaiseFd(int& fd, int floor) {
  if (fd >= floor) return 0;
  const int moved = fcntl(fd, F_DUPFD_CLOEXEC, floor);
  const int error = moved < 0 ? errno : 0;
  CloseDescriptor(fd);
  fd = moved;
  return error;
}

// A close-on-exec pipe; child_end (0 read, 1 write) is moved to floor or
// above.
int MakePipe(int fds[2], int child_end, int floor) {
  if (pipe2(fds, O_CLOEXEC) != 0) return errno;
  const int error = RaiseFd(fds[child_end], floor);
  if (error != 0) CloseDescriptor(fds[1 - child_end]);
  return error;
}

// The first PATH entry holding an executable regular file called name, as
// execvp would try it.
bool FindInPath(std::string_view name, std::string* found) {
  const char* path = std::getenv("PATH");
  std::string_view dirs = path != nullptr ? path : kDefaultPath;
  for (;;) {
    const size_t colon = dirs.find(':');
    std::string_view dir = dirs.substr(0, colon);
    found->assign(dir.empty() ? "." : dir).append("/").append(name);
    struct stat info;
    if (stat(found->c_str(), &info) == 0 && S_ISREG(info.st_mode) &&
        access(found->c_str(), X_OK) == 0) {
      return true;
    }
    if (colon == std::string_view::npos) return false;
    dirs.remove_prefix(colon + 1);
  }
}

// Everything the child needs, made before the clone: after it the child may
// only make system calls (another thread may hold a lock of the allocator).
struct ChildPlan {
  const int* child_fds = nullptr;  // [3], -1: /dev/null
  std::vector<int> sources;        // at or above floor, onto targets
  std::span<const InheritedFd> targets;
  int floor = 3;
  std::string program;                // the file to execute
  std::vector<char*> script_argv;     // /bin/sh PROGRAM ARGS... for ENOEXEC
  char* const* argv = nullptr;
  char* const* envp = nullptr;
  int report_fd = -1;  // the start's errno goes here when exec fails
};

// The child's own system calls, made directly: the libc wrappers may be
// intercepted (a sanitizer's runtime takes locks in them that another thread
// of the host may have held at the clone).
namespace child {

long Call(long number, long a = 0, long b = 0, long c = 0, long d = 0) {
  return syscall(number, a, b, c, d);
}

// old is never new here: sources sit at or above the floor, targets below.
bool Move(int old_fd, int new_fd) {
  return Call(SYS_dup3, old_fd, new_fd, 0) >= 0;
}

void Close(int fd) { Call(SYS_close, fd); }

[[noreturn]] void ReportAndExit(int report_fd) {
  const int error = errno;
  while (Call(SYS_write, report_fd, reinterpret_cast<long>(&error),
              sizeof error) < 0 &&
         errno == EINTR) {
  }
  for (;;) Call(SYS_exit_group, 127);
}

// Every signal to its default (also the two glibc keeps for its threads: an
// ignored signal survives the exec), through the raw call, which takes an
// all-zero action as SIG_DFL with no flags and an empty mask.
void DefaultAllSignals() {
  const unsigned long zero_action[4] = {0, 0, 0, 0};
  for (long sig = 1; sig < NSIG; ++sig) {
    if (sig == SIGKILL || sig == SIGSTOP) continue;
    Call(SYS_rt_sigaction, sig, reinterpret_cast<long>(zero_action), 0,
         NSIG / 8);
  }
}

// Moves the streams onto 0, 1 and 2, the inherited descriptors onto theirs,
// and marks every other descriptor close-on-exec (the report pipe must stay
// open until the exec succeeds).
bool ArrangeDescriptors(const ChildPlan& plan) {
  for (int i = 0; i < 3; ++i) {
    int source = plan.child_fds[i];
    if (source < 0) {
      source = static_cast<int>(Call(SYS_openat, AT_FDCWD,
                                     reinterpret_cast<long>(kDevNull),
                                     i == 0 ? O_RDONLY : O_WRONLY));
      if (source < 0) return false;
      if (source == i) continue;
    }
    if (!Move(source, i)) return false;
    if (plan.child_fds[i] < 0) Close(source);
  }
  for (size_t i = 0; i < plan.sources.size(); ++i) {
    if (!Move(plan.sources[i], plan.targets[i].child_fd)) return false;
  }
  return Call(SYS_close_range, plan.floor, ~0U, CLOSE_RANGE_CLOEXEC) == 0;
}

void Execute(const char* program, char* const* argv, char* const* envp) {
  Call(SYS_execve, reinterpret_cast<long>(program),
       reinterpret_cast<long>(argv), reinterpret_cast<long>(envp));
}

[[noreturn]] void Run(const ChildPlan& plan) {
  DefaultAllSignals();
  // Own process group, so that a kill reaches what the command starts.
  if (Call(SYS_setpgid, 0, 0) != 0 || !ArrangeDescriptors(plan)) {
    ReportAndExit(plan.report_fd);
  }
  const unsigned long none = 0;
  Call(SYS_rt_sigprocmask, SIG_SETMASK, reinterpret_cast<long>(&none), 0,
       sizeof none);
  Execute(plan.program.c_str(), plan.argv, plan.envp);
  // A file the kernel refuses to execute (a script without "#!") runs
  // through /bin/sh, as execvp does.
  if (errno == ENOEXEC) Execute(kShell, plan.script_argv.data(), plan.envp);
  ReportAndExit(plan.report_fd);
}

}  // namespace child

// The file to execute: argv[0], or its PATH match as execvp would find it.
int ResolveProgram(const SpawnRequest& request, std::string* program) {
  program->assign(request.argv[0]);
  if (!request.search_path || program->find('/') != std::string::npos) {
    return 0;
  }
  return FindInPath(request.argv[0], program) ? 0 : ENOENT;
}

int BuildPlan(const SpawnRequest& request, ChildPlan* plan,
              std::vector<int>* temporaries) {
  const int error = ResolveProgram(request, &plan->program);
  if (error != 0) return error;
  plan->script_argv = {kShell, plan->program.data()};
  for (char* const* arg = request.argv + 1; *arg != nullptr; ++arg) {
    plan->script_argv.push_back(*arg);
  }
  plan->script_argv.push_back(nullptr);
  for (const InheritedFd& inherited : request.inherited) {
    int source = inherited.parent_fd;
    if (source < plan->floor) {
      source = fcntl(source, F_DUPFD_CLOEXEC, plan->floor);
      if (source < 0) return errno;
      temporaries->push_back(source);
    }
    plan->sources.push_back(source);
  }
  plan->targets = request.inherited;
  plan->argv = request.argv;
  plan->envp = request.envp;
  return 0;
}

// The clone itself, with every signal blocked so that no handler of the host
// runs in the child before its dispositions are reset.
pid_t CloneChild(const ChildPlan& plan, int cgroup_fd, int* pidfd) {
  clone_args args;
  std::memset(&args, 0, sizeof args);
  args.exit_signal = SIGCHLD;
  args.flags = CLONE_PIDFD;
  args.pidfd = reinterpret_cast<uintptr_t>(pidfd);
  if (cgroup_fd >= 0) {
    args.flags |= CLONE_INTO_CGROUP;
    args.cgroup = static_cast<uint64_t>(cgroup_fd);
  }
  sigset_t all, old;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &old);
  auto pid = static_cast<pid_t>(syscall(SYS_clone3, &args, sizeof args));
  if (pid < 0 && cgroup_fd >= 0 && errno != EAGAIN) {
    // A cgroup the kernel refuses: the process group still contains.
    args.flags = CLONE_PIDFD;
    pid = static_cast<pid_t>(syscall(SYS_clone3, &args, sizeof args));
  }
  if (pid == 0) child::Run(plan);
  const int error = errno;
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
  errno = error;
  return pid;
}

// 0 once the child has executed its command; else the child's errno, and the
// child is reaped.
int AwaitExec(pid_t pid, int report_fd) {
  int error = 0;
  ssize_t n;
  do {
    n = read(report_fd, &error, sizeof error);
  } while (n < 0 && errno == EINTR);
  if (n != sizeof error) return 0;
  siginfo_t info;
  while (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED) < 0 &&
         errno == EINTR) {
  }
  return error != 0 ? error : EINVAL;
}

int SpawnChild(const SpawnRequest& request, const int child_fds[3], int floor,
               int cgroup_fd, pid_t* pid, int* pidfd) {
  std::vector<int> temporaries;
  int report[2] = {-1, -1};
  int error = 0;
  try {
    ChildPlan plan;
    plan.child_fds = child_fds;
    plan.floor = floor;
    error = BuildPlan(request, &plan, &temporaries);
    if (error == 0 && pipe2(report, O_CLOEXEC) != 0) error = errno;
    if (error == 0) {
      plan.report_fd = report[1];
      const pid_t child = CloneChild(plan, cgroup_fd, pidfd);
      error = child < 0 ? errno : 0;
      CloseDescriptor(report[1]);
      if (error == 0) error = AwaitExec(child, report[0]);
      if (error == 0) *pid = child;
      if (error != 0) CloseDescriptor(*pidfd);
    }
  } catch (const std::bad_alloc&) {
    error = ENOMEM;
  }
  CloseDescriptor(report[0]);
  CloseDescriptor(report[1]);
  for (int& fd : temporaries) CloseDescriptor(fd);
  return error;
}

}  // namespace

int32_t StartResultCode(int error) {
  switch (error) {
    case 0:
      return QVE_OK;
    case ENOENT:
    case ENOTDIR:
      return QVE_NOT_FOUND;
    case EACCES:
    case EPERM:
      return QVE_NO_PERMISSION;
    case EAGAIN:
      return QVE_PROCESS_LIMIT;
    default:
      return -1;
  }
}

int ChildProcess::Start(const SpawnRequest& request) {
  if (started() || request.argv == nullptr || request.argv[0] == nullptr ||
      request.envp == nullptr) {
    return EINVAL;
  }
  int floor = 3;
  for (const InheritedFd& inherited : request.inherited) {
    floor = std::max(floor, inherited.child_fd + 1);
  }
  int parent[3] = {-1, -1, -1};
  int child[3] = {-1, -1, -1};
  int error = 0;
  for (int i = 0; i < 3; ++i) {
    if ((request.mask & (1 << i)) == 0) continue;
    int fds[2];
    const int child_end = i == 0 ? 0 : 1;
    error = MakePipe(fds, child_end, floor);
    if (error != 0) break;
    child[i] = fds[child_end];
    parent[i] = fds[1 - child_end];
  }
  pid_t pid = 0;
  const uint64_t stops_before = StopCount();
  if (error == 0) cgroup_.Create();
  if (error == 0) error = SpawnChild(request, child, floor, cgroup_.fd(), &pid, &pidfd_);
  for (int& fd : child) CloseDescriptor(fd);
  if (error != 0) {
    for (int& fd : parent) CloseDescriptor(fd);
    cgroup_.Remove();
    return error;
  }
  pid_ = pid;
  TrackRunning(this, stops_before);
  stdin_fd_ = parent[0];
  stdout_.fd = parent[1];
  stdout_.piped = parent[1] >= 0;
  stderr_.fd = parent[2];
  stderr_.piped = parent[2] >= 0;
  return 0;
}

}  // namespace qvehost::internal
