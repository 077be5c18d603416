// The listener on libmicrohttpd: its epoll thread reads every head and
// writes every answer; handlers run on a few workers while their
// connection is suspended, so that a slow render holds no other client.
#include <gnutls/gnutls.h>
#include <gnutls/x509.h>
#include <microhttpd.h>
#include <spdlog/spdlog.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "serve/http_guard.h"
#include "serve/http_server.h"

namespace fetchlet::serve {
namespace {

// Connections past the cap that the guard has ended but libmicrohttpd has
// not closed yet.
constexpr unsigned kEndingConnections = 16;
// What a connection's memory holds beside its head: the answer's head and
// the read buffer's slack.
constexpr std::size_t kConnectionMemorySlack = std::size_t{8} * 1024;

// One per connection, from its start to its close.
struct Link {
  ConnectionGuard::Handle guard;
  bool peer_checked = false;
};

// One per request, from its request line to its end.
struct Exchange {
  Link* link = nullptr;
  HttpRequest request;
  HttpResponse response;
  bool judged = false;
  bool submitted = false;
  std::atomic<bool> answered{false};
  bool queued = false;  // later calls for the same request only go on
};

Link* LinkOf(MHD_Connection* connection) {
  const MHD_ConnectionInfo* info = MHD_get_connection_info(
      connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
  return info != nullptr ? static_cast<Link*>(info->socket_context) : nullptr;
}

MHD_Result AddHeader(void* cls, MHD_ValueKind, const char* key,
                     const char* value) {
  static_cast<HttpHeaders*>(cls)->emplace_back(key, value != nullptr ? value : "");
  return MHD_YES;
}

// The status refusing a complete head, 0 when a handler may answer it. No
// request carries a body: it is refused before a byte of it is read.
int Judge(const HttpRequest& request, const HeadLimits& limits) {
  const std::string_view length = request.Header("Content-Length");
  if ((!length.empty() && length != "0") ||
      !request.Header("Transfer-Encoding").empty()) {
    return 413;
  }
  if (request.method != "GET" && request.method != "HEAD") return 405;
  if (request.headers.size() > limits.headers) return 431;
  return 0;
}

template <typename F>
MHD_OptionItem Callback(MHD_OPTION option, F* function, void* cls) {
  return {option, reinterpret_cast<intptr_t>(function), cls};
}

MHD_OptionItem Text(MHD_OPTION option, const std::string& text) {
  return {option, 0, const_cast<char*>(text.c_str())};
}

}  // namespace

class HttpServer::Daemon {
 public:
  explicit Daemon(HttpServer& server)
      : server_(server), limits_(server.limits_), guard_(limits_) {
    if (server_.tls_) gnutls_session_ticket_key_generate(&ticket_key_);
    for (int i = 0; i < limits_.workers; ++i) {
      workers_.emplace_back([this] { Work(); });
    }
    std::vector<MHD_OptionItem> options = Options();
    unsigned flags = MHD_USE_EPOLL_INTERNAL_THREAD | MHD_ALLOW_SUSPEND_RESUME;
    if (server_.tls_) flags |= MHD_USE_TLS;
    daemon_ = MHD_start_daemon(flags, 0, nullptr, nullptr, &Access, this,
                               MHD_OPTION_ARRAY, options.data(), MHD_OPTION_END);
    // libmicrohttpd owns the socket from here: it closes it when it stops
    // (and on its failures to start, which the checks of MakeHttpServer
    // leave unlikely); closed twice, it could be another thread's.
    server_.listen_fd_ = -1;
  }

  ~Daemon() {
    {
      std::lock_guard lock(mutex_);
      quitting_ = true;
    }
    jobs_ready_.notify_all();
    // Every job taken is answered and its connection resumed: the daemon
    // stops with none suspended.
    for (std::thread& worker : workers_) worker.join();
    if (daemon_ != nullptr) MHD_stop_daemon(daemon_);
    if (ticket_key_.data != nullptr) {
      gnutls_memset(ticket_key_.data, 0, ticket_key_.size);
      gnutls_free(ticket_key_.data);
    }
  }

  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  bool started() const { return daemon_ != nullptr; }

 private:
  struct Job {
    Exchange* exchange;
    MHD_Connection* connection;
  };

