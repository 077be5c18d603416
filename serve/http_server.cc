#include "serve/http_server.h"

#include <netdb.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <utility>

namespace fetchlet::serve {

HttpServer::HttpServer(std::optional<ServerTls> tls) : tls_(std::move(tls)) {
  // A client gone before its answer is written must not end the process,
  // whichever way the TLS library writes.
  signal(SIGPIPE, SIG_IGN);
}

HttpServer::~HttpServer() {
  if (listen_fd_ >= 0) close(listen_fd_);
}

void HttpServer::Get(const std::string& path, HttpHandler handler) {
  routes_[path] = std::move(handler);
}

void HttpServer::AddGate(HttpGate gate) { gates_.push_back(std::move(gate)); }

bool HttpServer::Bind(const std::string& host, int port, std::string* error) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE;
  addrinfo* found = nullptr;
  const std::string service = std::to_string(port);
  const int status = getaddrinfo(host.c_str(), service.c_str(), &hints, &found);
  if (status != 0) {
    *error = gai_strerror(status);
    return false;
  }
  int fd = socket(found->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC,
                  0);
  const int on = 1;
  // SO_REUSEADDR lets a restart bind past old connections in TIME_WAIT; it
  // never lets two listeners share a port (SO_REUSEPORT would). The socket
  // is ours, not libmicrohttpd's, so that this holds whatever its defaults
  // and a client may connect from here on.
  if (fd < 0 ||
      setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
      bind(fd, found->ai_addr, found->ai_addrlen) != 0 ||
      listen(fd, SOMAXCONN) != 0) {
    *error = std::strerror(errno);
    if (fd >= 0) close(fd);
    fd = -1;
  }
  freeaddrinfo(found);
  if (fd < 0) return false;
  sockaddr_storage bound{};
  socklen_t size = sizeof bound;
  getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &size);
  port_ = ntohs(bound.ss_family == AF_INET6
                    ? reinterpret_cast<sockaddr_in6*>(&bound)->sin6_port
                    : reinterpret_cast<sockaddr_in*>(&bound)->sin_port);
  listen_fd_ = fd;
  return true;
}

void HttpServer::Stop() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  stopped_.notify_all();
}

HttpResponse HttpServer::Answer(const HttpRequest& request) const {
  HttpResponse response;
  try {
    for (const HttpGate& gate : gates_) {
      if (gate(request, response)) return response;
    }
    const auto route = routes_.find(request.path());
    if (route == routes_.end()) {
      response = ErrorResponse(404);
      response.close = false;
      return response;
    }
    route->second(request, response);
  } catch (const std::exception&) {
    response = ErrorResponse(500);
  }
  return response;
}

}  // namespace fetchlet::serve
