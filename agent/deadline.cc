#include "agent/deadline.h"

#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>

namespace fetchlet::agent::internal {
namespace {

struct Watched {
  SteadyTime deadline;
  uint64_t evaluation;
  std::string request_id;
  bool expired = false;
};

// One thread for every deadline, started with the first: a thread per
// evaluation would cost a start and a join each time.
class Watcher {
 public:
  static Watcher& Instance() {
    static Watcher watcher;
    return watcher;
  }

  uint64_t Add(SteadyTime deadline, const Call& call) {
    std::lock_guard lock(mutex_);
    if (!thread_.joinable()) thread_ = std::thread(&Watcher::Loop, this);
    const uint64_t ticket = ++last_ticket_;
    watched_.emplace(ticket,
                     Watched{deadline, call.evaluation, call.request_id});
    wake_.notify_one();
    return ticket;
  }

  // Whether it had expired. Waits for an End in progress, so that no
  // abort reaches a later run under the same request identifier.
  bool Remove(uint64_t ticket) {
    std::unique_lock lock(mutex_);
    ending_done_.wait(lock, [&] { return ending_ != ticket; });
    const auto found = watched_.find(ticket);
    const bool expired = found->second.expired;
    watched_.erase(found);
    return expired;
  }

 private:
  Watcher() = default;
  ~Watcher() {
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
    }
    wake_.notify_one();
    if (thread_.joinable()) thread_.join();
  }

  void Loop() {
    std::unique_lock lock(mutex_);
    while (!stopping_) {
      const SteadyTime now = std::chrono::steady_clock::now();
      SteadyTime wake = SteadyTime::max();
      for (auto& [ticket, watched] : watched_) {
        if (watched.expired) continue;
        if (watched.deadline > now) {
          wake = std::min(wake, watched.deadline);
          continue;
        }
        watched.expired = true;
        EndUnlocked(ticket, watched, lock);
        wake = now;  // the map may have changed meanwhile: look again
        break;
      }
      if (wake == SteadyTime::max()) {
        wake_.wait(lock);
      } else if (wake > now) {
        wake_.wait_until(lock, wake);
      }
    }
  }

  void EndUnlocked(uint64_t ticket, const Watched& watched,
                   std::unique_lock<std::mutex>& lock) {
    const uint64_t evaluation = watched.evaluation;
    const std::string request_id = watched.request_id;
    ending_ = ticket;
    lock.unlock();
    End(evaluation, request_id);
    lock.lock();
    ending_ = 0;
    ending_done_.notify_all();
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  std::condition_variable ending_done_;
  std::map<uint64_t, Watched> watched_;
  uint64_t last_ticket_ = 0;
  uint64_t ending_ = 0;  // the ticket being ended, 0: none
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace

DeadlineWatch::DeadlineWatch(const Call& call) {
  if (call.deadline) ticket_ = Watcher::Instance().Add(*call.deadline, call);
}

bool DeadlineWatch::Stop() {
  if (ticket_ != 0) {
    expired_ = Watcher::Instance().Remove(ticket_);
    ticket_ = 0;
  }
  return expired_;
}

}  // namespace fetchlet::agent::internal
