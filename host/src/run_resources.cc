// Limits of runs (the host's defaults, or a thread's own for one
// evaluation) and the figures of what runs cost, summed per thread.
#include "run_resources.h"

#include <sys/resource.h>

#include <algorithm>
#include <mutex>
#include <string>

#include "cgroup.h"
#include "host_internal.h"
#include "qve/host.h"

namespace qvehost::internal {
namespace {

std::mutex g_limits_mutex;
RunLimits g_limits;
thread_local RunLimits t_limits;
thread_local bool t_has_limits = false;
thread_local RunResources t_resources;

double Seconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) +
         static_cast<double>(time.tv_usec) / 1e6;
}

void LogLimitsReached(pid_t pid, const RunLimits& limits,
                      const CgroupFigures& figures) {
  qveulm_LogCtx* log = qveulm_getLogCtx(HostLogSource(), "qvehost");
  if (figures.oom_kills != 0) {
    qve_error(log,
              "command %d was killed by the OOM killer at its memory limit of "
              "%llu bytes",
              static_cast<int>(pid),
              static_cast<unsigned long long>(limits.memory_bytes));
  }
  if (figures.forks_refused != 0) {
    qve_error(log,
              "command %d was refused a new process at its limit of %llu "
              "processes",
              static_cast<int>(pid), static_cast<unsigned long long>(limits.pids));
  }
}

}  // namespace

RunLimits CurrentRunLimits() {
  if (t_has_limits) return t_limits;
  std::lock_guard lock(g_limits_mutex);
  return g_limits;
}

void RecordRun(pid_t pid, const RunLimits& limits,
               const CgroupFigures* figures, const rusage* child) {
  RunResources& sum = t_resources;
  sum.runs += 1;
  if (figures != nullptr) {
    sum.from_cgroup = true;
    sum.user_seconds += static_cast<double>(figures->user_usec) / 1e6;
    sum.system_seconds += static_cast<double>(figures->system_usec) / 1e6;
    sum.io_read_bytes += figures->io_read;
    sum.io_write_bytes += figures->io_write;
    sum.oom_kills += figures->oom_kills;
    sum.forks_refused += figures->forks_refused;
    sum.io_counted = sum.io_counted || (figures->controllers & kIo) != 0;
    sum.oom_kills_counted =
        sum.oom_kills_counted || (figures->controllers & kMemory) != 0;
    sum.forks_counted = sum.forks_counted || (figures->controllers & kPids) != 0;
    LogLimitsReached(pid, limits, *figures);
  } else if (child != nullptr) {
    sum.user_seconds += Seconds(child->ru_utime);
    sum.system_seconds += Seconds(child->ru_stime);
  }
  if (figures != nullptr && figures->memory_peak != 0) {
    sum.memory_from_cgroup = true;
    sum.memory_peak_bytes = std::max(sum.memory_peak_bytes, figures->memory_peak);
  } else if (child != nullptr) {
    // ru_maxrss counts KiB.
    sum.memory_peak_bytes = std::max(
        sum.memory_peak_bytes, static_cast<uint64_t>(child->ru_maxrss) * 1024);
  }
}

}  // namespace qvehost::internal

namespace qvehost {
namespace {

constexpr const char* kControllerNames[] = {"cpu", "memory", "pids"};

}  // namespace

std::string RunLimitsError(const RunLimits& limits) {
  if (!limits.any()) return "";
  if (limits.cpu < 0 || limits.cpu > 1e6) return "a CPU limit must be above 0";
  if (!internal::CgroupsAvailable()) {
    return "limits need a writable cgroup v2 hierarchy (root, or a delegated "
           "cgroup); this host has none";
  }
  const unsigned wanted = internal::ControllersFor(limits);
  const unsigned missing = wanted & ~internal::EnableRunControllers(wanted);
  if (missing == 0) return "";
  std::string names;
  const internal::Controller order[] = {internal::kCpu, internal::kMemory,
                                        internal::kPids};
  for (size_t i = 0; i < 3; ++i) {
    if ((missing & order[i]) == 0) continue;
    names += (names.empty() ? "" : ", ") + std::string(kControllerNames[i]);
  }
  return "the cgroup controller(s) " + names + " cannot be enabled under " +
         internal::CgroupRunsDirectory() +
         " (not delegated, and no writable cgroup v1 hierarchy holds them)";
}

bool SetRunLimits(const RunLimits& limits, std::string* error) {
  std::string why = RunLimitsError(limits);
  if (!why.empty()) {
    if (error != nullptr) *error = std::move(why);
    return false;
  }
  std::lock_guard lock(internal::g_limits_mutex);
  internal::g_limits = limits;
  return true;
}

RunLimits DefaultRunLimits() {
  std::lock_guard lock(internal::g_limits_mutex);
  return internal::g_limits;
}

RunLimitsScope::RunLimitsScope(const RunLimits& limits)
    : saved_(internal::t_limits), had_saved_(internal::t_has_limits) {
  internal::t_limits = limits;
  internal::t_has_limits = true;
}

RunLimitsScope::~RunLimitsScope() {
  internal::t_limits = saved_;
  internal::t_has_limits = had_saved_;
}

RunResources TakeRunResources() {
  RunResources taken = internal::t_resources;
  internal::t_resources = RunResources{};
  return taken;
}


}  // namespace qvehost
