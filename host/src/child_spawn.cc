// Starting a child: pipes, the plan of what the child does, the clone
// (clone_child.cc says why clone3, and how) and the wait for its exec.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "cgroup.h"
#include "child_process.h"
#include "clone_child.h"
#include "host_internal.h"
#include "qve/host.h"
#include "run_resources.h"

namespace qvehost::internal {
namespace {

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

// What the child's plan points into, owned by the parent.
struct PlanStorage {
  std::string program;
  std::vector<char*> script_argv;  // /bin/sh PROGRAM ARGS...
  std::vector<int> sources;
  std::vector<int> targets;
};

// The file to execute: argv[0], or its PATH match as execvp would find it.
int ResolveProgram(const SpawnRequest& request, std::string* program) {
  program->assign(request.argv[0]);
  if (!request.search_path || program->find('/') != std::string::npos) {
    return 0;
  }
  return FindInPath(request.argv[0], program) ? 0 : ENOENT;
}

int BuildPlan(const SpawnRequest& request, PlanStorage* storage,
              ChildPlan* plan, std::vector<int>* temporaries) {
  const int error = ResolveProgram(request, &storage->program);
  if (error != 0) return error;
  storage->script_argv = {kShell, storage->program.data()};
  for (char* const* arg = request.argv + 1; *arg != nullptr; ++arg) {
    storage->script_argv.push_back(*arg);
  }
  storage->script_argv.push_back(nullptr);
  for (const InheritedFd& inherited : request.inherited) {
    int source = inherited.parent_fd;
    if (source < plan->floor) {
      source = fcntl(source, F_DUPFD_CLOEXEC, plan->floor);
      if (source < 0) return errno;
      temporaries->push_back(source);
    }
    storage->sources.push_back(source);
    storage->targets.push_back(inherited.child_fd);
  }
  plan->program = storage->program.c_str();
  plan->script_argv = storage->script_argv.data();
  plan->sources = storage->sources.data();
  plan->targets = storage->targets.data();
  plan->inherited = storage->sources.size();
  plan->argv = request.argv;
  plan->envp = request.envp;
  return 0;
}

// 0 once the child has executed its command; else the child's errno (from
// the report pipe, or shared_error without one), and the child is reaped.
int AwaitExec(pid_t pid, int report_fd, int shared_error) {
  int error = shared_error;
  if (report_fd >= 0) {
    ssize_t n;
    do {
      n = read(report_fd, &error, sizeof error);
    } while (n < 0 && errno == EINTR);
    if (n != sizeof error) error = 0;
  }
  if (error == 0) return 0;
  siginfo_t info;
  while (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED) < 0 &&
         errno == EINTR) {
  }
  return error;
}

int SpawnChild(const SpawnRequest& request, const int child_fds[3], int floor,
               const RunCgroup& cgroup, pid_t* pid, int* pidfd) {
  std::vector<int> temporaries;
  int report[2] = {-1, -1};
  int error = 0;
  try {
    PlanStorage storage;
    ChildPlan plan;
    plan.child_fds = child_fds;
    plan.floor = floor;
    plan.joins = cgroup.joins();
    plan.join_count = cgroup.join_count();
    error = BuildPlan(request, &storage, &plan, &temporaries);
    if (error == 0 && !ChildSharesMemory() && pipe2(report, O_CLOEXEC) != 0) {
      error = errno;
    }
    if (error == 0) {
      int exec_error = 0;
      plan.report_fd = report[1];
      plan.exec_error = &exec_error;
      const pid_t child = CloneChild(plan, cgroup.fd(), pidfd);
      error = child < 0 ? errno : 0;
      CloseDescriptor(report[1]);
      if (error == 0) error = AwaitExec(child, report[0], exec_error);
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

// A run with limits starts only inside a cgroup that holds them.
int ChildProcess::TakeCgroup() {
  limits_ = CurrentRunLimits();
  const int error = cgroup_.Create(limits_);
  if (error == 0 && (cgroup_.active() || !limits_.any())) return 0;
  qve_error(qveulm_getLogCtx(HostLogSource(), "qvehost"),
            "the limits of a command could not be applied: %s",
            error != 0 ? std::strerror(error) : "no cgroup for the run");
  // A missing limit file is no missing program: the start fails as such.
  return error != 0 && error != ENOENT ? error : ENOTSUP;
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
  if (error == 0) error = TakeCgroup();
  if (error == 0) {
    error = SpawnChild(request, child, floor, cgroup_, &pid, &pidfd_);
  }
  for (int& fd : child) CloseDescriptor(fd);
  if (error != 0) {
    for (int& fd : parent) CloseDescriptor(fd);
    cgroup_.Remove(nullptr);
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
