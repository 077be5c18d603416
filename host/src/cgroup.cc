// Finding a writable cgroup v2 hierarchy, and one cgroup per run below it.
#include "cgroup.h"

#include <fcntl.h>
#include <signal.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "host_internal.h"
#include "qve/embedded.h"
#include "qve/host.h"

namespace qvehost::internal {
namespace {

// How long a removal waits for the kernel to empty a killed cgroup (a
// process in uninterruptible sleep ends late).
constexpr int kEmptyWaitMs = 100;
constexpr int kEmptyPollMs = 20;
constexpr std::string_view kHostPrefix = "qvehost-";

std::atomic<uint64_t> g_run_counter{0};
std::atomic<uint64_t> g_live{0};
std::atomic<bool> g_wanted{true};

void CloseFd(int& fd) {
  if (fd >= 0) close(fd);
  fd = -1;
}

// The mount point of the cgroup2 file system and the root it shows, from
// /proc/self/mountinfo: "ID PARENT MAJ:MIN ROOT MOUNT OPTS... - cgroup2 ...".
bool FindUnifiedMount(std::string* mount, std::string* root) {
  std::ifstream info("/proc/self/mountinfo");
  std::string line;
  while (std::getline(info, line)) {
    const size_t dash = line.find(" - ");
    if (dash == std::string::npos) continue;
    std::istringstream after(line.substr(dash + 3));
    std::string type;
    after >> type;
    if (type != "cgroup2") continue;
    std::istringstream before(line.substr(0, dash));
    std::string id, parent, device;
    before >> id >> parent >> device >> *root >> *mount;
    return !mount->empty();
  }
  return false;
}

// The host's own cgroup in the unified hierarchy ("0::PATH").
bool OwnCgroupPath(std::string* path) {
  std::ifstream info("/proc/self/cgroup");
  std::string line;
  while (std::getline(info, line)) {
    if (line.rfind("0::", 0) == 0) {
      *path = line.substr(3);
      return !path->empty();
    }
  }
  return false;
}

std::mutex g_pending_mutex;
std::vector<std::string>* g_pending = new std::vector<std::string>;

void Defer(std::string path) {
  std::lock_guard lock(g_pending_mutex);
  try {
    g_pending->push_back(std::move(path));
  } catch (...) {
    qve_warn(qveulm_getLogCtx(HostLogSource(), "qvehost"),
             "a cgroup could not be removed");
  }
}

// Removes the deferred cgroups that have emptied since.
void SweepDeferred() {
  std::lock_guard lock(g_pending_mutex);
  std::erase_if(*g_pending, [](const std::string& path) {
    if (rmdir(path.c_str()) != 0 && errno == EBUSY) return false;
    g_live.fetch_sub(1);
    return true;
  });
}

void RemoveRunsDirectory() {
  SweepDeferred();
  const std::string& dir = CgroupRunsDirectory();
  if (!dir.empty()) rmdir(dir.c_str());
}

bool WriteFile(int dir_fd, const char* name, const char* text) {
  const int fd = openat(dir_fd, name, O_WRONLY | O_CLOEXEC);
  if (fd < 0) return false;
  ssize_t n;
  do {
    n = write(fd, text, 1);
  } while (n < 0 && errno == EINTR);
  close(fd);
  return n == 1;
}

// A host that died without its exit handlers (killed, or ended by _exit)
// left its runs' cgroups behind; the next host removes them.
void RemoveDeadHostsCgroups(const std::string& base) {
  std::error_code error;
  for (const auto& host : std::filesystem::directory_iterator(base, error)) {
    const std::string name = host.path().filename();
    if (name.rfind(kHostPrefix, 0) != 0) continue;
    const long pid = std::strtol(name.c_str() + kHostPrefix.size(), nullptr, 10);
    if (pid <= 0 || kill(static_cast<pid_t>(pid), 0) == 0 || errno != ESRCH) {
      continue;
    }
    for (const auto& run : std::filesystem::directory_iterator(host, error)) {
      if (!run.is_directory(error)) continue;
      const int fd = open(run.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
      if (fd >= 0) {
        WriteFile(fd, "cgroup.kill", "1");
        close(fd);
      }
      rmdir(run.path().c_str());
    }
    rmdir(host.path().c_str());
  }
}

std::string FindRunsDirectory() {
  std::string mount, root, own;
  if (!FindUnifiedMount(&mount, &root) || !OwnCgroupPath(&own)) return {};
  if (root != "/" && own.rfind(root, 0) == 0) own.erase(0, root.size());
  std::string base = mount + (own == "/" ? "" : own);
  RemoveDeadHostsCgroups(base);
  std::string dir = base + "/" + std::string(kHostPrefix) +
                    std::to_string(getpid());
  if (mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) return {};
  // Without cgroup.kill (kernels before 5.14) a run could not be ended.
  if (access((dir + "/cgroup.kill").c_str(), W_OK) != 0) {
    rmdir(dir.c_str());
    return {};
  }
  return dir;
}

void LogContainment(const std::string& dir) {
  qveulm_LogCtx* log = qveulm_getLogCtx(HostLogSource(), "qvehost");
  if (dir.empty()) {
    qve_debug(log, "containment: process groups (no writable cgroup v2)");
  } else {
    qve_debug(log, "containment: cgroup v2 under %s", dir.c_str());
  }
}


}  // namespace

const std::string& CgroupRunsDirectory() {
  static const std::string* dir = [] {
    auto* found = new std::string(FindRunsDirectory());
    LogContainment(*found);
    if (!found->empty()) std::atexit(RemoveRunsDirectory);
    return found;
  }();
  return *dir;
}

void WantCgroups(bool wanted) { g_wanted.store(wanted); }

bool CgroupsAvailable() {
  return g_wanted.load() && !CgroupRunsDirectory().empty();
}

uint64_t LiveRunCgroups() {
  SweepDeferred();
  return g_live.load();
}

bool RunCgroup::Create() {
  if (active() || !CgroupsAvailable()) return false;
  SweepDeferred();
  std::string path = CgroupRunsDirectory() + "/run-" +
                     std::to_string(g_run_counter.fetch_add(1));
  if (mkdir(path.c_str(), 0755) != 0) return false;
  dir_fd_ = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dir_fd_ < 0) {
    rmdir(path.c_str());
    return false;
  }
  path_ = std::move(path);
  g_live.fetch_add(1);
  return true;
}

int RunCgroup::Kill() {
  if (!active()) {
    errno = ESRCH;
    return -1;
  }
  return WriteFile(dir_fd_, "cgroup.kill", "1") ? 0 : -1;
}

// Waits a little for the kernel to empty a killed cgroup; one still busy (a
// killed process not yet reaped by whoever adopted it) is left to a later
// sweep rather than hold up the run.
void RunCgroup::Remove() {
  if (!active()) return;
  const int saved = errno;
  Kill();
  const int events = openat(dir_fd_, "cgroup.events", O_RDONLY | O_CLOEXEC);
  bool removed = false;
  for (int waited = 0; waited <= kEmptyWaitMs; waited += kEmptyPollMs) {
    removed = rmdir(path_.c_str()) == 0;
    if (removed || errno != EBUSY || events < 0) break;
    // Reading re-arms the notification of the next change.
    char text[128];
    while (pread(events, text, sizeof text, 0) < 0 && errno == EINTR) {
    }
    pollfd fd{events, POLLPRI, 0};
    poll(&fd, 1, kEmptyPollMs);
  }
  if (events >= 0) close(events);
  CloseFd(dir_fd_);
  if (removed) {
    g_live.fetch_sub(1);
  } else {
    Defer(std::move(path_));
  }
  errno = saved;
}

}  // namespace qvehost::internal

namespace qvehost {

void SetCgroupContainment(bool wanted) { internal::WantCgroups(wanted); }
bool CgroupContainment() { return internal::CgroupsAvailable(); }
uint64_t LiveRunCgroups() { return internal::LiveRunCgroups(); }

}  // namespace qvehost
