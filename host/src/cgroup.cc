// Finding a writable cgroup v2 hierarchy, and one cgroup per run below it.
#include "cgroup.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <cstring>
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

constexpr std::string_view kHostPrefix = "qvehost-";

std::atomic<int64_t> g_live{0};
std::atomic<bool> g_wanted{true};
std::atomic<bool> g_pooled{true};
std::atomic<unsigned> g_controllers{0};
std::mutex g_controllers_mutex;

struct ControllerName {
  Controller controller;
  const char* name;
};
constexpr ControllerName kControllerNames[] = {
    {kCpu, "cpu"}, {kMemory, "memory"}, {kPids, "pids"}, {kIo, "io"}};

// Whether the comma-separated list holds word ("rw,cpu,cpuacct" holds "cpu").
bool ListHolds(std::string_view list, std::string_view word) {
  return ("," + std::string(list) + ",").find("," + std::string(word) + ",") !=
         std::string::npos;
}

// The mount point and shown root of a cgroup hierarchy, from
// /proc/self/mountinfo ("ID PARENT MAJ:MIN ROOT MOUNT OPTS... - TYPE SOURCE
// SUPER-OPTIONS"): the unified one for an empty controller, else the v1 one
// that holds controller.
bool FindHierarchyMount(std::string_view controller, std::string* mount,
                        std::string* root) {
  std::ifstream info("/proc/self/mountinfo");
  std::string line;
  while (std::getline(info, line)) {
    const size_t dash = line.find(" - ");
    if (dash == std::string::npos) continue;
    std::istringstream after(line.substr(dash + 3));
    std::string type, source, options;
    after >> type >> source >> options;
    if (type != (controller.empty() ? "cgroup2" : "cgroup")) continue;
    if (!controller.empty() && !ListHolds(options, controller)) continue;
    std::istringstream before(line.substr(0, dash));
    std::string id, parent, device;
    before >> id >> parent >> device >> *root >> *mount;
    return !mount->empty();
  }
  return false;
}

// The host's own cgroup in that hierarchy: "0::PATH" for the unified one,
// "N:LIST:PATH" with controller in LIST for a v1 one.
bool OwnCgroupPath(std::string_view controller, std::string* path) {
  std::ifstream info("/proc/self/cgroup");
  std::string line;
  while (std::getline(info, line)) {
    const size_t first = line.find(':');
    const size_t second = line.find(':', first + 1);
    if (first == std::string::npos || second == std::string::npos) continue;
    const std::string list = line.substr(first + 1, second - first - 1);
    const bool match = controller.empty() ? line.rfind("0::", 0) == 0
                                          : ListHolds(list, controller);
    if (match) {
      *path = line.substr(second + 1);
      return !path->empty();
    }
  }
  return false;
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
        WriteCgroupFile(fd, "cgroup.kill", "1");
        close(fd);
      }
      rmdir(run.path().c_str());
    }
    rmdir(host.path().c_str());
  }
}

}  // namespace

std::string MakeHostDirectory(std::string_view controller) {
  std::string mount, root, own;
  if (!FindHierarchyMount(controller, &mount, &root) ||
      !OwnCgroupPath(controller, &own)) {
    return {};
  }
  if (root != "/" && own.rfind(root, 0) == 0) own.erase(0, root.size());
  std::string base = mount + (own == "/" ? "" : own);
  RemoveDeadHostsCgroups(base);
  std::string dir = base + "/" + std::string(kHostPrefix) +
                    std::to_string(getpid());
  if (mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) return {};
  return dir;
}

