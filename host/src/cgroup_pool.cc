// The pool of runs' cgroups: a run takes an empty one, its limits are
// written only where they differ from the last run's, and it goes back once
// cgroup.events says "populated 0". A cgroup that was ever killed is never
// reused: some kernels kill every child later cloned into it (they compare
// the kill count of the parent's cgroup with the target's), and a run that
// needed a kill is rare. Every file a run touches stays open in
// its slot, so that a pooled run costs a few reads and no path lookups.
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "cgroup.h"
#include "cgroup_slot.h"
#include "host_internal.h"
#include "qve/host.h"

namespace qvehost::internal {
namespace {

// How long a run's end waits for the kernel to empty a killed cgroup (a
// process in uninterruptible sleep ends late); one still busy is retired.
// Killed processes of a loaded machine can take more than a tenth of a
// second to go, and a run must not return while they are still there; an
// emptied cgroup ends the wait at once.
constexpr int kEmptyWaitMs = 1000;

std::mutex g_mutex;
// Never destroyed: runs may end while the process exits.
auto* g_free = new std::vector<PoolSlot*>;
// Directories still busy when their slot went; only a slot's own (not its
// v1 companions) counts as live.
struct Retired {
  std::string path;
  bool live;
};
auto* g_retired = new std::vector<Retired>;
std::atomic<uint64_t> g_counter{0};
std::atomic<size_t> g_slots{0};  // slots in the pool or taken

PoolSlot* MakeSlot() {
  auto slot = std::make_unique<PoolSlot>();
  slot->path = CgroupRunsDirectory() + "/run-" +
               std::to_string(g_counter.fetch_add(1));
  if (mkdir(slot->path.c_str(), 0755) != 0) return nullptr;
  slot->dir = open(slot->path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (slot->dir >= 0) {
    slot->kill = openat(slot->dir, "cgroup.kill", O_WRONLY | O_CLOEXEC);
    OpenIfPresent(slot->dir, "cgroup.events", &slot->events);
    OpenIfPresent(slot->dir, "cpu.stat", &slot->cpu_stat);
  }
  if (slot->kill < 0 || slot->events < 0) {
    CloseSlot(*slot);
    rmdir(slot->path.c_str());
    return nullptr;
  }
  OpenControllerFiles(*slot);
  return slot.release();
}

PoolSlot* TakeSlot() {
  {
    std::lock_guard lock(g_mutex);
    if (PoolingWanted() && !g_free->empty()) {
      PoolSlot* slot = g_free->back();
      g_free->pop_back();
      return slot;
    }
    // Room for every slot to come back, so that giving back never allocates.
    try {
      g_free->reserve(g_slots + 1);
    } catch (...) {
      return nullptr;
    }
  }
  PoolSlot* slot = MakeSlot();
  if (slot != nullptr) g_slots.fetch_add(1);
  return slot;
}


// Kills what is left and waits, on cgroup.events, until the kernel says the
// cgroup is empty; false when it is still busy at the bound.
bool Empty(PoolSlot& slot) {
  if (slot.seen_empty || !Populated(slot)) return true;
  slot.killed = true;
  // A failed write shows below: the cgroup stays busy and is retired.
  (void)!write(slot.kill, "1", 1);
  const auto give_up = std::chrono::steady_clock::now() +
                       std::chrono::milliseconds(kEmptyWaitMs);
  // Each read re-arms the notification of the next change.
  while (Populated(slot)) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        give_up - std::chrono::steady_clock::now());
    if (left.count() <= 0) return false;
    pollfd fd{slot.events, POLLPRI, 0};
    poll(&fd, 1, static_cast<int>(left.count()) + 1);
  }
  return true;
}

void RemoveLater(const std::string& path, bool live) {
  std::lock_guard lock(g_mutex);
  try {
    g_retired->push_back({path, live});
  } catch (...) {
    qve_warn(qveulm_getLogCtx(HostLogSource(), "qvehost"),
             "a cgroup could not be removed");
  }
}

// Closes the slot and removes its directories, or leaves those still busy
// to SweepRetiredCgroups.
void DeleteSlot(PoolSlot* slot, bool live) {
  g_slots.fetch_sub(1);
  CloseSlot(*slot);
  for (const Companion& companion : slot->companions) {
    if (!companion.path.empty() && rmdir(companion.path.c_str()) != 0) {
      RemoveLater(companion.path, false);
    }
  }
  if (rmdir(slot->path.c_str()) != 0) {
    RemoveLater(slot->path, live);
  } else if (live) {
    CountLive(-1);
  }
  delete slot;
}

// A slot that did not empty in time is never reused; its directory goes
// once the kernel lets it.
void Retire(PoolSlot* slot) { DeleteSlot(slot, true); }

void GiveBack(PoolSlot* slot) {
  std::lock_guard lock(g_mutex);
  g_free->push_back(slot);
  CountLive(-1);
}

}  // namespace

void SweepRetiredCgroups() {
  std::lock_guard lock(g_mutex);
  std::erase_if(*g_retired, [](const Retired& retired) {
    if (rmdir(retired.path.c_str()) != 0 && errno == EBUSY) return false;
    if (retired.live) CountLive(-1);
    return true;
  });
}

void EmptyPool() {
  std::vector<PoolSlot*> idle;
  {
    std::lock_guard lock(g_mutex);
    idle.swap(*g_free);
  }
  for (PoolSlot* slot : idle) DeleteSlot(slot, false);
}

int RunCgroup::Create(const RunLimits& limits) {
  if (active() || !CgroupsAvailable()) return 0;
  PoolSlot* slot = TakeSlot();
  if (slot == nullptr) return 0;
  CountLive(1);
  OpenControllerFiles(*slot);
  const int error = ApplyLimits(*slot, limits);
  if (error != 0) {
    Retire(slot);
    return error;
  }
  ResetPeak(*slot);
  slot->seen_empty = false;
  slot_ = slot;
  return 0;
}

int RunCgroup::fd() const { return slot_ != nullptr ? slot_->dir : -1; }

const int* RunCgroup::joins() const {
  return slot_ != nullptr ? slot_->joins : nullptr;
}

size_t RunCgroup::join_count() const {
  return slot_ != nullptr ? slot_->join_count : 0;
}

int RunCgroup::Kill() {
  if (!active()) {
    errno = ESRCH;
    return -1;
  }
  slot_->killed = true;
  return write(slot_->kill, "1", 1) == 1 ? 0 : -1;
}

// Once the run's child has ended and nothing else is left, nothing can
// enter the cgroup again: the run's end need not look twice.
int RunCgroup::KillIfPopulated() {
  if (active() && !Populated(*slot_)) {
    slot_->seen_empty = true;
    return 0;
  }
  return Kill();
}

void RunCgroup::Remove(CgroupFigures* figures) {
  if (!active()) return;
  const int saved = errno;
  PoolSlot* slot = slot_;
  slot_ = nullptr;
  const bool empty = Empty(*slot);
  const CgroupFigures read = Figures(*slot);
  if (figures != nullptr) *figures = read;
  if (empty && !slot->killed && PoolingWanted()) {
    GiveBack(slot);
  } else {
    Retire(slot);
  }
  SweepRetiredCgroups();
  errno = saved;
}

}  // namespace qvehost::internal
