// The listener's event loop: every connection's state, moved on by epoll
// events, deadlines and answers from the workers.
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <unordered_map>

#include "serve/http_conn.h"
#include "serve/http_server.h"

namespace fetchlet::serve {
namespace {

constexpr uint64_t kListenTag = 0;
constexpr uint64_t kWakeTag = 1;
// What a closing connection may still send before it is cut off.
constexpr size_t kLingerBytes = 1 << 20;
constexpr std::chrono::seconds kLingerTime{2};
constexpr auto kSweepEvery = std::chrono::milliseconds(250);

struct Job {
  uint64_t id;
  HttpRequest request;
};

struct Done {
  uint64_t id;
  std::string out;
  bool close;
};

}  // namespace

class HttpServer::Loop {
 public:
  explicit Loop(HttpServer& server) : server_(server), limits_(server.limits_) {
    epoll_ = epoll_create1(EPOLL_CLOEXEC);
    Watch(server_.listen_fd_, EPOLLIN, kListenTag, EPOLL_CTL_ADD);
    Watch(server_.wake_fd_, EPOLLIN, kWakeTag, EPOLL_CTL_ADD);
    for (int i = 0; i < limits_.workers; ++i) {
      workers_.emplace_back([this] { Work(); });
    }
  }

  ~Loop() {
    {
      std::lock_guard lock(mutex_);
      quitting_ = true;
    }
    jobs_ready_.notify_all();
    for (std::thread& worker : workers_) worker.join();
    conns_.clear();
    close(epoll_);
  }

  void Run() {
    std::array<epoll_event, 256> events{};
    Clock::time_point swept = Clock::now();
    while (!server_.stopping_) {
      const int n = epoll_wait(epoll_, events.data(),
                               static_cast<int>(events.size()),
                               static_cast<int>(kSweepEvery.count()));
      for (int i = 0; i < n; ++i) {
        const uint64_t tag = events[static_cast<size_t>(i)].data.u64;
        if (tag == kListenTag) {
          Accept();
        } else if (tag == kWakeTag) {
          Finish();
        } else if (const auto found = conns_.find(tag); found != conns_.end()) {
          Pump(*found->second);
        }
      }
      if (Clock::now() - swept >= kSweepEvery) {
        Sweep();
        swept = Clock::now();
      }
    }
  }

 private:
  void Watch(int fd, uint32_t events, uint64_t tag, int op) {
    epoll_event event{};
    event.events = events;
    event.data.u64 = tag;
    epoll_ctl(epoll_, op, fd, &event);
  }

  // A batch at a time: a flood of connections must not keep the loop from
  // the clients it has (the listening socket is level-triggered).
  void Accept() {
    for (int i = 0; i < 64; ++i) {
      const int fd = accept4(server_.listen_fd_, nullptr, nullptr,
                             SOCK_NONBLOCK | SOCK_CLOEXEC);
      if (fd < 0) {
        if (errno == EINTR || errno == ECONNABORTED) continue;
        if (errno == EMFILE || errno == ENFILE) Pause();
        return;
      }
      if (conns_.size() >= limits_.max_connections && !EvictOne()) {
        close(fd);
        continue;
      }
      Open(fd);
    }
  }

  // No descriptor left: stop accepting until the next sweep.
  void Pause() {
    epoll_ctl(epoll_, EPOLL_CTL_DEL, server_.listen_fd_, nullptr);
    paused_ = true;
  }

  void Open(int fd) {
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    auto conn = std::make_unique<Conn>();
    conn->id = next_id_++;
    conn->fd = fd;
    conn->since = Clock::now();
    // The whole first head, handshake included, is due within one deadline.
    conn->between_requests = false;
    conn->deadline = conn->since + limits_.head_deadline;
    if (server_.tls_) {
      conn->ssl = SSL_new(server_.tls_.get());
      if (conn->ssl == nullptr || SSL_set_fd(conn->ssl, fd) != 1) return;
      conn->state = Conn::kHandshake;
    }
    Watch(fd, EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLET, conn->id,
          EPOLL_CTL_ADD);
    conns_.emplace(conn->id, std::move(conn));
  }

