// Runs collectors on a fixed set of workers. A collector never runs twice
// at once: a run that falls due while the last is still waiting or running
// is skipped and counted. Each run carries its collector's timeout as its
// deadline (agent::Evaluate ends it there); a reload that removes a running
// collector, or the stop, ends its run the same way. Either counts as timed
// out whatever the run then reports.
#ifndef FETCHLET_SERVE_SCHEDULE_H_
#define FETCHLET_SERVE_SCHEDULE_H_

#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "serve/collector.h"

namespace fetchlet::serve {

// Offset of a collector's first run within [0, jitter x interval), from a
// hash of the host name and the collector's name: stable across restarts,
// spread across hosts.
Duration JitterOffset(const std::string& host, const std::string& collector,
                      Duration interval, double jitter);

class Scheduler {
 public:
  Scheduler(int workers, double jitter);
  ~Scheduler();  // Stop()
  Scheduler(const Scheduler&) = delete;
  Scheduler& operator=(const Scheduler&) = delete;

  // Replaces the set of collectors. One present before and after (the same
  // pointer) keeps its schedule; a removed one's run is ended.
  void SetCollectors(std::vector<CollectorPtr> collectors);
  std::vector<CollectorPtr> collectors() const;

  // For a scrape: evaluates each on_scrape collector whose value is older
  // than its cache_for, one evaluation shared by concurrent callers, and
  // waits for them until deadline at most.
  void RefreshOnScrape(SteadyTime deadline);

  // Ends every run and joins the workers.
  void Stop();

 private:
  struct Entry;  // a collector's schedule and run

  void TimerLoop();
  void WorkerLoop();
  void DispatchDue(SteadyTime now);
  void EndRun(Entry& entry, std::unique_lock<std::mutex>& lock);
  void MakeReady(Entry& entry, SteadyTime key);
  Entry* TakeReady();
  void Run(Entry& entry, std::unique_lock<std::mutex>& lock);

  const double jitter_;
  const std::string host_;
  mutable std::mutex mutex_;
  std::condition_variable timer_wake_;
  std::condition_variable worker_wake_;
  std::condition_variable run_done_;
  std::map<Collector*, std::shared_ptr<Entry>> entries_;
  std::vector<CollectorPtr> order_;
  uint64_t next_evaluation_ = 0;
  bool stopping_ = false;
  std::vector<std::thread> threads_;
};

}  // namespace fetchlet::serve

#endif  // FETCHLET_SERVE_SCHEDULE_H_
