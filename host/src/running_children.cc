// The children the host has started and not yet reaped, so that a program
// being interrupted, or a scheduler ending one evaluation, can end them.
#include <atomic>
#include <csignal>
#include <cstdint>
#include <mutex>
#include <unordered_map>
#include <unordered_set>

#include "child_process.h"
#include "qve/embedded.h"

namespace qvehost::internal {
namespace {

std::mutex& RunningMutex() {
  static std::mutex mutex;
  return mutex;
}

// Each running child with the evaluation that started it (0: none).
std::unordered_map<ChildProcess*, uint64_t>& Running() {
  static auto* running = new std::unordered_map<ChildProcess*, uint64_t>;
  return *running;
}

// Evaluations whose scope lives somewhere.
std::unordered_set<uint64_t>& ActiveEvaluations() {
  static auto* active = new std::unordered_set<uint64_t>;
  return *active;
}

// Evaluations ended while their scope still lives: a child they start late
// is stopped as soon as it is tracked.
std::unordered_set<uint64_t>& EndedEvaluations() {
  static auto* ended = new std::unordered_set<uint64_t>;
  return *ended;
}

thread_local uint64_t t_evaluation = 0;

// Stops so far; written under the running mutex.
std::atomic<uint64_t> g_stops{0};

}  // namespace

uint64_t StopCount() { return g_stops.load(); }

void TrackRunning(ChildProcess* child, uint64_t stops_before) {
  std::lock_guard lock(RunningMutex());
  try {
    Running().emplace(child, t_evaluation);
  } catch (const std::bad_alloc&) {
    // Only the emergency stop misses this child.
  }
  if (g_stops.load() != stops_before ||
      (t_evaluation != 0 && EndedEvaluations().contains(t_evaluation))) {
    child->SendStop();
  }
}

void ForgetRunning(ChildProcess* child) {
  std::lock_guard lock(RunningMutex());
  Running().erase(child);
}

void StopRunningChildren() {
  std::lock_guard lock(RunningMutex());
  g_stops.fetch_add(1);
  for (const auto& [child, evaluation] : Running()) child->SendStop();
}

}  // namespace qvehost::internal

namespace qvehost {

using internal::ActiveEvaluations;
using internal::EndedEvaluations;
using internal::Running;
using internal::RunningMutex;

void KillRunningCommands() { internal::StopRunningChildren(); }

EvaluationScope::EvaluationScope(uint64_t evaluation) {
  std::lock_guard lock(RunningMutex());
  try {
    ActiveEvaluations().insert(evaluation);
    internal::t_evaluation = evaluation;
  } catch (const std::bad_alloc&) {
    // Untagged: only an emergency stop reaches this evaluation's commands.
  }
}

EvaluationScope::~EvaluationScope() {
  std::lock_guard lock(RunningMutex());
  ActiveEvaluations().erase(internal::t_evaluation);
  EndedEvaluations().erase(internal::t_evaluation);
  internal::t_evaluation = 0;
}

void EndEvaluation(uint64_t evaluation) {
  if (evaluation == 0) return;
  std::lock_guard lock(RunningMutex());
  if (!ActiveEvaluations().contains(evaluation)) return;  // already over
  try {
    EndedEvaluations().insert(evaluation);
  } catch (const std::bad_alloc&) {
    // A command started after this point runs to its own end.
  }
  for (const auto& [child, owner] : Running()) {
    if (owner == evaluation) child->SendStop();
  }
}

}  // namespace qvehost
