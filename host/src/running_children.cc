// The children the host has started and not yet reaped, so that a program
// being interrupted can end them all.
#include <atomic>
#include <csignal>
#include <cstdint>
#include <mutex>
#include <unordered_set>

#include "child_process.h"
#include "qve/embedded.h"

namespace qvehost::internal {
namespace {

std::mutex& RunningMutex() {
  static std::mutex mutex;
  return mutex;
}

std::unordered_set<ChildProcess*>& Running() {
  static auto* running = new std::unordered_set<ChildProcess*>;
  return *running;
}

// Stops so far; written under the running mutex.
std::atomic<uint64_t> g_stops{0};

}  // namespace

uint64_t StopCount() { return g_stops.load(); }

void TrackRunning(ChildProcess* child, uint64_t stops_before) {
  std::lock_guard lock(RunningMutex());
  try {
    Running().insert(child);
  } catch (const std::bad_alloc&) {
    // Only the emergency stop misses this child.
  }
  if (g_stops.load() != stops_before) child->SendStop();
}

void ForgetRunning(ChildProcess* child) {
  std::lock_guard lock(RunningMutex());
  Running().erase(child);
}

void StopRunningChildren() {
  std::lock_guard lock(RunningMutex());
  g_stops.fetch_add(1);
  for (ChildProcess* child : Running()) child->SendStop();
}

}  // namespace qvehost::internal

namespace qvehost {

void KillRunningCommands() { internal::StopRunningChildren(); }

}  // namespace qvehost
