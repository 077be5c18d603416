// A service manager's notify socket, test certificates, curl and free ports,
// for the tests of TLS and readiness.
#ifndef QVE_TESTS_SERVE_SERVE_WIRE_SUPPORT_H_
#define QVE_TESTS_SERVE_SERVE_WIRE_SUPPORT_H_

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>

namespace qvetest {

// A datagram socket standing in for the service manager's, in a directory
// of its own, named by NOTIFY_SOCKET while it lives.
class NotifySocket {
 public:
  NotifySocket() {
    char dir[] = "/tmp/notify_test.XXXXXX";
    if (mkdtemp(dir) == nullptr) return;
    dir_ = dir;
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path().c_str(),
                 sizeof(address.sun_path) - 1);
    if (fd >= 0 &&
        bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
      close(fd);
      return;
    }
    fd_ = fd;
    setenv("NOTIFY_SOCKET", path().c_str(), 1);
  }
  NotifySocket(const NotifySocket&) = delete;
  NotifySocket& operator=(const NotifySocket&) = delete;
  ~NotifySocket() {
    unsetenv("NOTIFY_SOCKET");
    if (fd_ >= 0) close(fd_);
    if (!dir_.empty()) std::filesystem::remove_all(dir_);
  }

  bool Open() const { return fd_ >= 0; }
  std::string path() const { return dir_ + "/notify"; }

  // The next message, or "" when none came within a generous bound.
  std::string Receive() {
    pollfd p{fd_, POLLIN, 0};
    int ready;
    while ((ready = poll(&p, 1, 20000)) < 0 && errno == EINTR) {
    }
    if (ready != 1) return "";
    char buffer[4096];
    ssize_t n;
    while ((n = recv(fd_, buffer, sizeof buffer, 0)) < 0 && errno == EINTR) {
    }
    return n > 0 ? std::string(buffer, static_cast<size_t>(n)) : "";
  }

  bool Pending() {
    pollfd p{fd_, POLLIN, 0};
    return poll(&p, 1, 0) == 1;
  }

 private:
  std::string dir_;
  int fd_ = -1;
};

// bcrypt of "s3cret pass", cost 4.
inline constexpr const char* kAlice =
    "$2b$04$gNk1iq8F3/B.v6zkGEfIU.ODRqLVjp0VnWRZm8KqFixfGLJBYp67.";
inline const std::string kAliceCurl = "--user 'alice:s3cret pass'";

// A web configuration of server.crt and server.key with auth_type, then
// more lines under tls_server_config, and alice as the only user.
inline std::string TlsWebConfig(const std::string& auth_type,
                                const std::string& more = "") {
  return "tls_server_config:\n  cert_file: server.crt\n  key_file: "
         "server.key\n  client_auth_type: " +
         auth_type + "\n" + more + "basic_auth_users:\n  alice: " + kAlice +
         "\n";
}

// A fresh directory holding make_certs.sh's CA, server and client files;
// "" when they could not be made.
inline std::string MakeTestCerts() {
  char dir[] = "/tmp/web_tls_test.XXXXXX";
  if (mkdtemp(dir) == nullptr) return "";
  const std::string command = std::string(QVE_MAKE_CERTS) + " " + dir;
  return std::system(command.c_str()) == 0 ? dir : "";
}

// The HTTP status curl saw, run in dir and trusting its ca.crt; "000" when
// there was no answer. curl's own exit status goes to *exit_status.
inline std::string CurlStatus(const std::string& dir,
                              const std::string& options, int* exit_status) {
  const std::string command =
      "cd " + dir + " && curl -s -o /dev/null -w '%{http_code}' " +
      "--max-time 20 --cacert ca.crt " + options + " 2>/dev/null";
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return "popen failed";
  char code[16] = {};
  const size_t n = fread(code, 1, sizeof code - 1, pipe);
  *exit_status = WEXITSTATUS(pclose(pipe));
  return std::string(code, n);
}

// A port the kernel picked as free a moment ago.
inline int FreePort() {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto* any = reinterpret_cast<sockaddr*>(&address);
  const bool bound =
      bind(fd, any, size) == 0 && getsockname(fd, any, &size) == 0;
  close(fd);
  return bound ? ntohs(address.sin_port) : 0;
}

}  // namespace qvetest

#endif  // QVE_TESTS_SERVE_SERVE_WIRE_SUPPORT_H_
