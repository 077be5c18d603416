// One client connection of the listener: its socket, TLS state, buffers
// and deadline, and reads and writes that never block.
#ifndef FETCHLET_SERVE_HTTP_CONN_H_
#define FETCHLET_SERVE_HTTP_CONN_H_

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <string>

namespace fetchlet::serve {

using Clock = std::chrono::steady_clock;

enum class Io { kOk, kAgain, kEnd };

struct Conn {
  Conn() = default;
  Conn(const Conn&) = delete;
  Conn& operator=(const Conn&) = delete;
  enum State { kHandshake, kReading, kWaiting, kWriting, kLinger };

  uint64_t id = 0;
  int fd = -1;
  SSL* ssl = nullptr;
  State state = kReading;
  bool between_requests = true;  // no byte of the next request yet
  bool close_after = false;
  std::string in;
  std::string out;
  size_t written = 0;
  size_t discarded = 0;
  Clock::time_point deadline;
  Clock::time_point since;  // entered its current wait

  ~Conn() {
    if (ssl != nullptr) SSL_free(ssl);
    if (fd >= 0) close(fd);
  }

  Io Read(char* buffer, size_t size, size_t* got) {
    if (ssl != nullptr) {
      const int n = SSL_read(ssl, buffer, static_cast<int>(size));
      if (n > 0) *got = static_cast<size_t>(n);
      return n > 0 ? Io::kOk : TlsFailure(n);
    }
    ssize_t n;
    while ((n = recv(fd, buffer, size, 0)) < 0 && errno == EINTR) {
    }
    if (n > 0) *got = static_cast<size_t>(n);
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return Io::kAgain;
    return n > 0 ? Io::kOk : Io::kEnd;
  }

  Io Write(const char* data, size_t size, size_t* put) {
    if (ssl != nullptr) {
      const int n = SSL_write(ssl, data, static_cast<int>(size));
      if (n > 0) *put = static_cast<size_t>(n);
      return n > 0 ? Io::kOk : TlsFailure(n);
    }
    ssize_t n;
    while ((n = send(fd, data, size, MSG_NOSIGNAL)) < 0 && errno == EINTR) {
    }
    if (n >= 0) *put = static_cast<size_t>(n);
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return Io::kAgain;
    return n >= 0 ? Io::kOk : Io::kEnd;
  }

  Io TlsFailure(int result) {
    const int error = SSL_get_error(ssl, result);
    if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) {
      return Io::kAgain;
    }
    ERR_clear_error();
    return Io::kEnd;
  }
};

}  // namespace fetchlet::serve

#endif  // FETCHLET_SERVE_HTTP_CONN_H_
