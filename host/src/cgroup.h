// Cgroup v2 containment of one run: the run's cgroup is taken before the
// child exists, the child is born inside it, and ending the run writes
// cgroup.kill, which reaches every process of the run whatever group or
// session it moved to. Emptied cgroups go back to a pool, so that a run
// costs no mkdir or rmdir. Not part of any API.
#ifndef QVE_HOST_SRC_CGROUP_H_
#define QVE_HOST_SRC_CGROUP_H_

#include <cstdint>
#include <string>
#include <string_view>

#include "qve/embedded.h"

namespace qvehost::internal {

// True when runs get cgroups: a cgroup v2 hierarchy holds the host's own
// cgroup and the host may make cgroups below it. Decided once; the decision
// is logged at debug level.
bool CgroupsAvailable();
// Whether runs get cgroups where they can (default true).
void WantCgroups(bool wanted);
void WantPooling(bool pooled);
bool PoolingWanted();
// The directory under which runs' cgroups are made ("" without cgroups).
const std::string& CgroupRunsDirectory();
// Runs' cgroups taken now, plus killed ones not yet empty.
uint64_t LiveRunCgroups();
void CountLive(int64_t delta);
// Removes the killed cgroups that have emptied since.
void SweepRetiredCgroups();
// Removes the pooled cgroups (at exit, or on request).
void EmptyPool();

// Controllers the runs' cgroups may have.
enum Controller : unsigned { kCpu = 1, kMemory = 2, kPids = 4, kIo = 8 };
// Those the runs' cgroups have now, in the unified hierarchy or a v1 one.
unsigned RunControllers();
// Makes the wanted controllers reach the runs' cgroups where the host may
// (enabling them above, and moving the host into a leaf of its own cgroup
// when its processes stand in the way). The controllers then present.
unsigned EnableRunControllers(unsigned wanted);
// The controllers limits need.
unsigned ControllersFor(const RunLimits& limits);

// The hybrid layout: controllers bound to cgroup v1 hierarchies, the unified
// one holding none. There each run's cgroup gets a companion of the same name
// in every v1 hierarchy a limit needs, which the child joins before its exec;
// the unified cgroup still kills the run and says when it is empty.
// Makes the v1 runs' directories of the wanted controllers where it may; the
// controllers that v1 hierarchies then give the runs.
unsigned EnableV1Controllers(unsigned wanted);
unsigned V1Controllers();
// The directory of runs in controller's v1 hierarchy ("" when none).
const std::string& V1RunsDirectory(Controller controller);
// Removes them (at exit, once the pool is gone).
void RemoveV1RunsDirectories();

// Makes qvehost-PID in the host's own cgroup of the unified hierarchy (empty
// controller) or of controller's v1 one, after removing those of hosts that
// died; its path, or "" when that cannot be done.
std::string MakeHostDirectory(std::string_view controller);

// Writes text to the file name below the directory dir_fd; false (errno
// set) when that fails.
bool WriteCgroupFile(int dir_fd, const char* name, const char* text);

// What one run cost by its cgroup's counters (deltas over the run).
struct CgroupFigures {
  uint64_t user_usec = 0;
  uint64_t system_usec = 0;
  uint64_t memory_peak = 0;  // 0: unknown
  uint64_t io_read = 0;
  uint64_t io_write = 0;
  uint64_t oom_kills = 0;
  uint64_t forks_refused = 0;
  unsigned controllers = 0;  // those whose counters these are
};

struct PoolSlot;

class RunCgroup {
 public:
  RunCgroup() = default;
  ~RunCgroup() { Remove(nullptr); }
  RunCgroup(const RunCgroup&) = delete;
  RunCgroup& operator=(const RunCgroup&) = delete;

  // Takes a cgroup with limits applied. 0 when the run has one, or when it
  // goes without (no hierarchy, or a cgroup could not be made: the process
  // group still contains); otherwise the errno of limits that could not be
  // applied (the run must not start).
  int Create(const RunLimits& limits);
  bool active() const { return slot_ != nullptr; }
  // The cgroup's directory descriptor, for CLONE_INTO_CGROUP.
  int fd() const;
  // The cgroup.procs files of its v1 companions, which the child joins
  // before its exec.
  const int* joins() const;
  size_t join_count() const;
  // SIGKILL to every process in the cgroup. 0, or -1 with errno.
  int Kill();
  // Kill, unless the cgroup is already empty (the usual end of a run).
  int KillIfPopulated();
  // Kills what is left, waits until the cgroup is empty, reads what the run
  // cost into figures (when not null) and gives the cgroup back.
  void Remove(CgroupFigures* figures);

 private:
  PoolSlot* slot_ = nullptr;
};

}  // namespace qvehost::internal

#endif  // QVE_HOST_SRC_CGROUP_H_
