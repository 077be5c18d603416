#include "serve/notify.h"

#include <systemd/sd-daemon.h>
#include <time.h>

#include <algorithm>
#include <cstdint>
#include <string>

namespace fetchlet::serve {
namespace {

bool Send(const std::string& state) { return sd_notify(0, state.c_str()) > 0; }

}  // namespace

bool NotifyReady() { return Send("READY=1"); }

bool NotifyReloading() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const uint64_t usec = static_cast<uint64_t>(now.tv_sec) * 1000000u +
                        static_cast<uint64_t>(now.tv_nsec) / 1000u;
  return Send("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(usec));
}

bool NotifyStopping() { return Send("STOPPING=1"); }

bool NotifyStatus(std::string_view text) {
  std::string state = "STATUS=" + std::string(text);
  std::replace(state.begin(), state.end(), '\n', ' ');
  return Send(state);
}

}  // namespace fetchlet::serve
