#include "serve/schedule.h"

#include <gtest/gtest.h>

#include <set>

#include "tests/serve/serve_runtime_support.h"

namespace fetchlet::serve {
namespace {

using namespace std::chrono_literals;
using qvetest::OsCollector;
using qvetest::ProcessesWith;
using qvetest::UniqueSleep;
using qvetest::WaitFor;

constexpr Failure kTimeout = Failure::kTimeout;

std::vector<CollectorPtr> Collectors(const std::string& collectors) {
  const Config config =
      qvetest::LoadServeConfig("collectors:\n" + collectors);
  std::vector<CollectorPtr> out;
  for (const CollectorConfig& collector : config.collectors) {
    out.push_back(std::make_shared<serve::Collector>(
        collector, *qvetest::EntryPoints(collector.kind)));
  }
  return out;
}

bool Evaluated(const CollectorPtr& collector) {
  return collector->snapshot()->generation > 0;
}

TEST(ScheduleTest, HungCommandsEndAtTheirDeadlineWithTheirProcesses) {
  const std::string input(1 << 20, 'x');
  const struct {
    const char* name;
    std::string marker;
    std::string command;
    std::string extra;
  } cases[] = {
      {"sleeps", UniqueSleep(1), "/bin/sleep " + UniqueSleep(1), ""},
      {"closed its streams", UniqueSleep(2),
       "/bin/sh -c \"exec >&- 2>&- <&-; exec /bin/sleep " + UniqueSleep(2) +
           "\"",
       ""},
      {"ignores its input", UniqueSleep(3), "/bin/sleep " + UniqueSleep(3),
       ", STDINDATA: " + input},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto collectors = Collectors(
        OsCollector("hung", c.command, "interval: 1h", "2s", c.extra));
    Scheduler scheduler(2, 0);
    scheduler.SetCollectors(collectors);
    EXPECT_TRUE(WaitFor([&] { return Evaluated(collectors[0]); }, 4s));
    EXPECT_TRUE(WaitFor([&] { return ProcessesWith(c.marker) == 0; }, 1s));
    scheduler.Stop();
    EXPECT_EQ(collectors[0]->failures(kTimeout), 1u);
    EXPECT_FALSE(collectors[0]->snapshot()->up);
  }
}

TEST(ScheduleTest, ARunDueWhileTheLastRunsIsSkipped) {
  const auto collectors = Collectors(OsCollector(
      "slow", "/bin/sh -c \"sleep 1.3; echo 7\"", "interval: 500ms", "10s"));
  Scheduler scheduler(4, 0);
  scheduler.SetCollectors(collectors);
  ASSERT_TRUE(WaitFor([&] { return Evaluated(collectors[0]); }, 5s));
  scheduler.Stop();
  EXPECT_GE(collectors[0]->skipped(), 2u);
  EXPECT_EQ(collectors[0]->failures(kTimeout), 0u);
  EXPECT_EQ(collectors[0]->snapshot()->text,
            "# HELP slow_value A value.\n# TYPE slow_value gauge\n"
            "slow_value 7\n");
}

TEST(ScheduleTest, ConcurrentScrapesShareOneEvaluation) {
  const std::string count = qvetest::ServeTempPath("runs");
  std::remove(count.c_str());
  const auto collectors = Collectors(OsCollector(
      "shared", "/bin/sh -c \"echo run >> " + count + "; sleep 0.5; echo 1\"",
      "on_scrape: {cache_for: 1h}", "10s"));
  Scheduler scheduler(2, 0);
  scheduler.SetCollectors(collectors);
  std::vector<std::thread> scrapes;
  for (int i = 0; i < 5; ++i) {
    scrapes.emplace_back([&] {
      scheduler.RefreshOnScrape(std::chrono::steady_clock::now() + 10s);
    });
  }
  for (std::thread& scrape : scrapes) scrape.join();
  scheduler.RefreshOnScrape(std::chrono::steady_clock::now() + 10s);
  EXPECT_EQ(qvetest::FileBytes(count), "run\n");
  EXPECT_EQ(collectors[0]->snapshot()->generation, 1u);
}

TEST(ScheduleTest, AScrapeGetsTheLastValueAtItsDeadline) {
  const std::string marker = UniqueSleep(4);
  const auto collectors =
      Collectors(OsCollector("stuck", "/bin/sleep " + marker,
                           "on_scrape: {cache_for: 1s}", "1h"));
  Scheduler scheduler(2, 0);
  scheduler.SetCollectors(collectors);
  for (int scrape = 0; scrape < 2; ++scrape) {
    scheduler.RefreshOnScrape(std::chrono::steady_clock::now() + 200ms);
    EXPECT_FALSE(Evaluated(collectors[0]));
  }
  EXPECT_EQ(ProcessesWith(marker), 1);  // one evaluation, never two
  scheduler.Stop();
  EXPECT_EQ(ProcessesWith(marker), 0);
  EXPECT_EQ(collectors[0]->failures(kTimeout), 1u);
}

TEST(ScheduleTest, HungCollectorsDoNotStarveAHealthyOne) {
  std::string yaml;
  for (int i = 0; i < 10; ++i) {
    yaml += OsCollector("hung" + std::to_string(i), "/bin/sleep " + UniqueSleep(6),
                      "interval: 30s", "2s");
  }
  yaml += OsCollector("healthy", "/bin/echo 1", "interval: 1s", "2s");
  const auto collectors = Collectors(yaml);
  const CollectorPtr healthy = collectors.back();
  Scheduler scheduler(2, 0.1);
  const auto start = std::chrono::steady_clock::now();
  scheduler.SetCollectors(collectors);
  // Never older than twice its interval plus its limit.
  const auto bound = 2 * 1s + 2s;
  auto oldest = std::chrono::steady_clock::duration(0);
  while (std::chrono::steady_clock::now() - start < 7s) {
    const auto snapshot = healthy->snapshot();
    const auto since = snapshot->generation > 0 ? snapshot->finished : start;
    oldest = std::max(oldest, std::chrono::steady_clock::now() - since);
    std::this_thread::sleep_for(50ms);
  }
  scheduler.Stop();
  EXPECT_LT(oldest, bound);
  EXPECT_GE(collectors[0]->failures(kTimeout), 1u);
  EXPECT_EQ(healthy->failures(kTimeout), 0u);
  EXPECT_EQ(ProcessesWith(UniqueSleep(6)), 0);
}

TEST(ScheduleTest, JitterOffsetsStayWithinTheirShareAndSpread) {
  std::set<int64_t> offsets;
  for (int i = 0; i < 50; ++i) {
    const Duration offset =
        JitterOffset("host", "c" + std::to_string(i), Duration(60000), 0.1);
    EXPECT_GE(offset.count(), 0);
    EXPECT_LT(offset.count(), 6000);
    offsets.insert(offset.count());
  }
  EXPECT_GT(offsets.size(), 40u);
  EXPECT_EQ(JitterOffset("host", "c", Duration(60000), 0.1),
            JitterOffset("host", "c", Duration(60000), 0.1));
  EXPECT_NE(JitterOffset("a", "c", Duration(60000), 0.1),
            JitterOffset("b", "c", Duration(60000), 0.1));
  EXPECT_EQ(JitterOffset("host", "c", Duration(60000), 0).count(), 0);
}

}  // namespace
}  // namespace fetchlet::serve
