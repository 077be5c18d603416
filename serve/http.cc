#include "serve/http.h"

#include <httplib.h>

#include <charconv>

#include "serve/meta_metrics.h"

namespace fetchlet::serve {
namespace {

constexpr double kDefaultScrapeTimeout = 10;
// Left to the scraper to receive the body before its own deadline.
constexpr double kScrapeMargin = 0.5;

SteadyTime ScrapeDeadline(const httplib::Request& request) {
  const std::string header =
      request.get_header_value("X-Prometheus-Scrape-Timeout-Seconds");
  double seconds = kDefaultScrapeTimeout;
  if (!header.empty()) {
    double parsed = 0;
    const auto [end, error] =
        std::from_chars(header.data(), header.data() + header.size(), parsed);
    if (error == std::errc() && parsed > 0) seconds = parsed;
  }
  seconds = std::max(seconds - kScrapeMargin, 0.0);
  return std::chrono::steady_clock::now() +
         std::chrono::duration_cast<std::chrono::steady_clock::duration>(
             std::chrono::duration<double>(seconds));
}

void ServeMetrics(const httplib::Request& request, httplib::Response& response,
                  Scheduler& scheduler, bool last_reload_successful) {
  const Format format = NegotiateFormat(request.get_header_value("Accept"));
  std::string body = RenderScrape(scheduler, last_reload_successful, format,
                                   ScrapeDeadline(request));
  if (AcceptsGzip(request.get_header_value("Accept-Encoding"))) {
    body = Gzip(body);
    response.set_header("Content-Encoding", "gzip");
  }
  // The library would compress text again, ignoring q-values: it must not
  // see what the client accepts.
  const_cast<httplib::Request&>(request).headers.erase("Accept-Encoding");
  response.set_content(std::move(body), ContentType(format));
}

}  // namespace

std::unique_ptr<httplib::Server> MakeListener(const WebConfig& web,
                                              std::string* error) {
  std::unique_ptr<httplib::Server> server = MakeHttpServer(web, error);
  if (!server) return nullptr;
  server->set_keep_alive_timeout(30);
  server->set_keep_alive_max_count(100000);
  return server;
}

bool ParseListen(const std::string& listen, std::string* host, int* port) {
  const size_t colon = listen.rfind(':');
  if (colon == std::string::npos || colon == 0) return false;
  std::string address = listen.substr(0, colon);
  if (address.front() == '[' && address.back() == ']') {
    address = address.substr(1, address.size() - 2);
  }
  const std::string digits = listen.substr(colon + 1);
  int value = 0;
  const auto [end, error] =
      std::from_chars(digits.data(), digits.data() + digits.size(), value);
  if (error != std::errc() || end != digits.data() + digits.size() ||
      value < 0 || value > 65535 || address.empty()) {
    return false;
  }
  *host = address;
  *port = value;
  return true;
}

std::string RenderScrape(Scheduler& scheduler, bool last_reload_successful,
                         Format format, SteadyTime deadline) {
  scheduler.RefreshOnScrape(deadline);
  const std::vector<CollectorPtr> collectors = scheduler.collectors();
  std::vector<std::shared_ptr<const Snapshot>> snapshots;
  size_t size = 0;
  for (const CollectorPtr& collector : collectors) {
    snapshots.push_back(collector->snapshot());
    size += snapshots.back()->text.size();
  }
  std::string body;
  body.reserve(size + 8192);
  for (const auto& snapshot : snapshots) {
    body.append(format == Format::kOpenMetrics ? snapshot->openmetrics
                                               : snapshot->text);
  }
  const Families meta = MetaFamilies(collectors, last_reload_successful);
  AppendFamilies({&meta}, format, &body);
  if (format == Format::kOpenMetrics) body.append("# EOF\n");
  return body;
}

void AddRoutes(httplib::Server& server, Scheduler& scheduler,
               const std::atomic<bool>& last_reload_successful) {
  server.Get("/metrics", [&](const httplib::Request& request,
                             httplib::Response& response) {
    ServeMetrics(request, response, scheduler, last_reload_successful.load());
  });
  server.Get("/healthz", [](const httplib::Request&, httplib::Response& r) {
    r.set_content("ok\n", "text/plain; charset=utf-8");
  });
  server.Get("/", [&](const httplib::Request&, httplib::Response& response) {
    response.set_content(StatusPage(scheduler), "text/html; charset=utf-8");
  });
}

}  // namespace fetchlet::serve