  // Closes the connection waiting longest for a client; false when every
  // connection is being answered.
  bool EvictOne() {
    Conn* oldest = nullptr;
    for (const auto& [id, conn] : conns_) {
      if (conn->state == Conn::kWaiting || conn->state == Conn::kWriting) {
        continue;
      }
      if (oldest == nullptr || conn->since < oldest->since) {
        oldest = conn.get();
      }
    }
    if (oldest != nullptr) Close(*oldest);
    return oldest != nullptr;
  }

  void Sweep() {
    if (paused_ && conns_.size() < limits_.max_connections) {
      Watch(server_.listen_fd_, EPOLLIN, kListenTag, EPOLL_CTL_ADD);
      paused_ = false;
    }
    const Clock::time_point now = Clock::now();
    std::vector<Conn*> expired;
    for (const auto& [id, conn] : conns_) {
      if (conn->state != Conn::kWaiting && conn->deadline <= now) {
        expired.push_back(conn.get());
      }
    }
    for (Conn* conn : expired) Close(*conn);
  }

  void Close(Conn& conn) {
    if (conn.state == Conn::kWriting) unsent_ -= conn.out.size();
    conns_.erase(conn.id);
  }

  // Responses held for clients that do not read them are bounded in all:
  // past the bound, the one waiting longest for its client is dropped.
  void BoundUnsent(const Conn& keep) {
    while (unsent_ > limits_.max_unsent) {
      Conn* oldest = nullptr;
      for (const auto& [id, conn] : conns_) {
        if (conn->state == Conn::kWriting && conn.get() != &keep &&
            (oldest == nullptr || conn->since < oldest->since)) {
          oldest = conn.get();
        }
      }
      if (oldest == nullptr) return;
      Close(*oldest);
    }
  }

  // Moves conn on as far as it can go without waiting.
  void Pump(Conn& conn) {
    for (;;) {
      bool more = false;
      switch (conn.state) {
        case Conn::kHandshake: more = Handshake(conn); break;
        case Conn::kReading: more = ReadHead(conn); break;
        case Conn::kWaiting: return;
        case Conn::kWriting: more = WriteOut(conn); break;
        case Conn::kLinger: more = Linger(conn); break;
      }
      if (!more) return;
    }
  }

  // Each step returns true to go on; false when conn waits or is gone.
  bool Handshake(Conn& conn) {
    const int result = SSL_accept(conn.ssl);
    if (result == 1) {
      conn.state = Conn::kReading;
      return true;
    }
    if (conn.TlsFailure(result) == Io::kEnd) Close(conn);
    return false;
  }

  bool ReadHead(Conn& conn) {
    if (!conn.in.empty()) {
      HttpRequest request;
      const HeadParse parse = ParseHead(conn.in, limits_.head, &request);
      if (parse.status == 0) {
        conn.in.erase(0, parse.used);
        Dispatch(conn, std::move(request));
        return false;
      }
      if (parse.status > 0) {
        Respond(conn, Serialize(ErrorResponse(parse.status), false), true);
        return true;
      }
    }
    std::array<char, 16384> buffer;
    size_t got = 0;
    const Io io = conn.Read(buffer.data(), buffer.size(), &got);
    if (io == Io::kAgain) return false;
    if (io == Io::kEnd) {
      Close(conn);
      return false;
    }
    if (conn.between_requests) {
      conn.between_requests = false;
      conn.deadline = Clock::now() + limits_.head_deadline;
    }
    conn.in.append(buffer.data(), got);
    return true;
  }

  void Dispatch(Conn& conn, HttpRequest request) {
    conn.state = Conn::kWaiting;
    {
      std::lock_guard lock(mutex_);
      jobs_.push_back({conn.id, std::move(request)});
    }
    jobs_ready_.notify_one();
  }

