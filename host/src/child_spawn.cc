// Starting a child: pipes, spawn attributes and file actions.
//
// posix_spawn rather than fork: the child shares the host's memory until it
// executes, so a large host pays no page-table copy per command, and the
// start costs a handful of system calls in the host.
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <new>
#include <span>
#include <string>
#include <string_view>
#include <vector>

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

// File actions: the child's streams onto 0, 1 and 2 (/dev/null where there
// is no pipe), then the inherited descriptors, then every other descriptor
// closed. Ours are all close-on-exec already; the close also keeps out any
// descriptor that other code in the host process opened without it.
class FileActions {
 public:
  FileActions() = default;
  ~FileActions() { Clear(); }
  FileActions(const FileActions&) = delete;
  FileActions& operator=(const FileActions&) = delete;

  // sources[i] goes to targets[i]; sources at or above floor.
  int Build(const int child_fds[3], std::span<const int> sources,
            std::span<const InheritedFd> targets, int floor) {
    Clear();
    int error = posix_spawn_file_actions_init(&actions_);
    if (error != 0) return error;
    live_ = true;
    for (int i = 0; i < 3 && error == 0; ++i) {
      error =
          child_fds[i] >= 0
              ? posix_spawn_file_actions_adddup2(&actions_, child_fds[i], i)
              : posix_spawn_file_actions_addopen(
                    &actions_, i, kDevNull, i == 0 ? O_RDONLY : O_WRONLY, 0);
    }
    for (size_t i = 0; i < sources.size() && error == 0; ++i) {
      error = posix_spawn_file_actions_adddup2(&actions_, sources[i],
                                               targets[i].child_fd);
    }
    if (error == 0) {
      error = posix_spawn_file_actions_addclosefrom_np(&actions_, floor);
    }
    if (error != 0) Clear();
    return error;
  }
  const posix_spawn_file_actions_t* get() const { return &actions_; }

 private:
  void Clear() {
    if (live_) posix_spawn_file_actions_destroy(&actions_);
    live_ = false;
  }

  posix_spawn_file_actions_t actions_;
  bool live_ = false;
};

// The file actions of the last start on this thread without inherited
// descriptors. They depend only on descriptor numbers, which repeat from run
// to run, and glibc checks each number against the descriptor limit (one
// system call each) as an action is added; kept until the numbers change or
// the thread ends.
class RecentActions {
 public:
  const posix_spawn_file_actions_t* For(const int child_fds[3], int floor,
                                        int* error) {
    const std::array<int, 4> key{child_fds[0], child_fds[1], child_fds[2],
                                 floor};
    if (!built_ || key != key_) {
      built_ = false;
      *error = actions_.Build(child_fds, {}, {}, floor);
      if (*error != 0) return nullptr;
      built_ = true;
      key_ = key;
    }
    return actions_.get();
  }

 private:
  FileActions actions_;
  std::array<int, 4> key_{};
  bool built_ = false;
};

thread_local RecentActions recent_actions;

// Spawn attributes, destroyed on every path, the file actions, and the
// temporary descriptors made for inherited ones.
class SpawnPlan {
 public:
  SpawnPlan() { attr_ok_ = posix_spawnattr_init(&attr_) == 0; }
  ~SpawnPlan() {
    if (attr_ok_) posix_spawnattr_destroy(&attr_);
    for (int& fd : temporaries_) CloseDescriptor(fd);
  }
  SpawnPlan(const SpawnPlan&) = delete;
  SpawnPlan& operator=(const SpawnPlan&) = delete;

  int Prepare(const SpawnRequest& request, const int child_fds[3], int floor);
  int Spawn(const SpawnRequest& request, pid_t* pid);

 private:
  int SetAttributes();
  int BuildWithInherited(const SpawnRequest& request, const int child_fds[3],
                         int floor);
  int SpawnScript(const SpawnRequest& request, pid_t* pid);