namespace {

std::string FindRunsDirectory() {
  std::string dir = MakeHostDirectory("");
  if (dir.empty()) return {};
  // Without cgroup.kill (kernels before 5.14) a run could not be ended.
  if (access((dir + "/cgroup.kill").c_str(), W_OK) != 0) {
    rmdir(dir.c_str());
    return {};
  }
  return dir;
}

void RemoveRunsDirectory() {
  EmptyPool();
  SweepRetiredCgroups();
  const std::string& dir = CgroupRunsDirectory();
  if (!dir.empty()) rmdir(dir.c_str());
  RemoveV1RunsDirectories();
}

// The host's own cgroup, the parent of the runs directory.
std::string HostCgroup() {
  const std::string& dir = CgroupRunsDirectory();
  return dir.substr(0, dir.rfind('/'));
}

// The controllers named in a cgroup's cgroup.controllers file.
unsigned ControllersIn(const std::string& dir) {
  std::ifstream file(dir + "/cgroup.controllers");
  unsigned found = 0;
  for (std::string word; file >> word;) {
    for (const auto& [controller, name] : kControllerNames) {
      if (word == name) found |= controller;
    }
  }
  return found;
}

// Enables each of wanted for the children of dir; those that failed.
unsigned EnableBelow(const std::string& dir, unsigned wanted, int* error) {
  const int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return wanted;
  unsigned failed = 0;
  for (const auto& [controller, name] : kControllerNames) {
    if ((wanted & controller) == 0) continue;
    const std::string word = "+" + std::string(name);
    if (!WriteCgroupFile(fd, "cgroup.subtree_control", word.c_str())) {
      failed |= controller;
      *error = errno;
    }
  }
  close(fd);
  return failed;
}

// A cgroup with processes of its own cannot hand controllers to its
// children: the host moves itself into a leaf beside its runs directory
// (qvehost-PID-host, removed with the rest by the next host).
bool MoveHostIntoLeaf(const std::string& host_cgroup) {
  const std::string leaf = CgroupRunsDirectory() + "-host";
  if (mkdir(leaf.c_str(), 0755) != 0 && errno != EEXIST) return false;
  const int fd = open(leaf.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return false;
  const bool moved =
      WriteCgroupFile(fd, "cgroup.procs", std::to_string(getpid()).c_str());
  close(fd);
  qve_debug(qveulm_getLogCtx(HostLogSource(), "qvehost"),
            "containment: host moved from %s into %s: %s", host_cgroup.c_str(),
            leaf.c_str(), moved ? "done" : "refused");
  return moved;
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

bool WriteCgroupFile(int dir_fd, const char* name, const char* text) {
  const int fd = openat(dir_fd, name, O_WRONLY | O_CLOEXEC);
  if (fd < 0) return false;
  const size_t length = std::strlen(text);
  ssize_t n;
  do {
    n = write(fd, text, length);
  } while (n < 0 && errno == EINTR);
  const int saved = errno;
  close(fd);
  errno = saved;
  return n == static_cast<ssize_t>(length);
}

const std::string& CgroupRunsDirectory() {
  static const std::string* dir = [] {
    auto* found = new std::string(FindRunsDirectory());
    LogContainment(*found);
    if (!found->empty()) {
      std::atexit(RemoveRunsDirectory);
      // Whatever the host's own cgroup already hands down is free to take.
      int error = 0;
      const unsigned offered = ControllersIn(*found);
      g_controllers.store(offered & ~EnableBelow(*found, offered, &error));
    }
    return found;
  }();
  return *dir;
}

unsigned RunControllers() { return g_controllers.load() | V1Controllers(); }

unsigned ControllersFor(const RunLimits& limits) {
  return (limits.memory_bytes != 0 ? kMemory : 0u) |
         (limits.pids != 0 ? kPids : 0u) | (limits.cpu != 0 ? kCpu : 0u);
}

namespace {

// Enables missing controllers of the unified hierarchy for the runs.
void EnableUnified(unsigned missing) {
  const std::string& runs = CgroupRunsDirectory();
  const std::string host = HostCgroup();
  const unsigned possible = missing & ControllersIn(host);
  int error = 0;
  unsigned failed = EnableBelow(host, possible, &error);
  if (failed != 0 && error == EBUSY && MoveHostIntoLeaf(host)) {
    failed = EnableBelow(host, failed, &error);
  }
  const unsigned offered = ControllersIn(runs) & possible;
  g_controllers.fetch_or(offered & ~EnableBelow(runs, offered, &error));
}

}  // namespace

unsigned EnableRunControllers(unsigned wanted) {
  if (!CgroupsAvailable()) return 0;
  std::lock_guard lock(g_controllers_mutex);
  if ((wanted & ~RunControllers()) != 0) EnableUnified(wanted & ~RunControllers());
  // What the unified hierarchy cannot give, a v1 one may.
  if ((wanted & ~RunControllers()) != 0) {
    EnableV1Controllers(wanted & ~RunControllers());
  }
  return RunControllers();
}

void WantCgroups(bool wanted) { g_wanted.store(wanted); }
void WantPooling(bool pooled) { g_pooled.store(pooled); }
bool PoolingWanted() { return g_pooled.load(); }
void CountLive(int64_t delta) { g_live.fetch_add(delta); }

bool CgroupsAvailable() {
  return g_wanted.load() && !CgroupRunsDirectory().empty();
}

uint64_t LiveRunCgroups() {
  SweepRetiredCgroups();
  return static_cast<uint64_t>(g_live.load());
}

}  // namespace qvehost::internal

namespace qvehost {

void SetCgroupContainment(bool wanted) { internal::WantCgroups(wanted); }
bool CgroupContainment() { return internal::CgroupsAvailable(); }
uint64_t LiveRunCgroups() { return internal::LiveRunCgroups(); }
void SetCgroupPooling(bool pooled) { internal::WantPooling(pooled); }
void RemoveIdleRunCgroups() { internal::EmptyPool(); }

}  // namespace qvehost
