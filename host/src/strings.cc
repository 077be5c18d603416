// String helpers of the host runtime.
#include <time.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "guard.h"
#include "qve/embedded.h"
#include "qve/host.h"

namespace {

// The wall clock as the system gives it, shifted by the test switch.
std::atomic<int64_t> g_system_clock_step{0};

int64_t SystemSeconds() {
  return static_cast<int64_t>(std::time(nullptr)) + g_system_clock_step.load();
}

int64_t MonotonicSeconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec);
}

// Wall-clock seconds read once when the library loads; from there the
// clock only advances, so a step of the system clock never reaches a run.
struct HostClock {
  int64_t wall_at_start = SystemSeconds();
  int64_t monotonic_at_start = MonotonicSeconds();

  int64_t Now() const {
    return wall_at_start + (MonotonicSeconds() - monotonic_at_start);
  }
};

const HostClock g_clock;

// ASCII only: the comparison must not depend on the locale.
char AsciiLower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

}  // namespace

using qvehost::internal::Guarded;

extern "C" {

char* qveustr_strncpy(char* destination, const char* source, size_t bound) {
  return Guarded<char*>(__func__, destination, [&]() -> char* {
    if (destination == nullptr || source == nullptr) return destination;
    return std::strncpy(destination, source, bound);
  });
}

int qveupt_snprintf(char* buffer, size_t size, const char* format, ...) {
  if (format == nullptr) return 0;
  va_list args;
  va_start(args, format);
  const int length = Guarded<int>(__func__, -1, [&] {
    return std::vsnprintf(size > 0 ? buffer : nullptr,
                          buffer != nullptr ? size : 0, format, args);
  });
  va_end(args);
  return length;
}

int32_t qve_equals(const char* first, const char* second) {
  return Guarded<int32_t>(__func__, 0, [&]() -> int32_t {
    if (first == nullptr || second == nullptr) return 0;
    return std::strcmp(first, second) == 0 ? 1 : 0;
  });
}

int32_t strcaseeq(const char* first, const char* second) {
  return Guarded<int32_t>(__func__, 1, [&]() -> int32_t {
    if (first == nullptr || second == nullptr) return first == second ? 0 : 1;
    while (*first != '\0' && AsciiLower(*first) == AsciiLower(*second)) {
      ++first;
      ++second;
    }
    return AsciiLower(*first) == AsciiLower(*second) ? 0 : 1;
  });
}

uint32_t qveut_currentSeconds(void) {
  return Guarded<uint32_t>(__func__, 0, [&]() -> uint32_t {
    return static_cast<uint32_t>(g_clock.Now());
  });
}

}  // extern "C"

namespace qvehost {

void StepSystemClock(int64_t seconds) { g_system_clock_step.fetch_add(seconds); }
int64_t SystemClockNow() { return SystemSeconds(); }

}  // namespace qvehost
