// Deadlines libmicrohttpd does not keep: it ends a connection only after
// a span without a byte, so a client dripping its head a byte at a time
// would hold a connection for ever. The guard knows each connection's
// stage and ends, from a thread of its own, one whose stage is overdue; at
// the cap it ends the connection that has waited longest for its client,
// and past the bound on answers held for clients, the one that has waited
// longest to take its answer.
#ifndef FETCHLET_SERVE_HTTP_GUARD_H_
#define FETCHLET_SERVE_HTTP_GUARD_H_

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <list>
#include <mutex>
#include <thread>

namespace fetchlet::serve {

struct ListenerLimits;

class ConnectionGuard {
 public:
  using Clock = std::chrono::steady_clock;
  enum class Stage {
    kHead,     // its request head is due
    kWorking,  // a worker answers it: no deadline
    kWriting,  // its client is due to take the answer
    kIdle,     // kept alive, waiting for the next request
  };
  struct Conn {
    int fd = -1;
    Stage stage = Stage::kHead;
    Clock::time_point since;
    Clock::time_point deadline;
    std::size_t unsent = 0;  // bytes of the answer held for it
    bool ended = false;  // shut down by the guard; libmicrohttpd closes it
  };
  using Handle = std::list<Conn>::iterator;

  explicit ConnectionGuard(const ListenerLimits& limits);
  ~ConnectionGuard();
  ConnectionGuard(const ConnectionGuard&) = delete;
  ConnectionGuard& operator=(const ConnectionGuard&) = delete;

  // A new connection on fd; its first head (a handshake too) is due within
  // the head deadline. Past the cap, another connection is ended.
  Handle Opened(int fd);
  // Once libmicrohttpd has closed fd: the guard never touches it after.
  void Closed(Handle conn);
  // unsent: with kWriting, the bytes of the answer held until it is taken.
  void Enter(Handle conn, Stage stage, std::size_t unsent = 0);

 private:
  void Watch();
  void End(Conn& conn);
  void EvictOne(Handle spare);
  void Hold(Conn& conn, std::size_t unsent);

  const std::chrono::milliseconds head_deadline_;
  const std::chrono::milliseconds idle_;
  const std::chrono::milliseconds write_deadline_;
  const std::size_t max_connections_;
  const std::size_t max_unsent_;
  std::mutex mutex_;
  std::condition_variable quit_;
  std::list<Conn> conns_;  // guarded by mutex_
  std::size_t live_ = 0;    // not ended; guarded by mutex_
  std::size_t unsent_ = 0;  // guarded by mutex_
  bool quitting_ = false;  // guarded by mutex_
  std::thread watchdog_;
};

}  // namespace fetchlet::serve

#endif  // FETCHLET_SERVE_HTTP_GUARD_H_