  std::vector<MHD_OptionItem> Options() {
    const std::size_t connections =
        limits_.max_connections + kEndingConnections;
    std::vector<MHD_OptionItem> options = {
        {MHD_OPTION_LISTEN_SOCKET, server_.listen_fd_, nullptr},
        {MHD_OPTION_CONNECTION_MEMORY_LIMIT,
         static_cast<intptr_t>(limits_.head.head + kConnectionMemorySlack),
         nullptr},
        {MHD_OPTION_CONNECTION_LIMIT, static_cast<intptr_t>(connections),
         nullptr},
        // Whole seconds: the guard keeps the finer deadlines.
        {MHD_OPTION_CONNECTION_TIMEOUT,
         std::chrono::ceil<std::chrono::seconds>(limits_.idle).count(),
         nullptr},
        Callback(MHD_OPTION_NOTIFY_CONNECTION, &Notify, this),
        Callback(MHD_OPTION_URI_LOG_CALLBACK, &RequestLine, this),
        Callback(MHD_OPTION_NOTIFY_COMPLETED, &Completed, this),
    };
    if (server_.tls_) {
      const ServerTls& tls = *server_.tls_;
      options.push_back(Text(MHD_OPTION_HTTPS_MEM_CERT, tls.cert_pem));
      options.push_back(Text(MHD_OPTION_HTTPS_MEM_KEY, tls.key_pem));
      options.push_back(Text(MHD_OPTION_HTTPS_PRIORITIES, tls.priorities));
      if (!tls.trust_pem.empty()) {
        options.push_back(Text(MHD_OPTION_HTTPS_MEM_TRUST, tls.trust_pem));
      }
    }
    options.push_back({MHD_OPTION_END, 0, nullptr});
    return options;
  }

  static void Notify(void* cls, MHD_Connection* connection,
                     void** socket_context,
                     MHD_ConnectionNotificationCode code) {
    auto& self = *static_cast<Daemon*>(cls);
    if (code == MHD_CONNECTION_NOTIFY_CLOSED) {
      auto* link = static_cast<Link*>(*socket_context);
      self.guard_.Closed(link->guard);
      delete link;
      return;
    }
    const MHD_ConnectionInfo* fd =
        MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
    *socket_context = new Link{self.guard_.Opened(fd->connect_fd)};
    if (self.server_.tls_) self.SetUpSession(connection, *self.server_.tls_);
  }

  // Before the handshake: whether it asks for a certificate, and tickets
  // so that a client resumes its session.
  void SetUpSession(MHD_Connection* connection, const ServerTls& tls) {
    const MHD_ConnectionInfo* info = MHD_get_connection_info(
        connection, MHD_CONNECTION_INFO_GNUTLS_SESSION);
    auto session = static_cast<gnutls_session_t>(info->tls_session);
    if (tls.request_cert) {
      gnutls_certificate_server_set_request(
          session, tls.require_cert ? GNUTLS_CERT_REQUIRE : GNUTLS_CERT_REQUEST);
    }
    gnutls_session_ticket_enable_server(session, &ticket_key_);
  }

  static void* RequestLine(void* cls, const char* uri,
                           MHD_Connection* connection) {
    auto& self = *static_cast<Daemon*>(cls);
    auto* exchange = new Exchange;
    exchange->link = LinkOf(connection);
    exchange->request.target = uri;
    self.guard_.Enter(exchange->link->guard, ConnectionGuard::Stage::kHead);
    return exchange;
  }

  static void Completed(void* cls, MHD_Connection*, void** request_context,
                        MHD_RequestTerminationCode) {
    auto& self = *static_cast<Daemon*>(cls);
    auto* exchange = static_cast<Exchange*>(*request_context);
    if (exchange == nullptr) return;
    self.guard_.Enter(exchange->link->guard, ConnectionGuard::Stage::kIdle);
    delete exchange;
    *request_context = nullptr;
  }

  static MHD_Result Access(void* cls, MHD_Connection* connection,
                           const char*, const char* method, const char*,
                           const char*, size_t*, void** request_context) {
    auto& self = *static_cast<Daemon*>(cls);
    auto* exchange = static_cast<Exchange*>(*request_context);
    if (exchange == nullptr) return MHD_NO;
    if (exchange->queued) return MHD_YES;
    if (exchange->answered) return self.Queue(connection, *exchange);
    if (exchange->submitted) return MHD_YES;
    if (exchange->judged) return self.Submit(connection, *exchange);
    // The first call, with the head only: a refusal is queued now, so that
    // no byte of a body is read and the connection closes after it. An
    // answer is queued from a later call, which keeps the connection.
    exchange->judged = true;
    if (!self.PeerAllowed(connection, *exchange->link)) return MHD_NO;
    HttpRequest& request = exchange->request;
    request.method = method;
    MHD_get_connection_values(connection, MHD_HEADER_KIND, &AddHeader,
                              &request.headers);
    if (const int status = Judge(request, self.limits_.head); status != 0) {
      exchange->response = ErrorResponse(status);
      return self.Queue(connection, *exchange);
    }
    return MHD_YES;
  }

