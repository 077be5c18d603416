// 100 collectors of /bin/true at one-second intervals, then evaluations as
// fast as the workers go, beside a raw posix_spawn loop of /bin/true on
// every core. Usage: serve_evals [SECONDS] (default 60; below 10 the fast
// part is cut short too).
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <thread>
#include <vector>

#include <re2/re2.h>

#include "fos/qvefos_os.h"
#include "qve/embedded.h"
#include "serve/schedule.h"

extern char** environ;

namespace {

using namespace fetchlet::serve;
using Clock = std::chrono::steady_clock;

std::vector<CollectorPtr> TrueCollectors(int count, Duration interval) {
  const fetchlet::agent::EntryPoints entry_points{
      qvefos_getFetchlet, qvefos_getMetric, qvefos_freeFetchlet};
  std::vector<CollectorPtr> collectors;
  for (int i = 0; i < count; ++i) {
    CollectorConfig config;
    config.name = "true" + std::to_string(i);
    config.kind = CollectorKind::kOs;
    config.properties = {{"command", "/bin/true"}};
    config.interval = interval;
    config.regex = "(.*)";
    config.compiled_regex = std::make_shared<const re2::RE2>(config.regex);
    MetricDefinition metric;
    metric.name = "true" + std::to_string(i);
    metric.help = "Ran.";
    metric.type = MetricType::kInfo;
    config.metrics.push_back(metric);
    collectors.push_back(std::make_shared<Collector>(config, entry_points));
  }
  return collectors;
}

double SelfCpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

double RssMiB() {
  std::ifstream statm("/proc/self/statm");
  double size = 0, resident = 0;
  statm >> size >> resident;
  return resident * static_cast<double>(sysconf(_SC_PAGESIZE)) / (1 << 20);
}

uint64_t Evaluations(const std::vector<CollectorPtr>& collectors) {
  uint64_t total = 0;
  for (const auto& c : collectors) total += c->snapshot()->generation;
  return total;
}

uint64_t Skips(const std::vector<CollectorPtr>& collectors) {
  uint64_t total = 0;
  for (const auto& c : collectors) total += c->skipped();
  return total;
}

double RawSpawnRate(int count) {
  const unsigned cores = std::max(1u, std::thread::hardware_concurrency());
  const auto start = Clock::now();
  std::vector<std::thread> threads;
  for (unsigned t = 0; t < cores; ++t) {
    threads.emplace_back([&] {
      char arg0[] = "/bin/true";
      char* argv[] = {arg0, nullptr};
      for (int i = 0; i < count / static_cast<int>(cores); ++i) {
        pid_t pid = 0;
        if (posix_spawn(&pid, "/bin/true", nullptr, nullptr, argv, environ) != 0) {
          std::abort();
        }
        int status = 0;
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  return count / std::chrono::duration<double>(Clock::now() - start).count();
}

}  // namespace

int main(int argc, char** argv) {
  const int seconds = argc > 1 ? std::atoi(argv[1]) : 60;
  qvehost::SetLogLevel(qvehost::LogLevel::kOff);
  const unsigned cores = std::max(1u, std::thread::hardware_concurrency());
  auto steady = TrueCollectors(100, Duration(1000));
  double cpu = 0, evals_per_s = 0, rss = 0;
  uint64_t skips = 0;
  {
    Scheduler scheduler(static_cast<int>(cores), 0.1);
    scheduler.SetCollectors(steady);
    std::this_thread::sleep_for(std::chrono::seconds(2));  // past the jitter
    const uint64_t first = Evaluations(steady);
    const uint64_t skips_first = Skips(steady);
    const double cpu_first = SelfCpuSeconds();
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    cpu = (SelfCpuSeconds() - cpu_first) / seconds;
    evals_per_s = static_cast<double>(Evaluations(steady) - first) / seconds;
    skips = Skips(steady) - skips_first;
    rss = RssMiB();
  }
  // As fast as the workers go: intervals far shorter than a run.
  const auto fast = TrueCollectors(static_cast<int>(cores) * 4, Duration(1));
  // 20000, fewer for a run of a few seconds.
  const uint64_t target = static_cast<uint64_t>(std::min(20000, 2000 * std::max(seconds, 1)));
  const double rss_before = RssMiB();
  const auto start = Clock::now();
  {
    Scheduler scheduler(static_cast<int>(cores), 0);
    scheduler.SetCollectors(fast);
    while (Evaluations(fast) < target) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
  }
  const double max_rate = static_cast<double>(Evaluations(fast)) /
                          std::chrono::duration<double>(Clock::now() - start).count();
  const double growth = RssMiB() - rss_before;
  const double raw = RawSpawnRate(static_cast<int>(target / 4));
  std::printf("steady: %.1f evaluations/s, %llu skips, %.3f cores, %.1f MiB\n",
              evals_per_s, static_cast<unsigned long long>(skips), cpu, rss);
  std::printf("fast: %.0f evaluations/s, raw posix_spawn %.0f/s\n", max_rate, raw);
  std::printf(
      "{\"bench\":\"serve_evals\",\"evals_per_s\":%.1f,\"skips\":%llu,"
      "\"cpu_cores\":%.4f,\"rss_mib\":%.1f,\"rss_growth_mib\":%.2f,"
      "\"max_sustained_evals_per_s\":%.0f,\"max_vs_raw_spawn\":%.3f}\n",
      evals_per_s, static_cast<unsigned long long>(skips), cpu, rss, growth,
      max_rate, max_rate / raw);
}
