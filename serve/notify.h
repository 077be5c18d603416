// The service manager's readiness protocol (sd_notify). Each call sends
// one message when NOTIFY_SOCKET is set and does nothing otherwise, so the
// program runs the same outside systemd.
#ifndef FETCHLET_SERVE_NOTIFY_H_
#define FETCHLET_SERVE_NOTIFY_H_

#include <string_view>

namespace fetchlet::serve {

// READY=1, after the listener is bound and after each reload. True when a
// service manager was told.
bool NotifyReady();

// RELOADING=1 with MONOTONIC_USEC, which a service manager from version
// 253 on needs to match the reload to its request.
bool NotifyReloading();

// STOPPING=1, as soon as a stop is asked.
bool NotifyStopping();

// STATUS=text, shown by systemctl status; newlines become spaces.
bool NotifyStatus(std::string_view text);

}  // namespace fetchlet::serve

#endif  // FETCHLET_SERVE_NOTIFY_H_
