// The listener is libmicrohttpd's (serve/http_server.h) rather than
// cpp-httplib's: that library gives each connection a worker thread for as
// long as it is open, so a few idle or dripping clients starve every
// scrape; it bounds a request only per recv, and Debian's build fixes a
// listen backlog of 5 and port sharing (SO_REUSEPORT). libmicrohttpd waits
// on every connection from one epoll thread, so an idle client costs memory
// only; it bounds a connection's memory, refuses a body before reading it,
// and lets a worker answer while the connection is suspended. What it does
// not keep, a deadline for a whole request head, serve/http_guard.h adds.
#include "serve/http.h"

#include <sys/resource.h>

#include <algorithm>
#include <charconv>

#include "serve/http_server.h"
#include "serve/meta_metrics.h"
#include "serve/probe.h"

namespace fetchlet::serve {
namespace {

constexpr double kDefaultScrapeTimeout = 10;
// A scraper's timeout is read no longer than this: "inf" or "1e300" must
// not overflow a deadline.
constexpr double kLongestScrapeTimeout = 86400;
// Left to the scraper to receive the body before its own deadline.
constexpr double kScrapeMargin = 0.5;

// Descriptors that evaluations may need: the process's own, and each
// evaluation's pipes, process and cgroup handles, generously.
constexpr std::size_t kReservedDescriptors = 64;
constexpr std::size_t kDescriptorsPerEvaluation = 16;
constexpr std::size_t kMaxConnections = 4096;

SteadyTime ScrapeDeadline(const HttpRequest& request) {
  const double seconds =
      std::max(ScrapeTimeoutSeconds(request) - kScrapeMargin, 0.0);
  return std::chrono::steady_clock::now() +
         std::chrono::duration_cast<std::chrono::steady_clock::duration>(
             std::chrono::duration<double>(seconds));
}

void ServeMetrics(const HttpRequest& request, HttpResponse& response,
                  Scheduler& scheduler, bool last_reload_successful,
                  const Prober* prober) {
  const Format format = NegotiateFormat(std::string(request.Header("Accept")));
  std::string body = RenderScrape(scheduler, last_reload_successful, format,
                                   ScrapeDeadline(request), prober);
  SetExposition(request, std::move(body), format, response);
}

}  // namespace

double ScrapeTimeoutSeconds(const HttpRequest& request) {
  const std::string_view header =
      request.Header("X-Prometheus-Scrape-Timeout-Seconds");
  double seconds = kDefaultScrapeTimeout;
  if (!header.empty()) {
    double parsed = 0;
    const auto [end, error] =
        std::from_chars(header.data(), header.data() + header.size(), parsed);
    if (error == std::errc() && parsed > 0) {
      seconds = std::min(parsed, kLongestScrapeTimeout);  // NaN fails > 0
    }
  }
  return seconds;
}

void SetExposition(const HttpRequest& request, std::string body, Format format,
                   HttpResponse& response) {
  if (AcceptsGzip(std::string(request.Header("Accept-Encoding")))) {
    body = Gzip(body);
    response.headers.emplace_back("Content-Encoding", "gzip");
  }
  response.Set(std::move(body), ContentType(format));
}

std::size_t ConnectionBudget(int evaluations) {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0 &&
      limit.rlim_cur < limit.rlim_max) {
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    getrlimit(RLIMIT_NOFILE, &limit);
  }
  const std::size_t reserved =
      kReservedDescriptors +
      kDescriptorsPerEvaluation *
          static_cast<std::size_t>(std::max(evaluations, 1));
  const std::size_t open = static_cast<std::size_t>(
      std::min<rlim_t>(limit.rlim_cur, kMaxConnections + reserved));
  return open > reserved + 16 ? open - reserved : 16;
}

std::unique_ptr<HttpServer> MakeListener(const WebConfig& web,
                                         std::size_t max_connections,
                                         std::string* error) {
  std::unique_ptr<HttpServer> server = MakeHttpServer(web, error);
  if (!server) return nullptr;
  ListenerLimits limits = server->limits();
  limits.max_connections = max_connections;
  server->SetLimits(limits);
  LimitRate(*server, web.rate_limit);
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
                         Format format, SteadyTime deadline,
                         const Prober* prober) {
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
  const Families probes = prober != nullptr ? prober->MetaFamilies() : Families{};
  AppendFamilies({&meta, &probes}, format, &body);
  if (format == Format::kOpenMetrics) body.append("# EOF\n");
  return body;
}

void AddRoutes(HttpServer& server, Scheduler& scheduler,
               const std::atomic<bool>& last_reload_successful,
               Prober* prober) {
  server.Get("/metrics", [&, prober](const HttpRequest& request,
                                     HttpResponse& response) {
    ServeMetrics(request, response, scheduler, last_reload_successful.load(),
                 prober);
  });
  if (prober != nullptr) {
    server.Get("/probe", [prober](const HttpRequest& request,
                                  HttpResponse& response) {
      prober->Serve(request, response);
    });
  }
  server.Get("/healthz", [](const HttpRequest&, HttpResponse& response) {
    response.Set("ok\n", "text/plain; charset=utf-8");
  });
  server.Get("/", [&, prober](const HttpRequest&, HttpResponse& response) {
    response.Set(StatusPage(scheduler, prober), "text/html; charset=utf-8");
  });
}

}  // namespace fetchlet::serve
