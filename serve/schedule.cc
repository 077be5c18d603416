#include "serve/schedule.h"

#include <unistd.h>

#include <algorithm>

#include "qve/embedded.h"

namespace fetchlet::serve {
namespace {

using std::chrono::steady_clock;

enum class State { kIdle, kReady, kRunning };

std::string HostName() {
  char name[256] = {};
  if (gethostname(name, sizeof name - 1) != 0) return "";
  return name;
}

// FNV-1a: the same offsets from one build to the next.
uint64_t StableHash(const std::string& text) {
  uint64_t hash = 14695981039346656037ull;
  for (const char c : text) {
    hash ^= static_cast<unsigned char>(c);
    hash *= 1099511628211ull;
  }
  return hash;
}

}  // namespace

struct Scheduler::Entry {
  CollectorPtr collector;
  State state = State::kIdle;
  bool removed = false;
  SteadyTime next_due{};
  SteadyTime ready_key{};
  uint64_t evaluation = 0;
  std::string request_id;
  bool ended = false;  // by a reload or the stop

  const CollectorConfig& config() const { return collector->config(); }
};

Duration JitterOffset(const std::string& host, const std::string& collector,
                      Duration interval, double jitter) {
  constexpr uint64_t kSteps = 1000000;
  const uint64_t step = StableHash(host + '\0' + collector) % kSteps;
  const double share = static_cast<double>(step) / kSteps * jitter;
  return Duration(static_cast<int64_t>(
      share * static_cast<double>(interval.count())));
}

Scheduler::Scheduler(int workers, double jitter)
    : jitter_(jitter), host_(HostName()) {
  threads_.emplace_back(&Scheduler::TimerLoop, this);
  for (int i = 0; i < std::max(workers, 1); ++i) {
    threads_.emplace_back(&Scheduler::WorkerLoop, this);
  }
}

Scheduler::~Scheduler() { Stop(); }

void Scheduler::SetCollectors(std::vector<CollectorPtr> collectors) {
  std::unique_lock lock(mutex_);
  const SteadyTime now = steady_clock::now();
  std::map<Collector*, std::shared_ptr<Entry>> entries;
  for (const CollectorPtr& collector : collectors) {
    auto found = entries_.find(collector.get());
    if (found != entries_.end()) {
      entries.emplace(collector.get(), std::move(found->second));
      entries_.erase(found);
      continue;
    }
    auto entry = std::make_shared<Entry>();
    entry->collector = collector;
    const auto& interval = collector->config().interval;
    if (interval) {
      entry->next_due =
          now + JitterOffset(host_, collector->config().name, *interval,
                             jitter_);
    }
    entries.emplace(collector.get(), std::move(entry));
  }
  std::vector<std::shared_ptr<Entry>> removed;
  for (auto& [key, entry] : entries_) {
    entry->removed = true;
    removed.push_back(entry);
  }
  entries_ = std::move(entries);
  order_ = std::move(collectors);
  for (const auto& entry : removed) {
    if (entry->state == State::kReady) entry->state = State::kIdle;
    if (entry->state == State::kRunning) EndRun(*entry, lock);
  }
  timer_wake_.notify_one();
}

std::vector<CollectorPtr> Scheduler::collectors() const {
  std::lock_guard lock(mutex_);
  return order_;
}

void Scheduler::MakeReady(Entry& entry, SteadyTime key) {
  entry.state = State::kReady;
  entry.ready_key = key;
  worker_wake_.notify_one();
}

// The ready run that would be skipped soonest: a collector with a short
// interval is not starved by slow ones with long intervals.
Scheduler::Entry* Scheduler::TakeReady() {
  Entry* best = nullptr;
  for (auto& [key, entry] : entries_) {
    if (entry->state != State::kReady) continue;
    if (best == nullptr || entry->ready_key < best->ready_key) {
      best = entry.get();
    }
  }
  return best;
}

void Scheduler::DispatchDue(SteadyTime now) {
  for (auto& [key, entry] : entries_) {
    const auto& interval = entry->config().interval;
    if (!interval || entry->next_due > now) continue;
    if (entry->state == State::kIdle) {
      MakeReady(*entry, entry->next_due + *interval);
    } else {
      entry->collector->CountSkip();
    }
    entry->next_due += *interval;
    if (entry->next_due <= now) entry->next_due = now + *interval;
  }
}

void Scheduler::EndRun(Entry& entry, std::unique_lock<std::mutex>& lock) {
  if (entry.ended) return;
  entry.ended = true;
  const std::string request_id = entry.request_id;
  const uint64_t evaluation = entry.evaluation;
  lock.unlock();
  agent::End(evaluation, request_id);
  lock.lock();
}

void Scheduler::TimerLoop() {
  std::unique_lock lock(mutex_);
  while (!stopping_) {
    const SteadyTime now = steady_clock::now();
    DispatchDue(now);
    SteadyTime wake = now + std::chrono::hours(1);
    for (const auto& [key, entry] : entries_) {
      if (entry->config().interval) wake = std::min(wake, entry->next_due);
    }
    if (!stopping_) timer_wake_.wait_until(lock, wake);
  }
}

void Scheduler::Run(Entry& entry, std::unique_lock<std::mutex>& lock) {
  entry.state = State::kRunning;
  entry.ended = false;
  entry.evaluation = ++next_evaluation_;
  entry.request_id = "fetchlet-serve-" + std::to_string(entry.evaluation);
  const agent::Call call{entry.evaluation, entry.request_id,
                         steady_clock::now() + entry.config().timeout};
  lock.unlock();
  agent::Outcome outcome = entry.collector->Evaluate(call);
  lock.lock();
  // Ended by a reload or the stop counts as timed out as well.
  outcome.timed_out = outcome.timed_out || entry.ended;
  lock.unlock();
  entry.collector->Publish(outcome);
  lock.lock();
  entry.state = State::kIdle;
  run_done_.notify_all();
}

void Scheduler::WorkerLoop() {
  std::unique_lock lock(mutex_);
  for (;;) {
    Entry* entry = nullptr;
    worker_wake_.wait(lock, [&] {
      return stopping_ || (entry = TakeReady()) != nullptr;
    });
    if (stopping_) return;
    // Keeps the entry alive through a reload that removes it mid-run.
    const std::shared_ptr<Entry> keep = entries_.at(entry->collector.get());
    Run(*keep, lock);
  }
}

void Scheduler::RefreshOnScrape(SteadyTime deadline) {
  std::unique_lock lock(mutex_);
  const SteadyTime now = steady_clock::now();
  std::vector<std::pair<std::shared_ptr<Entry>, uint64_t>> waits;
  for (auto& [key, entry] : entries_) {
    const auto& cache_for = entry->config().cache_for;
    if (entry->config().interval || !cache_for) continue;
    const auto snapshot = entry->collector->snapshot();
    if (snapshot->generation > 0 && now - snapshot->finished < *cache_for) {
      continue;
    }
    if (entry->state == State::kIdle) MakeReady(*entry, now);
    waits.emplace_back(entry, snapshot->generation);
  }
  run_done_.wait_until(lock, deadline, [&] {
    return stopping_ || std::all_of(waits.begin(), waits.end(), [](auto& w) {
             return w.first->collector->snapshot()->generation > w.second;
           });
  });
}

void Scheduler::Stop() {
  std::unique_lock lock(mutex_);
  if (threads_.empty()) return;
  stopping_ = true;
  std::vector<std::shared_ptr<Entry>> running;
  for (auto& [key, entry] : entries_) {
    if (entry->state == State::kRunning) running.push_back(entry);
  }
  for (const auto& entry : running) EndRun(*entry, lock);
  timer_wake_.notify_all();
  worker_wake_.notify_all();
  run_done_.notify_all();
  std::vector<std::thread> threads = std::move(threads_);
  lock.unlock();
  for (std::thread& thread : threads) thread.join();
}

}  // namespace fetchlet::serve
