// Eight threads evaluate through the four fetchlets at once, each run with an
// identifier that another thread may abort: every long run, which only an
// abort ends, and one short run in eight, which the abort may or may not
// reach in time. Every run ends with its own outcome or the abort's.
#include <gtest/gtest.h>

#include <array>
#include <span>

#include "long/long_support.h"

namespace qvetest {
namespace {

constexpr int kThreads = 8;
constexpr int kPerThread = 1000;
constexpr int kLongEvery = 100;   // one long run in each hundred
constexpr int kShortAimedAt = 8;  // one short run in eight meets an abort

struct Job {
  const Fetchlet* fetchlet;
  Props props;
  Json expected;
  bool asUser = false;
};

const Json kAborted = Failed(QVE_EXC_TIMEOUT, "Metric execution aborted");
// No time limit: only an abort ends them before their half minute is up.
const Props kSleeps = {{"command", "/bin/sleep"}, {"args", "30"}, {"ID", "c"}};

const Job kShortJobs[] = {
    {&kOs, {{"command", "echo ok"}}, Succeeded(Flat({{"ok\n"}}))},
    {&kOsLine,
     {{"command", "printf 'a\\nb\\n'"}},
     Succeeded(Flat({{"a"}, {"b"}}))},
    {&kOsLineToken,
     {{"command", "printf '1,2\\n'"}, {"delimiter", ","}},
     Succeeded(Flat({{"1", "2"}}))},
    {&kOs,
     {{"command", "/bin/sh -c 'echo e >&2; exit 1'"}},
     Failed(QVE_EXC_RUN_FAILED, "e\n")},
    {&kUdm,
     {{"command", "/bin/sh"}, {"args", "-c 'echo kt_result=1'"}, {"ID", "c"}},
     Succeeded(UdmRow("c", nullptr, "1",
                      "User Defined Metric c returned a value of 1")),
     true},
};
const Job kLongJobs[] = {{&kOs, kSleeps, kAborted},
                         {&kOsLine, kSleeps, kAborted},
                         {&kOsLineToken, kSleeps, kAborted},
                         {&kUdm, kSleeps, kAborted, true}};

class ConcurrencyTest : public LongTest {
 protected:
  // The jobs this process can run, without the account's when it has none.
  std::vector<const Job*> Runnable(std::span<const Job> jobs) const {
    std::vector<const Job*> runnable;
    for (const Job& job : jobs) {
      if (!job.asUser || account_ != nullptr) runnable.push_back(&job);
    }
    return runnable;
  }

  // The number of unexpected outcomes, the first of them in *first.
  int Work(int t, Json* first) {
    const std::vector<const Job*> shortJobs = Runnable(kShortJobs);
    const std::vector<const Job*> longJobs = Runnable(kLongJobs);
    int wrong = 0;
    for (int i = 0; i < kPerThread; ++i) {
      const bool isLong = i % kLongEvery == kLongEvery / 2;
      const Job& job =
          isLong ? *longJobs[static_cast<size_t>(t + i / kLongEvery) %
                             longJobs.size()]
                 : *shortJobs[static_cast<size_t>(t + i) % shortJobs.size()];
      const std::string id = "c" + std::to_string(t) + "-" + std::to_string(i);
      Props props = job.props;
      props.emplace_back("KTDCLIENT_REQUEST_ID", id);
      if (job.asUser) props = WithCredentials(*account_, props);
      const bool aimedAt = isLong || i % kShortAimedAt == 0;
      std::optional<Aborter> aborter;
      if (aimedAt) aborter.emplace(id);
      const Json outcome = Evaluate(job.fetchlet->getMetric, context_, props);
      if (outcome == job.expected || (aimedAt && outcome == kAborted)) continue;
      if (wrong++ == 0) *first = {{"job", job.props}, {"outcome", outcome}};
    }
    return wrong;
  }
};

TEST_F(ConcurrencyTest, EveryRunEndsAndEveryAbortGivesKindSeven) {
  UseAccount();
  OpenHandles();
  std::array<int, kThreads> wrong{};
  std::array<Json, kThreads> first;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back(
        [this, t, &wrong, &first] { wrong[t] = Work(t, &first[t]); });
  }
  for (std::thread& thread : threads) thread.join();
  for (int t = 0; t < kThreads; ++t) EXPECT_EQ(wrong[t], 0) << first[t].dump();
  ExpectHostUnchanged();
}

}  // namespace
}  // namespace qvetest
