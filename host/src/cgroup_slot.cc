// The files of a pooled run cgroup: limits written, counters read, and the
// v1 companions of the hybrid layout.
#include "cgroup_slot.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <string>
#include <string_view>

namespace qvehost::internal {
void CloseFd(int& fd) {
  if (fd >= 0) close(fd);
  fd = -1;
}

void OpenIfPresent(int dir, const char* name, int* fd) {
  if (*fd < 0) *fd = openat(dir, name, O_RDONLY | O_CLOEXEC);
}

namespace {

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

}  // namespace

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

namespace {

constexpr uint64_t kCpuPeriodUsec = 100000;

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

}  // namespace

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

}  // namespace qvehost::internal
