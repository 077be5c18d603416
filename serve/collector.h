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

#include "cli/plugin.h"
#include "serve/config.h"
#include "serve/evaluate.h"
#include "serve/model.h"

namespace fetchlet::serve {

using SteadyTime = std::chrono::steady_clock::time_point;

// Label values of fetchlet_collector_failures_total{kind}.
constexpr std::array<const char*, 8> kFailureKinds = {
    "timeout",   "run",      "invalid_request", "process_limit",
    "no_result", "no_value", "parse",           "resource"};

struct Snapshot {
  FamiliesPtr families;     // empty after a failed evaluation
  std::string text;         // families rendered once, in each format
  std::string openmetrics;
  bool up = false;
  double duration_seconds = 0;
  double last_success_unix = 0;  // 0: never
  std::string last_error;
  SteadyTime finished{};   // epoch: not evaluated yet
  uint64_t generation = 0;
  // What the collector's commands cost: totals since serve started, and the
  // largest memory of the last evaluation's commands.
  double cpu_user_seconds = 0;
  double cpu_system_seconds = 0;
  double io_read_bytes = 0;
  double io_write_bytes = 0;
  double memory_peak_bytes = 0;
};

class Collector {
 public:
  Collector(CollectorConfig config, const ::fetchlet::Family& entry_points);

  const CollectorConfig& config() const { return config_; }
  const ::fetchlet::Family& entry_points() const { return entry_points_; }

  std::shared_ptr<const Snapshot> snapshot() const;
  // Maps evaluation, renders it and publishes the result; counts failures.
  void Publish(const Evaluation& evaluation);

  void CountSkip() { skipped_.fetch_add(1, std::memory_order_relaxed); }
  uint64_t skipped() const { return skipped_.load(std::memory_order_relaxed); }
  uint64_t failures(size_t kind) const {
    return failures_[kind].load(std::memory_order_relaxed);
  }
  uint64_t duplicates() const {
    return duplicates_.load(std::memory_order_relaxed);
  }

 private:
  void CountFailure(const std::string& kind, uint64_t n);

  const CollectorConfig config_;
  const ::fetchlet::Family entry_points_;
  mutable std::mutex mutex_;
  std::shared_ptr<const Snapshot> snapshot_;
  std::atomic<uint64_t> skipped_{0};
  std::array<std::atomic<uint64_t>, kFailureKinds.size()> failures_{};
  std::atomic<uint64_t> duplicates_{0};
};

using CollectorPtr = std::shared_ptr<Collector>;

}  // namespace fetchlet::serve

#endif  // FETCHLET_SERVE_COLLECTOR_H_
