#include "serve/notify.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>

namespace fetchlet::serve {
namespace {

// A datagram socket standing in for the service manager's, named by
// NOTIFY_SOCKET while the test runs.
class NotifyTest : public testing::Test {
 protected:
  void SetUp() override {
    char dir[] = "/tmp/notify_test.XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    dir_ = dir;
    fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(fd_, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = dir_ + "/notify";
    std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    ASSERT_EQ(bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address),
              0);
    setenv("NOTIFY_SOCKET", path.c_str(), 1);
  }

  void TearDown() override {
    unsetenv("NOTIFY_SOCKET");
    close(fd_);
    unlink((dir_ + "/notify").c_str());
    rmdir(dir_.c_str());
  }

  // The next message, or "" when none came within a generous bound.
  std::string Receive() {
    pollfd p{fd_, POLLIN, 0};
    int ready;
    while ((ready = poll(&p, 1, 5000)) < 0 && errno == EINTR) {
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

  std::string dir_;
  int fd_ = -1;
};

uint64_t MonotonicUsec() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000000u +
         static_cast<uint64_t>(now.tv_nsec) / 1000u;
}

TEST_F(NotifyTest, SendsOneMessagePerCall) {
  const struct {
    std::function<bool()> send;
    const char* message;
  } cases[] = {
      {NotifyReady, "READY=1"},
      {NotifyStopping, "STOPPING=1"},
      {[] { return NotifyStatus("serving 3 collectors"); },
       "STATUS=serving 3 collectors"},
      {[] { return NotifyStatus("line one\nline two"); },
       "STATUS=line one line two"},
  };
  for (const auto& c : cases) {
    EXPECT_TRUE(c.send()) << c.message;
    EXPECT_EQ(Receive(), c.message);
  }
  EXPECT_FALSE(Pending());
}

TEST_F(NotifyTest, ReloadingCarriesTheMonotonicClock) {
  const uint64_t before = MonotonicUsec();
  ASSERT_TRUE(NotifyReloading());
  const uint64_t after = MonotonicUsec();
  const std::string message = Receive();
  constexpr std::string_view kPrefix = "RELOADING=1\nMONOTONIC_USEC=";
  ASSERT_TRUE(message.starts_with(kPrefix)) << message;
  const std::string digits = message.substr(kPrefix.size());
  ASSERT_EQ(digits.find_first_not_of("0123456789"), std::string::npos);
  const uint64_t usec = std::stoull(digits);
  EXPECT_GE(usec, before);
  EXPECT_LE(usec, after);
}

TEST_F(NotifyTest, SilentWithoutASocket) {
  unsetenv("NOTIFY_SOCKET");
  EXPECT_FALSE(NotifyReady());
  EXPECT_FALSE(NotifyReloading());
  EXPECT_FALSE(NotifyStopping());
  EXPECT_FALSE(Pending());
}

}  // namespace
}  // namespace fetchlet::serve
