// serve's listener, on libmicrohttpd: one thread waits on every connection
// (epoll), so that an idle or slow client costs a little memory and never a
// thread; a few workers answer complete requests while their connections
// are suspended. Every client is bounded: a deadline for its request head,
// limits on the head's size, no body, a cap on connections, bounded
// keep-alive.
#ifndef FETCHLET_SERVE_HTTP_SERVER_H_
#define FETCHLET_SERVE_HTTP_SERVER_H_

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "serve/http_wire.h"

namespace fetchlet::serve {

struct ListenerLimits {
  HeadLimits head;
  // From a connection's start (its handshake too), or a kept-alive
  // request's line, to its blank line.
  std::chrono::milliseconds head_deadline{10000};
  // A kept-alive connection waits this long for its next request.
  std::chrono::milliseconds idle{60000};
  // For a client to take a response.
  std::chrono::milliseconds write_deadline{30000};
  // Connections held open; past it the one idle longest makes room.
  std::size_t max_connections = 1024;
  // Bytes of responses held for clients still to take them; past it the
  // client slowest to read is dropped.
  std::size_t max_unsent = 64u << 20;
  int workers = 8;
};

// TLS as libmicrohttpd speaks it (GnuTLS): PEM texts and a priority string.
struct ServerTls {
  std::string cert_pem;
  std::string key_pem;
  std::string trust_pem;  // client CAs; "" when none
  std::string priorities;
  bool request_cert = false;  // asks each client for a certificate
  bool require_cert = false;  // a handshake without one fails
  bool verify_cert = false;   // a certificate given must chain to trust_pem
};

using HttpHandler = std::function<void(const HttpRequest&, HttpResponse&)>;
// Runs before routing, in the order added; true when it answered.
using HttpGate = std::function<bool(const HttpRequest&, HttpResponse&)>;

class HttpServer {
 public:
  // Without tls, plain HTTP.
  explicit HttpServer(std::optional<ServerTls> tls = std::nullopt);
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  // Set up before Run.
  void Get(const std::string& path, HttpHandler handler);  // GET and HEAD
  void AddGate(HttpGate gate);
  void SetLimits(const ListenerLimits& limits) { limits_ = limits; }
  const ListenerLimits& limits() const { return limits_; }

  // Binds and listens (port 0: any free one); a client may connect at once.
  // Never shares a port: a second server on a held address fails here.
  bool Bind(const std::string& host, int port, std::string* error);
  int port() const { return port_; }

  // Serves until Stop, from the calling thread.
  void Run();
  // From any thread, also before Run.
  void Stop();

 private:
  class Daemon;
  HttpResponse Answer(const HttpRequest& request) const;

  std::optional<ServerTls> tls_;
  std::map<std::string, HttpHandler, std::less<>> routes_;
  std::vector<HttpGate> gates_;
  ListenerLimits limits_;
  int listen_fd_ = -1;
  int port_ = 0;
  std::mutex mutex_;
  std::condition_variable stopped_;
  bool stopping_ = false;  // guarded by mutex_
};

}  // namespace fetchlet::serve

#endif  // FETCHLET_SERVE_HTTP_SERVER_H_
