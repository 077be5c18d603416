// Scrapes with 1,000 and 10,000 cached series, each on a fresh connection
// beside the same HTTP server answering a pre-rendered body of the same
// size, and back to back on one kept-alive connection; repetitions
// interleaved.
#include <httplib.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

#include "bench/cached_collector.h"
#include "serve/exposition.h"
#include "serve/http.h"
#include "serve/http_server.h"

namespace {

using namespace fetchlet::serve;

double Percentile(std::vector<double> values, double share) {
  std::sort(values.begin(), values.end());
  return values[static_cast<size_t>(share * static_cast<double>(values.size() - 1))];
}

double ThreadCpuMs() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) * 1e3 + static_cast<double>(t.tv_nsec) / 1e6;
}

struct Figures {
  double p50, p99, ratio_p99, render_cpu_ms, p50_keepalive, p99_keepalive;
};

double TimedGet(httplib::Client& client) {
  const auto start = std::chrono::steady_clock::now();
  const auto response = client.Get("/metrics");
  if (!response || response->status != 200) std::abort();
  return std::chrono::duration<double, std::milli>(
             std::chrono::steady_clock::now() - start)
      .count();
}

Figures Measure(int series, int rounds) {
  Scheduler scheduler(1, 0);
  scheduler.SetCollectors({CachedCollector(series)});
  std::atomic<bool> reload_ok{true};
  std::string error;
  auto served = MakeListener(WebConfig{}, 1024, &error);
  AddRoutes(*served, scheduler, reload_ok);
  const std::string body = RenderScrape(scheduler, true, Format::kText,
                                        std::chrono::steady_clock::now());
  auto baseline = MakeListener(WebConfig{}, 1024, &error);
  baseline->Get("/metrics", [&](const HttpRequest&, HttpResponse& r) {
    r.Set(body, ContentType(Format::kText));
  });
  if (!served->Bind("127.0.0.1", 0, &error) ||
      !baseline->Bind("127.0.0.1", 0, &error)) {
    std::abort();
  }
  std::thread a([&] { served->Run(); });
  std::thread b([&] { baseline->Run(); });
  httplib::Client fresh_a("127.0.0.1", served->port());
  httplib::Client fresh_b("127.0.0.1", baseline->port());
  httplib::Client kept("127.0.0.1", served->port());
  kept.set_keep_alive(true);
  std::vector<double> ours, theirs, kept_alive;
  for (int i = 0; i < rounds; ++i) {
    ours.push_back(TimedGet(fresh_a));
    theirs.push_back(TimedGet(fresh_b));
    kept_alive.push_back(TimedGet(kept));
  }
  const double cpu_start = ThreadCpuMs();
  for (int i = 0; i < 100; ++i) {
    RenderScrape(scheduler, true, Format::kText,
                 std::chrono::steady_clock::now());
  }
  const double render = (ThreadCpuMs() - cpu_start) / 100;
  // Closed first, so that the servers need not wait out the keep-alive.
  kept.stop();
  served->Stop();
  baseline->Stop();
  a.join();
  b.join();
  scheduler.Stop();
  const double p99 = Percentile(ours, 0.99);
  std::printf("%d series: p50 %.3f ms p99 %.3f ms, baseline p99 %.3f ms, "
              "kept alive p50 %.3f ms p99 %.3f ms, render %.3f ms CPU\n",
              series, Percentile(ours, 0.5), p99, Percentile(theirs, 0.99),
              Percentile(kept_alive, 0.5), Percentile(kept_alive, 0.99),
              render);
  return {Percentile(ours, 0.5), p99, p99 / Percentile(theirs, 0.99), render,
          Percentile(kept_alive, 0.5), Percentile(kept_alive, 0.99)};
}

}  // namespace

// Usage: serve_scrape [ROUNDS] (default 1000; a fifth of them at 10,000).
int main(int argc, char** argv) {
  const int rounds = argc > 1 ? std::max(5, std::atoi(argv[1])) : 1000;
  const Figures small = Measure(1000, rounds);
  const Figures large = Measure(10000, rounds / 5);
  std::printf(
      "{\"bench\":\"serve_scrape\",\"p50_ms\":%.3f,\"p99_ms\":%.3f,"
      "\"ratio_p99\":%.3f,\"render_cpu_ms\":%.3f,\"p50_ms_10k\":%.3f,"
      "\"p99_ms_10k\":%.3f,\"ratio_p99_10k\":%.3f,\"render_cpu_ms_10k\":%.3f,"
      "\"p50_ms_keepalive\":%.3f,\"p99_ms_keepalive\":%.3f,"
      "\"keepalive_vs_fresh_p50\":%.3f}\n",
      small.p50, small.p99, small.ratio_p99, small.render_cpu_ms, large.p50,
      large.p99, large.ratio_p99, large.render_cpu_ms, small.p50_keepalive,
      small.p99_keepalive, small.p50_keepalive / small.p50);
}
