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
#include <cmath>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "cgroup.h"
#include "host_internal.h"
#include "qve/host.h"

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

namespace {

// How long a run's end waits for the kernel to empty a killed cgroup (a
// process in uninterruptible sleep ends late); one still busy is retired.
// Killed processes of a loaded machine can take more than a tenth of a
// second to go, and a run must not return while they are still there; an
// emptied cgroup ends the wait at once.
constexpr int kEmptyWaitMs = 1000;
constexpr uint64_t kCpuPeriodUsec = 100000;

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

void CloseFd(int& fd) {
  if (fd >= 0) close(fd);
  fd = -1;
}

void OpenIfPresent(int dir, const char* name, int* fd) {
  if (*fd < 0) *fd = openat(dir, name, O_RDONLY | O_CLOEXEC);
}

size_t CompanionIndex(Controller controller) {
  return controller == kMemory ? 0 : controller == kPids ? 1 : 2;
}

bool InV1(const PoolSlot& slot, Controller controller) {
  return slot.companions[CompanionIndex(controller)].dir >= 0;
}

// The directory that holds controller's files for the slot.
int ControllerDir(const PoolSlot& slot, Controller controller) {
  return InV1(slot, controller)
             ? slot.companions[CompanionIndex(controller)].dir
             : slot.dir;
}

// Makes the slot's companion of the same name in controller's v1 hierarchy.
bool MakeCompanion(PoolSlot& slot, Controller controller) {
  Companion& companion = slot.companions[CompanionIndex(controller)];
  if (companion.dir >= 0) return true;
  const std::string path = V1RunsDirectory(controller) +
                           slot.path.substr(slot.path.rfind('/'));
  if (mkdir(path.c_str(), 0755) != 0) return false;
  companion.dir = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (companion.dir >= 0) {
    companion.procs = openat(companion.dir, "cgroup.procs", O_WRONLY | O_CLOEXEC);
  }
  if (companion.procs < 0) {
    CloseFd(companion.dir);
    rmdir(path.c_str());
    return false;
  }
  companion.path = path;
  slot.joins[slot.join_count++] = companion.procs;
  return true;
}

// The text of a small cgroup file read from its start.
std::string_view ReadAt(int fd, char* buffer, size_t size) {
  if (fd < 0) return {};
  ssize_t n;
  do {
    n = pread(fd, buffer, size - 1, 0);
  } while (n < 0 && errno == EINTR);
  return n > 0 ? std::string_view(buffer, static_cast<size_t>(n)) : "";
}

// The number after "key " at the start of a line of text; 0 when absent.
uint64_t KeyedValue(std::string_view text, std::string_view key) {
  for (size_t at = 0; at < text.size();) {
    const size_t end = std::min(text.find('\n', at), text.size());
    const std::string_view line = text.substr(at, end - at);
    if (line.size() > key.size() && line.starts_with(key) &&
        line[key.size()] == ' ') {
      return std::strtoull(std::string(line.substr(key.size() + 1)).c_str(),
                           nullptr, 10);
    }
    at = end + 1;
  }
  return 0;
}

// Sum of "name=N" fields over the lines of io.stat (one line a device).
uint64_t SumField(std::string_view text, std::string_view name) {
  uint64_t sum = 0;
  const std::string field = " " + std::string(name) + "=";
  for (size_t at = text.find(field); at != std::string_view::npos;
       at = text.find(field, at + 1)) {
    sum += std::strtoull(std::string(text.substr(at + field.size(), 24)).c_str(),
                         nullptr, 10);
  }
  return sum;
}

CgroupCounters ReadCounters(const PoolSlot& slot) {
  CgroupCounters now;
  char buffer[4096];
  const std::string_view cpu = ReadAt(slot.cpu_stat, buffer, sizeof buffer);
  now.user_usec = KeyedValue(cpu, "user_usec");
  now.system_usec = KeyedValue(cpu, "system_usec");
  now.oom_kills = KeyedValue(ReadAt(slot.memory_events, buffer, sizeof buffer),
                             "oom_kill");
  now.forks_refused =
      KeyedValue(ReadAt(slot.pids_events, buffer, sizeof buffer), "max");
  const std::string_view io = ReadAt(slot.io_stat, buffer, sizeof buffer);
  now.io_read = SumField(io, "rbytes");
  now.io_write = SumField(io, "wbytes");
  return now;
}

// Opens the files of controllers that reached the slot since it was made.
void OpenControllerFiles(PoolSlot& slot) {
  unsigned present = RunControllers();
  if (present == slot.controllers) return;
  for (const Controller controller : {kMemory, kPids, kCpu}) {
    if ((present & V1Controllers() & controller) != 0 &&
        !MakeCompanion(slot, controller)) {
      present &= ~static_cast<unsigned>(controller);
    }
  }
  if ((present & kMemory) != 0) {
    const bool v1 = InV1(slot, kMemory);
    const int dir = ControllerDir(slot, kMemory);
    OpenIfPresent(dir, v1 ? "memory.oom_control" : "memory.events",
                  &slot.memory_events);
    if (slot.memory_peak < 0) {
      slot.memory_peak =
          openat(dir, v1 ? "memory.max_usage_in_bytes" : "memory.peak",
                 O_RDWR | O_CLOEXEC);
    }
  }
  if ((present & kPids) != 0) {
    OpenIfPresent(ControllerDir(slot, kPids), "pids.events", &slot.pids_events);
  }
  if ((present & kIo) != 0) OpenIfPresent(slot.dir, "io.stat", &slot.io_stat);
  slot.controllers = present;
  slot.last = ReadCounters(slot);
}

void CloseSlot(PoolSlot& slot) {
  for (int* fd : {&slot.dir, &slot.kill, &slot.events, &slot.cpu_stat,
                  &slot.memory_peak, &slot.memory_events, &slot.pids_events,
                  &slot.io_stat}) {
    CloseFd(*fd);
  }
  for (Companion& companion : slot.companions) {
    CloseFd(companion.dir);
    CloseFd(companion.procs);
  }
  slot.join_count = 0;
}

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

std::string LimitText(uint64_t value) {
  return value == 0 ? "max" : std::to_string(value);
}

// A share of a core as microseconds a period (at least 1 ms): cpu.max's
// "QUOTA PERIOD", or v1's cpu.cfs_quota_us, whose period is the same.
bool WriteCpuLimit(const PoolSlot& slot, double cpu) {
  const double quota = std::max(1000.0, std::round(cpu * kCpuPeriodUsec));
  const std::string usec = std::to_string(static_cast<uint64_t>(quota));
  if (InV1(slot, kCpu)) {
    return WriteCgroupFile(ControllerDir(slot, kCpu), "cpu.cfs_quota_us",
                           cpu == 0 ? "-1" : usec.c_str());
  }
  const std::string max = (cpu == 0 ? "max" : usec) + " " +
                          std::to_string(kCpuPeriodUsec);
  return WriteCgroupFile(slot.dir, "cpu.max", max.c_str());
}

// Memory without swap. v1 keeps memory and swap together in a limit that may
// never be below memory's (and that has no file where swap is not counted):
// it is lifted first and set last.
bool WriteMemoryLimit(const PoolSlot& slot, uint64_t bytes) {
  const int dir = ControllerDir(slot, kMemory);
  if (!InV1(slot, kMemory)) {
    return WriteCgroupFile(dir, "memory.max", LimitText(bytes).c_str()) &&
           WriteCgroupFile(dir, "memory.swap.max", bytes != 0 ? "0" : "max");
  }
  const std::string text = bytes != 0 ? std::to_string(bytes) : "-1";
  const char* both = "memory.memsw.limit_in_bytes";
  const bool swap = faccessat(dir, both, W_OK, 0) == 0;
  return (!swap || WriteCgroupFile(dir, both, "-1")) &&
         WriteCgroupFile(dir, "memory.limit_in_bytes", text.c_str()) &&
         (!swap || WriteCgroupFile(dir, both, text.c_str()));
}

// Writes the limits that differ from the slot's; 0 or the errno.
int ApplyLimits(PoolSlot& slot, const RunLimits& limits) {
  RunLimits& had = slot.applied;
  if (limits.memory_bytes != had.memory_bytes) {
    if (!WriteMemoryLimit(slot, limits.memory_bytes)) return errno;
    had.memory_bytes = limits.memory_bytes;
  }
  if (limits.pids != had.pids) {
    if (!WriteCgroupFile(ControllerDir(slot, kPids), "pids.max",
                         LimitText(limits.pids).c_str())) {
      return errno;
    }
    had.pids = limits.pids;
  }
  if (limits.cpu != had.cpu) {
    if (!WriteCpuLimit(slot, limits.cpu)) return errno;
    had.cpu = limits.cpu;
  }
  return 0;
}

// Restarts memory.peak for this descriptor; kernels before 6.12 refuse, and
// then a reused slot's peak would be an older run's: it is left unknown.
void ResetPeak(PoolSlot& slot) {
  if (slot.memory_peak < 0 || !slot.peak_resets) return;
  slot.peak_resets = write(slot.memory_peak, "0", 1) == 1;
}

bool Populated(const PoolSlot& slot) {
  char buffer[128];
  return KeyedValue(ReadAt(slot.events, buffer, sizeof buffer), "populated") !=
         0;
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

CgroupFigures Figures(PoolSlot& slot) {
  const CgroupCounters now = ReadCounters(slot);
  const CgroupCounters& was = slot.last;
  CgroupFigures figures;
  figures.user_usec = now.user_usec - was.user_usec;
  figures.system_usec = now.system_usec - was.system_usec;
  figures.io_read = now.io_read - was.io_read;
  figures.io_write = now.io_write - was.io_write;
  figures.oom_kills = now.oom_kills - was.oom_kills;
  figures.forks_refused = now.forks_refused - was.forks_refused;
  if (slot.memory_peak >= 0 && (slot.peak_resets || !slot.used)) {
    char buffer[64];
    figures.memory_peak = std::strtoull(
        std::string(ReadAt(slot.memory_peak, buffer, sizeof buffer)).c_str(),
        nullptr, 10);
  }
  figures.controllers = slot.controllers;
  slot.last = now;
  slot.used = true;
  return figures;
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
