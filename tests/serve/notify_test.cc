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

#include "tests/serve/serve_wire_support.h"

namespace fetchlet::serve {
namespace {

class NotifyTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(socket_.Open()); }
  std::string Receive() { return socket_.Receive(); }
  bool Pending() { return socket_.Pending(); }

  qvetest::NotifySocket socket_;
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
