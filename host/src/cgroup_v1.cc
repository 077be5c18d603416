// Controllers that cgroup v1 hierarchies hold (the hybrid layout): the runs'
// directory in each, made the first time a limit needs it.
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <string>

#include "cgroup.h"
#include "host_internal.h"
#include "qve/host.h"

namespace qvehost::internal {
namespace {

struct V1Hierarchy {
  Controller controller;
  const char* name;
};
constexpr V1Hierarchy kHierarchies[] = {
    {kMemory, "memory"}, {kPids, "pids"}, {kCpu, "cpu"}};

std::mutex g_mutex;
// Written once each, under the mutex, before its bit is published.
auto* g_runs = new std::string[std::size(kHierarchies)];
std::atomic<unsigned> g_ready{0};

}  // namespace

void RemoveV1RunsDirectories() {
  for (size_t i = 0; i < std::size(kHierarchies); ++i) {
    if ((g_ready.load() & kHierarchies[i].controller) != 0) {
      rmdir(g_runs[i].c_str());
    }
  }
}

unsigned EnableV1Controllers(unsigned wanted) {
  std::lock_guard lock(g_mutex);
  for (size_t i = 0; i < std::size(kHierarchies); ++i) {
    const auto [controller, name] = kHierarchies[i];
    if ((wanted & controller) == 0 || (g_ready.load() & controller) != 0) {
      continue;
    }
    std::string dir = MakeHostDirectory(name);
    if (dir.empty()) continue;
    qve_debug(qveulm_getLogCtx(HostLogSource(), "qvehost"),
              "containment: the %s controller of cgroup v1 under %s", name,
              dir.c_str());
    g_runs[i] = std::move(dir);
    g_ready.fetch_or(controller);
  }
  return g_ready.load();
}

unsigned V1Controllers() { return g_ready.load(); }

const std::string& V1RunsDirectory(Controller controller) {
  static const std::string none;
  for (size_t i = 0; i < std::size(kHierarchies); ++i) {
    if (kHierarchies[i].controller == controller &&
        (g_ready.load() & controller) != 0) {
      return g_runs[i];
    }
  }
  return none;
}

}  // namespace qvehost::internal
