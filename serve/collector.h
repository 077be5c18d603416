// One configured collector while serve runs: its definition, its counters
// and the snapshot of its last evaluation, which scrapes read and which is
// replaced whole (never changed) after each evaluation.
#ifndef FETCHLET_SERVE_COLLECTOR_H_
#define FETCHLET_SERVE_COLLECTOR_H_

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "agent/evaluate.h"
#include "serve/config.h"
#include "serve/failure.h"
#include "serve/family_claims.h"
#include "serve/model.h"

namespace fetchlet::serve {

using SteadyTime = std::chrono::steady_clock::time_point;

struct Snapshot {
  FamiliesPtr families;     // empty after a failed evaluation
  std::string text;         // families rendered once, in each format
  std::string openmetrics;
  bool up = false;
  double duration_seconds = 0;
  double last_success_unix = 0;  // 0: never
  std::string last_error;
  std::string message;      // a plug-in's first line, as it printed it
  SteadyTime finished{};   // epoch: not evaluated yet
  uint64_t generation = 0;  // 0: not evaluated yet
  // What the collector's commands cost: totals since serve started, and the
  // largest memory of the last evaluation's commands.
  double cpu_user_seconds = 0;
  double cpu_system_seconds = 0;
  double io_read_bytes = 0;
  double io_write_bytes = 0;
  double memory_peak_bytes = 0;
};

// A note carries a command's own text (its standard error, a message): each
// control byte is escaped so that the text cannot begin a log line of its
// own.
std::string LogSafe(std::string_view text);

class Collector {
 public:
  // claims: the names of every collector served beside this one; none
  // when it is served alone.
  Collector(CollectorConfig config, const agent::EntryPoints& entry_points,
            std::shared_ptr<FamilyClaims> claims = nullptr);

  const CollectorConfig& config() const { return config_; }

  // Evaluates the collector's properties and password once, under call.
  agent::Outcome Evaluate(const agent::Call& call) const;

  std::shared_ptr<const Snapshot> snapshot() const;
  // Maps outcome, renders it and publishes the result; counts failures.
  void Publish(const agent::Outcome& outcome);

  void CountSkip() { skipped_.fetch_add(1, std::memory_order_relaxed); }
  uint64_t skipped() const { return skipped_.load(std::memory_order_relaxed); }
  uint64_t failures(Failure failure) const {
    return failures_[static_cast<size_t>(failure)].load(
        std::memory_order_relaxed);
  }
  uint64_t duplicates() const {
    return duplicates_.load(std::memory_order_relaxed);
  }

 private:
  void CountFailure(Failure failure, uint64_t n) {
    failures_[static_cast<size_t>(failure)].fetch_add(
        n, std::memory_order_relaxed);
  }

  const CollectorConfig config_;
  const agent::EntryPoints entry_points_;
  const std::shared_ptr<FamilyClaims> claims_;
  mutable std::mutex mutex_;
  std::shared_ptr<const Snapshot> snapshot_;
  std::atomic<uint64_t> skipped_{0};
  std::array<std::atomic<uint64_t>, kFailureCount> failures_{};
  std::atomic<uint64_t> duplicates_{0};
};

using CollectorPtr = std::shared_ptr<Collector>;

}  // namespace fetchlet::serve

#endif  // FETCHLET_SERVE_COLLECTOR_H_
