#include "serve/http_guard.h"

#include <sys/socket.h>

#include <algorithm>

#include "serve/http_server.h"

namespace fetchlet::serve {
namespace {

constexpr std::chrono::milliseconds kSweepEvery{250};

}  // namespace

ConnectionGuard::ConnectionGuard(const ListenerLimits& limits)
    : head_deadline_(limits.head_deadline),
      idle_(limits.idle),
      write_deadline_(limits.write_deadline),
      max_connections_(std::max<std::size_t>(limits.max_connections, 1)),
      max_unsent_(limits.max_unsent),
      watchdog_([this] { Watch(); }) {}

ConnectionGuard::~ConnectionGuard() {
  {
    std::lock_guard lock(mutex_);
    quitting_ = true;
  }
  quit_.notify_all();
  watchdog_.join();
}

ConnectionGuard::Handle ConnectionGuard::Opened(int fd) {
  std::lock_guard lock(mutex_);
  const Clock::time_point now = Clock::now();
  conns_.push_back({fd, Stage::kHead, now, now + head_deadline_, false});
  const Handle conn = std::prev(conns_.end());
  if (++live_ > max_connections_) EvictOne(conn);
  return conn;
}

void ConnectionGuard::Closed(Handle conn) {
  std::lock_guard lock(mutex_);
  Hold(*conn, 0);
  if (!conn->ended) --live_;
  conns_.erase(conn);
}

void ConnectionGuard::Enter(Handle conn, Stage stage, std::size_t unsent) {
  std::lock_guard lock(mutex_);
  const Clock::time_point now = Clock::now();
  // A kept-alive connection's next head is due by its idle deadline, and
  // once its request line is in, within the head deadline too.
  if (stage == Stage::kHead && conn->stage == Stage::kIdle) {
    conn->deadline = std::min(conn->deadline, now + head_deadline_);
  } else if (stage == Stage::kWriting) {
    conn->deadline = now + write_deadline_;
  } else if (stage == Stage::kIdle) {
    conn->deadline = now + idle_;
  }
  conn->stage = stage;
  conn->since = now;
  Hold(*conn, stage == Stage::kWriting ? unsent : 0);
}

// Counts conn's answer as held; past the bound, ends the connections that
// have waited longest to take theirs, conn last.
void ConnectionGuard::Hold(Conn& conn, std::size_t unsent) {
  if (conn.ended) return;  // End took its answer off already
  unsent_ = unsent_ - conn.unsent + unsent;
  conn.unsent = unsent;
  while (unsent_ > max_unsent_) {
    Conn* oldest = &conn;
    for (Conn& other : conns_) {
      if (!other.ended && other.unsent > 0 && other.since < oldest->since) {
        oldest = &other;
      }
    }
    if (oldest->ended || oldest->unsent == 0) return;
    End(*oldest);
  }
}

// Its socket is shut down, not closed: libmicrohttpd sees the end on its
// next read or write and closes the descriptor itself.
void ConnectionGuard::End(Conn& conn) {
  shutdown(conn.fd, SHUT_RDWR);
  conn.ended = true;
  --live_;
  unsent_ -= conn.unsent;
  conn.unsent = 0;
}

// Ends the connection waiting longest for its client, else spare itself.
void ConnectionGuard::EvictOne(Handle spare) {
  Conn* oldest = nullptr;
  for (Conn& conn : conns_) {
    if (conn.ended || &conn == &*spare || conn.stage == Stage::kWorking ||
        conn.stage == Stage::kWriting) {
      continue;
    }
    if (oldest == nullptr || conn.since < oldest->since) oldest = &conn;
  }
  End(oldest != nullptr ? *oldest : *spare);
}

void ConnectionGuard::Watch() {
  std::unique_lock lock(mutex_);
  while (!quit_.wait_for(lock, kSweepEvery, [this] { return quitting_; })) {
    const Clock::time_point now = Clock::now();
    for (Conn& conn : conns_) {
      if (!conn.ended && conn.stage != Stage::kWorking && conn.deadline <= now) {
        End(conn);
      }
    }
  }
}

}  // namespace fetchlet::serve