  void Respond(Conn& conn, std::string out, bool close_after) {
    conn.out = std::move(out);
    unsent_ += conn.out.size();
    conn.written = 0;
    conn.close_after = close_after;
    conn.state = Conn::kWriting;
    conn.since = Clock::now();
    conn.deadline = conn.since + limits_.write_deadline;
  }

  bool WriteOut(Conn& conn) {
    while (conn.written < conn.out.size()) {
      size_t put = 0;
      const Io io = conn.Write(conn.out.data() + conn.written,
                               conn.out.size() - conn.written, &put);
      if (io == Io::kAgain) return false;
      if (io == Io::kEnd) {
        Close(conn);
        return false;
      }
      conn.written += put;
    }
    unsent_ -= conn.out.size();
    conn.out = std::string();  // a large body is not kept for the next one
    conn.since = Clock::now();
    if (conn.close_after) {
      // Told the client; what it still sends is read and dropped for a
      // moment, so that our answer is not lost to a reset.
      if (conn.ssl != nullptr) SSL_shutdown(conn.ssl);
      shutdown(conn.fd, SHUT_WR);
      conn.state = Conn::kLinger;
      conn.deadline = conn.since + kLingerTime;
      return true;
    }
    conn.state = Conn::kReading;
    conn.between_requests = conn.in.empty();
    conn.deadline =
        conn.since +
        (conn.between_requests ? limits_.idle : limits_.head_deadline);
    if (conn.in.empty()) conn.in.shrink_to_fit();
    return true;
  }

  bool Linger(Conn& conn) {
    std::array<char, 16384> buffer;
    for (;;) {
      const ssize_t n = recv(conn.fd, buffer.data(), buffer.size(), 0);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return false;
      conn.discarded += n > 0 ? static_cast<size_t>(n) : 0;
      if (n <= 0 || conn.discarded > kLingerBytes) {
        Close(conn);
        return false;
      }
    }
  }

  void Work() {
    for (;;) {
      Job job;
      {
        std::unique_lock lock(mutex_);
        jobs_ready_.wait(lock, [this] { return quitting_ || !jobs_.empty(); });
        if (quitting_) return;
        job = std::move(jobs_.front());
        jobs_.pop_front();
      }
      HttpResponse response = server_.Answer(job.request);
      const bool close = response.close || !job.request.keep_alive;
      response.close = close;
      Done done{job.id, Serialize(response, job.request.method == "HEAD"),
                close};
      {
        std::lock_guard lock(mutex_);
        done_.push_back(std::move(done));
      }
      server_.Wake();
    }
  }

  void Finish() {
    uint64_t count;
    while (read(server_.wake_fd_, &count, sizeof count) > 0) {
    }
    std::deque<Done> done;
    {
      std::lock_guard lock(mutex_);
      done.swap(done_);
    }
    for (Done& answer : done) {
      const auto found = conns_.find(answer.id);
      if (found == conns_.end()) continue;
      Conn& conn = *found->second;
      Respond(conn, std::move(answer.out), answer.close);
      BoundUnsent(conn);
      Pump(conn);
    }
  }

  HttpServer& server_;
  const ListenerLimits limits_;
  int epoll_ = -1;
  bool paused_ = false;
  std::size_t unsent_ = 0;  // bytes of responses in kWriting
  uint64_t next_id_ = 2;
  std::unordered_map<uint64_t, std::unique_ptr<Conn>> conns_;
  std::mutex mutex_;
  std::condition_variable jobs_ready_;
  std::deque<Job> jobs_;    // guarded by mutex_
  std::deque<Done> done_;   // guarded by mutex_
  bool quitting_ = false;   // guarded by mutex_
  std::vector<std::thread> workers_;
};

void HttpServer::Run() {
  if (listen_fd_ < 0) return;
  Loop loop(*this);
  loop.Run();
}

}  // namespace fetchlet::serve
