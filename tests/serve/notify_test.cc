// The messages serve sends (READY, STATUS, STOPPING and the reload around a
// HUP are read from the running program in serve_command_test.cc): one
// datagram a call, a status on one line, the monotonic clock of a reload,
// and nothing without a socket.
#include "serve/notify.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <cstdint>
#include <string>

#include "tests/serve/serve_wire_support.h"

namespace fetchlet::serve {
namespace {

uint64_t MonotonicUsec() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000000u +
         static_cast<uint64_t>(now.tv_nsec) / 1000u;
}

TEST(NotifyTest, OneMessageACallAndReloadingCarriesTheMonotonicClock) {
  qvetest::NotifySocket socket;
  ASSERT_TRUE(socket.Open());
  EXPECT_TRUE(NotifyStatus("line one\nline two"));
  EXPECT_EQ(socket.Receive(), "STATUS=line one line two");
  const uint64_t before = MonotonicUsec();
  ASSERT_TRUE(NotifyReloading());
  const uint64_t after = MonotonicUsec();
  const std::string message = socket.Receive();
  constexpr std::string_view kPrefix = "RELOADING=1\nMONOTONIC_USEC=";
  ASSERT_TRUE(message.starts_with(kPrefix)) << message;
  const std::string digits = message.substr(kPrefix.size());
  ASSERT_EQ(digits.find_first_not_of("0123456789"), std::string::npos);
  const uint64_t usec = std::stoull(digits);
  EXPECT_GE(usec, before);
  EXPECT_LE(usec, after);
  EXPECT_FALSE(socket.Pending());
  unsetenv("NOTIFY_SOCKET");
  EXPECT_FALSE(NotifyReady());
  EXPECT_FALSE(NotifyReloading());
  EXPECT_FALSE(NotifyStopping());
  EXPECT_FALSE(socket.Pending());
}

}  // namespace
}  // namespace fetchlet::serve
