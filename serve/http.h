// The HTTP face of serve: /metrics, /healthz and a small status page.
#ifndef FETCHLET_SERVE_HTTP_H_
#define FETCHLET_SERVE_HTTP_H_

#include <atomic>
#include <memory>
#include <string>

#include "serve/exposition.h"
#include "serve/schedule.h"
#include "serve/web_config.h"

namespace httplib {
class Server;
}

namespace fetchlet::serve {

// Every server serve listens with is made here: plain or TLS as web says,
// with serve's keep-alive limits. nullptr with *error when TLS cannot be
// set up.
std::unique_ptr<httplib::Server> MakeListener(const WebConfig& web,
                                              std::string* error);

// "ADDR:PORT" ("[::1]:PORT" for IPv6); false when it is not one.
bool ParseListen(const std::string& listen, std::string* host, int* port);

// The whole scrape body: every collector's last snapshot, then serve's own
// families. on_scrape collectors are refreshed first, until deadline.
std::string RenderScrape(Scheduler& scheduler, bool last_reload_successful,
                         Format format, SteadyTime deadline);

// An HTML page: each collector's schedule, status, value age, last error.
std::string StatusPage(const Scheduler& scheduler);

void AddRoutes(httplib::Server& server, Scheduler& scheduler,
               const std::atomic<bool>& last_reload_successful);

}  // namespace fetchlet::serve

#endif  // FETCHLET_SERVE_HTTP_H_
