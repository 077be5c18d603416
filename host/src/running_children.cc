// The children the host has started and not yet reaped, so that a program
// being interrupted can end them all.
#include <csignal>
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

}  // namespace

void TrackRunning(ChildProcess* child) {
  std::lock_guard lock(RunningMutex());
  try {
    Running().insert(child);
  } catch (const std::bad_alloc&) {
    // Only the emergency stop misses this child.
  }
}

void ForgetRunning(ChildProcess* child) {
  std::lock_guard lock(RunningMutex());
  Running().erase(child);
}

void StopRunningChildren() {
  std::lock_guard lock(RunningMutex());
  for (ChildProcess* child : Running()) {
    child->SignalGroup(child->stop_signal_ != 0 ? child->stop_signal_ : SIGKILL);
  }
}

}  // namespace qvehost::internal

namespace qvehost {

void KillRunningCommands() { internal::StopRunningChildren(); }

}  // namespace qvehost