  posix_spawnattr_t attr_;
  bool attr_ok_ = false;
  FileActions own_actions_;
  const posix_spawn_file_actions_t* actions_ = nullptr;
  std::vector<int> temporaries_;
};

// Own process group, so that a kill reaches everything the command starts;
// default dispositions for every signal (the host may ignore SIGPIPE, its
// commands must not inherit that) and an empty mask.
int SpawnPlan::SetAttributes() {
  // Every signal, also the two that glibc's sigfillset keeps back for its
  // own threads: glibc otherwise leaves them ignored in the child, and an
  // ignored signal survives the exec.
  sigset_t all;
  std::memset(&all, 0xff, sizeof all);
  sigset_t none;
  sigemptyset(&none);
  const auto flags = static_cast<short>(
      POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
  int error = posix_spawnattr_setsigdefault(&attr_, &all);
  if (error == 0) error = posix_spawnattr_setsigmask(&attr_, &none);
  if (error == 0) error = posix_spawnattr_setpgroup(&attr_, 0);
  if (error == 0) error = posix_spawnattr_setflags(&attr_, flags);
  return error;
}

int SpawnPlan::BuildWithInherited(const SpawnRequest& request,
                                  const int child_fds[3], int floor) {
  std::vector<int> sources;
  for (const InheritedFd& inherited : request.inherited) {
    int source = inherited.parent_fd;
    if (source < floor) {
      source = fcntl(source, F_DUPFD_CLOEXEC, floor);
      if (source < 0) return errno;
      temporaries_.push_back(source);
    }
    sources.push_back(source);
  }
  const int error =
      own_actions_.Build(child_fds, sources, request.inherited, floor);
  if (error == 0) actions_ = own_actions_.get();
  return error;
}

int SpawnPlan::Prepare(const SpawnRequest& request, const int child_fds[3],
                       int floor) {
  if (!attr_ok_) return ENOMEM;
  int error = SetAttributes();
  if (error != 0) return error;
  if (!request.inherited.empty()) {
    return BuildWithInherited(request, child_fds, floor);
  }
  actions_ = recent_actions.For(child_fds, floor, &error);
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

// A file the kernel refuses to execute (ENOEXEC: a script without "#!") runs
// through /bin/sh, as execvp does, so both runners treat such scripts alike.
int SpawnPlan::SpawnScript(const SpawnRequest& request, pid_t* pid) {
  std::string path = request.argv[0];
  if (request.search_path && path.find('/') == std::string::npos &&
      !FindInPath(request.argv[0], &path)) {
    return ENOEXEC;
  }
  std::vector<char*> argv{kShell, path.data()};
  for (char* const* arg = request.argv + 1; *arg != nullptr; ++arg) {
    argv.push_back(*arg);
  }
  argv.push_back(nullptr);
  return posix_spawn(pid, kShell, actions_, &attr_, argv.data(), request.envp);
}

int SpawnPlan::Spawn(const SpawnRequest& request, pid_t* pid) {
  const char* program = request.argv[0];
  int error = request.search_path ? posix_spawnp(pid, program, actions_, &attr_,
                                                 request.argv, request.envp)
                                  : posix_spawn(pid, program, actions_, &attr_,
                                                request.argv, request.envp);
  if (error == ENOEXEC) error = SpawnScript(request, pid);
  return error;
}

// The plan is released on every path, also when memory runs out.
int SpawnChild(const SpawnRequest& request, const int child_fds[3], int floor,
               pid_t* pid) {
  try {
    SpawnPlan plan;
    const int error = plan.Prepare(request, child_fds, floor);
    return error != 0 ? error : plan.Spawn(request, pid);
  } catch (const std::bad_alloc&) {
    return ENOMEM;
  }
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
  if (error == 0) error = SpawnChild(request, child, floor, &pid);
  for (int& fd : child) CloseDescriptor(fd);
  if (error != 0) {
    for (int& fd : parent) CloseDescriptor(fd);
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