  // A client certificate is judged once, at the connection's first
  // request; a connection refused ends without an answer.
  bool PeerAllowed(MHD_Connection* connection, Link& link) const {
    if (!server_.tls_ || link.peer_checked) return true;
    const ServerTls& tls = *server_.tls_;
    if (tls.verify_cert) {
      const MHD_ConnectionInfo* info = MHD_get_connection_info(
          connection, MHD_CONNECTION_INFO_GNUTLS_SESSION);
      auto session = static_cast<gnutls_session_t>(info->tls_session);
      unsigned count = 0;
      if (gnutls_certificate_get_peers(session, &count) == nullptr ||
          count == 0) {
        if (tls.require_cert) return false;
      } else {
        unsigned status = 0;
        if (gnutls_certificate_verify_peers3(session, nullptr, &status) != 0 ||
            status != 0) {
          return false;
        }
      }
    }
    link.peer_checked = true;
    return true;
  }

  MHD_Result Submit(MHD_Connection* connection, Exchange& exchange) {
    {
      std::lock_guard lock(mutex_);
      if (!quitting_) {
        guard_.Enter(exchange.link->guard, ConnectionGuard::Stage::kWorking);
        exchange.submitted = true;
        MHD_suspend_connection(connection);
        jobs_.push_back({&exchange, connection});
      }
    }
    if (exchange.submitted) {
      jobs_ready_.notify_one();
      return MHD_YES;
    }
    exchange.response = ErrorResponse(503);
    return Queue(connection, exchange);
  }

  void Work() {
    for (;;) {
      Job job{};
      {
        std::unique_lock lock(mutex_);
        jobs_ready_.wait(lock, [this] { return quitting_ || !jobs_.empty(); });
        if (jobs_.empty()) return;
        job = jobs_.front();
        jobs_.pop_front();
      }
      job.exchange->response = server_.Answer(job.exchange->request);
      job.exchange->answered = true;
      MHD_resume_connection(job.connection);
    }
  }

  MHD_Result Queue(MHD_Connection* connection, Exchange& exchange) {
    HttpResponse& answer = exchange.response;
    auto* body = new std::string(std::move(answer.body));
    MHD_Response* response = MHD_create_response_from_buffer_with_free_callback_cls(
        body->size(), body->data(),
        [](void* text) { delete static_cast<std::string*>(text); }, body);
    if (response == nullptr) {
      delete body;
      return MHD_NO;
    }
    MHD_add_response_header(response, "Content-Type",
                            answer.content_type.c_str());
    for (const auto& [name, value] : answer.headers) {
      MHD_add_response_header(response, name.c_str(), value.c_str());
    }
    if (answer.close) MHD_add_response_header(response, "Connection", "close");
    guard_.Enter(exchange.link->guard, ConnectionGuard::Stage::kWriting,
                 body->size());
    exchange.queued = true;
    const MHD_Result queued = MHD_queue_response(
        connection, static_cast<unsigned>(answer.status), response);
    MHD_destroy_response(response);
    return queued;
  }

  HttpServer& server_;
  const ListenerLimits limits_;
  ConnectionGuard guard_;  // outlives the daemon, which reports closes to it
  gnutls_datum_t ticket_key_{nullptr, 0};
  std::mutex mutex_;
  std::condition_variable jobs_ready_;
  std::deque<Job> jobs_;   // guarded by mutex_
  bool quitting_ = false;  // guarded by mutex_
  std::vector<std::thread> workers_;
  MHD_Daemon* daemon_ = nullptr;
};

void HttpServer::Run() {
  if (listen_fd_ < 0) return;
  Daemon daemon(*this);
  if (!daemon.started()) {
    spdlog::error("cannot start the listener on port {}", port_);
    return;
  }
  std::unique_lock lock(mutex_);
  stopped_.wait(lock, [this] { return stopping_; });
}

}  // namespace fetchlet::serve
