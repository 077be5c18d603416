// A pooled run cgroup's slot: the files of its cgroup (and, in the hybrid
// layout, of its v1 companions) kept open, the limits last written there and
// the counters last read. Not part of any API.
#ifndef QVE_HOST_SRC_CGROUP_SLOT_H_
#define QVE_HOST_SRC_CGROUP_SLOT_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

#include "cgroup.h"
#include "qve/embedded.h"

namespace qvehost::internal {

// Counters as the cgroup's files show them; a run's figures are the
// difference between its end and the previous run's end.
struct CgroupCounters {
  uint64_t user_usec = 0;
  uint64_t system_usec = 0;
  uint64_t io_read = 0;
  uint64_t io_write = 0;
  uint64_t oom_kills = 0;
  uint64_t forks_refused = 0;
};

// The slot's cgroup in a v1 hierarchy (the hybrid layout), which the child
// joins through cgroup.procs before its exec.
struct Companion {
  std::string path;
  int dir = -1;
  int procs = -1;
};

struct PoolSlot {
  std::string path;
  int dir = -1;
  Companion companions[3];  // memory, pids, cpu; unused where unified
  int joins[3] = {-1, -1, -1};
  size_t join_count = 0;
  int kill = -1;
  int events = -1;
  int cpu_stat = -1;
  int memory_peak = -1;
  int memory_events = -1;
  int pids_events = -1;
  int io_stat = -1;
  unsigned controllers = 0;  // those whose files are open
  RunLimits applied;
  CgroupCounters last;
  bool used = false;        // a run has ended in it
  // cgroup.kill was written: never reused. A run may be ended from another
  // thread (its evaluation's deadline) while its own thread kills it too.
  std::atomic<bool> killed{false};
  bool seen_empty = false;  // empty after its run's child ended
  bool peak_resets = true;  // memory.peak restarts on a write (Linux 6.12)
};

void CloseFd(int& fd);
void OpenIfPresent(int dir, const char* name, int* fd);
// Opens the files of controllers that reached the slot since it was made
// (making its v1 companions where the controllers are v1's).
void OpenControllerFiles(PoolSlot& slot);
// Closes every file of the slot; its directories stay.
void CloseSlot(PoolSlot& slot);
// Writes the limits that differ from the slot's; 0 or the errno.
int ApplyLimits(PoolSlot& slot, const RunLimits& limits);
// Restarts the memory peak for the next run where the kernel allows it.
void ResetPeak(PoolSlot& slot);
// cgroup.events says processes are in the cgroup.
bool Populated(const PoolSlot& slot);
// What the run that just ended cost: the counters' differences since the
// last run's end.
CgroupFigures Figures(PoolSlot& slot);

}  // namespace qvehost::internal

#endif  // QVE_HOST_SRC_CGROUP_SLOT_H_
