// The HTTP face of serve: /metrics, /healthz and a small status page.
#ifndef FETCHLET_SERVE_HTTP_H_
#define FETCHLET_SERVE_HTTP_H_

#include <atomic>
#include <cstddef>
#include <memory>
#include <string>

#include "serve/exposition.h"
#include "serve/http_wire.h"
#include "serve/schedule.h"
#include "serve/web_config.h"

namespace fetchlet::serve {

class HttpServer;
class Prober;

// How many connections the listener may hold open: the soft limit on open
// descriptors is raised to the hard one, and what evaluations may need
// (64, and 16 for each evaluation at once) is kept for them, so that a
// command always starts whatever clients do. At most 4096.
std::size_t ConnectionBudget(int evaluations);

// Every server serve listens with is made here: plain or TLS as web says,
// with its rate limit and at most max_connections open. nullptr with
// *error when TLS cannot be set up.
std::unique_ptr<HttpServer> MakeListener(const WebConfig& web,
                                         std::size_t max_connections,
                                         std::string* error);

// "ADDR:PORT" ("[::1]:PORT" for IPv6); false when it is not one.
bool ParseListen(const std::string& listen, std::string* host, int* port);

// The whole scrape body: every collector's last snapshot, then serve's own
// families (with the prober's, when there is one). on_scrape collectors are
// refreshed first, until deadline.
std::string RenderScrape(Scheduler& scheduler, bool last_reload_successful,
                         Format format, SteadyTime deadline,
                         const Prober* prober = nullptr);

// The scraper's X-Prometheus-Scrape-Timeout-Seconds, 10 when it sends none
// that reads as a positive number.
double ScrapeTimeoutSeconds(const HttpRequest& request);

// body, rendered in format, as the answer: gzipped when the request takes it.
void SetExposition(const HttpRequest& request, std::string body, Format format,
                   HttpResponse& response);

// An HTML page: each collector's schedule, status, value age, last error.
std::string StatusPage(const Scheduler& scheduler, const Prober* prober);

// With a prober, /probe as well.
void AddRoutes(HttpServer& server, Scheduler& scheduler,
               const std::atomic<bool>& last_reload_successful,
               Prober* prober = nullptr);

}  // namespace fetchlet::serve

#endif  // FETCHLET_SERVE_HTTP_H_
