// Probes of a /bin/true module through GET /probe, as fast as four clients
// a core ask (serve set up with its default cap on probes at once), beside
// the same command run as scheduled collectors as fast as serve's workers go
// (serve_evals' fast part) in the same run; then
// the latency of one probe at a time beside the command's own run time
// (posix_spawn and wait). Usage: probe [PROBES] (default 4000).
#include <httplib.h>
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <thread>
#include <vector>

#include <re2/re2.h>
#include <spdlog/spdlog.h>

#include "fos/qvefos_os.h"
#include "qve/embedded.h"
#include "serve/http.h"
#include "serve/http_server.h"
#include "serve/probe.h"

extern char** environ;

namespace {

using namespace fetchlet::serve;
using Clock = std::chrono::steady_clock;

const fetchlet::agent::EntryPoints kEntryPoints{
    qvefos_getFetchlet, qvefos_getMetric, qvefos_freeFetchlet};

constexpr const char* kConfig = R"(modules:
  - name: true
    kind: os
    properties: {command: /bin/true}
    regex: '(.*)'
    metrics:
      - {name: ran, help: Ran., type: info}
collectors:
  - name: true
    kind: os
    properties: {command: /bin/true}
    interval: 1ms
    regex: '(.*)'
    metrics:
      - {name: ran, help: Ran., type: info}
)";

Config LoadBenchConfig() {
  const std::string path = "/tmp/fetchlet-bench-probe-" + std::to_string(getpid()) + ".yaml";
  std::ofstream(path) << kConfig;
  std::vector<ConfigProblem> problems, warnings;
  auto config = LoadConfig(path, &problems, &warnings);
  std::remove(path.c_str());
  if (!config) std::abort();
  return std::move(*config);
}

double Percentile(std::vector<double> values, double share) {
  std::sort(values.begin(), values.end());
  return values[static_cast<size_t>(share * static_cast<double>(values.size() - 1))];
}

double Seconds(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// serve_evals' fast part: intervals far shorter than a run.
double ScheduledRate(const CollectorConfig& config, unsigned cores, uint64_t runs) {
  std::vector<CollectorPtr> collectors;
  for (unsigned i = 0; i < cores * 4; ++i) {
    CollectorConfig copy = config;
    copy.name += std::to_string(i);
    collectors.push_back(std::make_shared<Collector>(copy, kEntryPoints));
  }
  auto done = [&] {
    uint64_t total = 0;
    for (const auto& c : collectors) total += c->snapshot()->generation;
    return total;
  };
  const auto start = Clock::now();
  {
    Scheduler scheduler(static_cast<int>(cores), 0);
    scheduler.SetCollectors(collectors);
    while (done() < runs) std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return static_cast<double>(done()) / Seconds(start);
}

void Probe(httplib::Client& client) {
  const auto response = client.Get("/probe?module=true&target=localhost");
  if (!response || response->status != 200 ||
      response->body.find("probe_success 1\n") == std::string::npos) {
    std::abort();
  }
}

double ProbeRate(int port, unsigned clients, uint64_t probes) {
  const auto start = Clock::now();
  std::vector<std::thread> threads;
  for (unsigned t = 0; t < clients; ++t) {
    threads.emplace_back([&] {
      httplib::Client client("127.0.0.1", port);
      client.set_keep_alive(true);
      for (uint64_t i = 0; i < probes / clients; ++i) Probe(client);
    });
  }
  for (auto& thread : threads) thread.join();
  return static_cast<double>(probes / clients * clients) / Seconds(start);
}

std::vector<double> ProbeLatencies(int port, int count) {
  httplib::Client client("127.0.0.1", port);
  client.set_keep_alive(true);
  std::vector<double> ms;
  for (int i = 0; i < count; ++i) {
    const auto start = Clock::now();
    Probe(client);
    ms.push_back(Seconds(start) * 1000);
  }
  return ms;
}

std::vector<double> SpawnLatencies(int count) {
  char arg0[] = "/bin/true";
  char* argv[] = {arg0, nullptr};
  std::vector<double> ms;
  for (int i = 0; i < count; ++i) {
    const auto start = Clock::now();
    pid_t pid = 0;
    if (posix_spawn(&pid, "/bin/true", nullptr, nullptr, argv, environ) != 0) std::abort();
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    ms.push_back(Seconds(start) * 1000);
  }
  return ms;
}

}  // namespace

int main(int argc, char** argv) {
  const uint64_t probes = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 4000;
  qvehost::SetLogLevel(qvehost::LogLevel::kOff);
  spdlog::set_level(spdlog::level::off);  // the stop ends runs: no warnings
  const unsigned cores = std::max(1u, std::thread::hardware_concurrency());
  Config config = LoadBenchConfig();
  // serve's own set-up: the default cap on probes at once, and as many
  // handler threads again beside the listener's.
  Prober prober(config.max_concurrent_probes);
  prober.SetModules({{config.modules.at(0), kEntryPoints}}, Duration(500));
  Scheduler idle(1, 0);
  std::atomic<bool> reload_ok{true};
  std::string error;
  auto server = MakeListener(WebConfig{}, 1024, &error);
  ListenerLimits limits = server->limits();
  limits.workers += config.max_concurrent_probes;
  server->SetLimits(limits);
  AddRoutes(*server, idle, reload_ok, &prober);
  if (!server->Bind("127.0.0.1", 0, &error)) std::abort();
  std::thread listener([&] { server->Run(); });

  const double scheduled = ScheduledRate(config.collectors.at(0), cores, probes);
  // Prometheus asks for many targets at once; the clients, on the same
  // cores as serve, keep its probes busy while they read their answers.
  const double probed = ProbeRate(server->port(), 4 * cores, probes);
  const int rounds = static_cast<int>(std::max<uint64_t>(probes / 4, 100));
  const std::vector<double> latency = ProbeLatencies(server->port(), rounds);
  const std::vector<double> own = SpawnLatencies(rounds);
  server->Stop();
  listener.join();
  idle.Stop();
  const double p99 = Percentile(latency, 0.99);
  const double own_p99 = Percentile(own, 0.99);
  std::printf("probes %.0f/s, scheduled %.0f/s (%.2fx)\n", probed, scheduled,
              probed / scheduled);
  std::printf("one at a time: probe p50 %.3f ms p99 %.3f ms, /bin/true p50 %.3f "
              "ms p99 %.3f ms\n", Percentile(latency, 0.5), p99,
              Percentile(own, 0.5), own_p99);
  std::printf("{\"bench\":\"probe\",\"probes_per_s\":%.0f,\"scheduled_per_s\":%.0f,"
              "\"probes_vs_scheduled\":%.3f,\"probe_p99_ms\":%.3f,"
              "\"command_p99_ms\":%.3f,\"p99_above_command_ms\":%.3f}\n",
              probed, scheduled, probed / scheduled, p99, own_p99, p99 - own_p99);
}
