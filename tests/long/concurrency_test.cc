// Eight threads evaluate through the four fetchlets at once while a ninth
// aborts requests by identifier: the long ones, which only an abort ends,
// and now and then a short one. Every run ends with its own outcome or, when
// an abort was aimed at it, with the abort's.
#include <array>
#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "fosud/udm_support.h"
#include "long/long_support.h"

namespace qvetest {
namespace {

constexpr int kThreads = 8;
constexpr int kPerThread = 1000;
constexpr int kLongEvery = 100;   // one long run in each hundred
constexpr int kShortAimedAt = 8;  // one short run in eight meets an abort

struct Job {
  const char* name;
  const Fetchlet* fetchlet;
  Props props;
  Json expected;
  bool asUser = false;
};

const Json kAborted = Failed(QVE_EXC_TIMEOUT, "Metric execution aborted");

const Job kShortJobs[] = {
    {"OsEcho", &kOs, {{"command", "echo ok"}}, Succeeded(Flat({{"ok\n"}}))},
    {"LinePrintf",
     &kOsLine,
     {{"command", "printf 'a\\nb\\n'"}},
     Succeeded(Flat({{"a"}, {"b"}}))},
    {"TokenPrintf",
     &kOsLineToken,
     {{"command", "printf '1,2\\n'"}, {"delimiter", ","}},
     Succeeded(Flat({{"1", "2"}}))},
    {"OsExit1",
     &kOs,
     {{"command", "/bin/sh -c 'echo e >&2; exit 1'"}},
     Failed(QVE_EXC_RUN_FAILED, "e\n")},
    {"Udm",
     &kUdm,
     {{"command", "/bin/sh"}, {"args", "-c 'echo kt_result=1'"}, {"ID", "c"}},
     udm::Succeeded(udm::Row("c", nullptr, "1",
                             "User Defined Metric c returned a value of 1")),
     true},
};

// No time limit: only an abort ends them before their half minute is up.
const Job kLongJobs[] = {
    {"OsSleep", &kOs, {{"command", "sleep 30"}}, kAborted},
    {"LineSleep", &kOsLine, {{"command", "sleep 30"}}, kAborted},
    {"TokenSleep", &kOsLineToken, {{"command", "sleep 30"}}, kAborted},
    {"UdmSleep",
     &kUdm,
     {{"command", "/bin/sleep"}, {"args", "30"}, {"ID", "c"}},
     kAborted,
     true},
};

bool IsLong(int i) { return i % kLongEvery == kLongEvery / 2; }

std::string RequestId(int thread, int i) {
  return "c" + std::to_string(thread) + "-" + std::to_string(i);
}

// What the workers and the aborting thread share.
struct Board {
  // The evaluation each worker runs now; -1 between evaluations.
  std::array<std::atomic<int>, kThreads> current;
  // Set before an abort is tried on an evaluation, by thread * kPerThread + i.
  std::vector<std::atomic<bool>> aimedAt =
      std::vector<std::atomic<bool>>(kThreads * kPerThread);
  std::atomic<int> working{kThreads};

  Board() {
    for (auto& slot : current) slot = -1;
  }
};

// Aims at every long evaluation and at one short one in kShortAimedAt,
// until its abort lands or the evaluation is over.
void AbortRequests(Board& board) {
  struct Target {
    int seen = -1;
    bool aimed = false;
    bool landed = false;
  };
  std::array<Target, kThreads> targets;
  unsigned sightings = 0;
  while (board.working > 0) {
    for (int t = 0; t < kThreads; ++t) {
      const int i = board.current[t];
      Target& target = targets[t];
      if (i < 0) continue;
      if (i != target.seen) {
        target = {i, IsLong(i) || ++sightings % kShortAimedAt == 0, false};
      }
      if (!target.aimed || target.landed) continue;
      board.aimedAt[t * kPerThread + i] = true;
      target.landed = qvehost::AbortRequest(RequestId(t, i));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

// What one worker saw.
struct Record {
  int wrong = 0;
  Json first;  // the first unexpected outcome, with its job
  int abortedShort = 0;
};

class ConcurrencyTest : public testing::Test {
 protected:
  ~ConcurrencyTest() override { qvehost::DeleteContext(context_); }

  void Work(int t, Record* record) {
    std::vector<const Job*> shortJobs;
    for (const Job& job : kShortJobs) {
      if (!job.asUser || account_ != nullptr) shortJobs.push_back(&job);
    }
    const size_t longJobs =
        account_ != nullptr ? std::size(kLongJobs) : std::size(kLongJobs) - 1;
    for (int i = 0; i < kPerThread; ++i) {
      const Job& job =
          IsLong(i)
              ? kLongJobs[static_cast<size_t>(t + i / kLongEvery) % longJobs]
              : *shortJobs[static_cast<size_t>(t + i) % shortJobs.size()];
      Props props = job.props;
      props.emplace_back("KTDCLIENT_REQUEST_ID", RequestId(t, i));
      if (job.asUser) props = WithCredentials(*account_, props);
      board_.current[t] = i;
      const Json outcome = Evaluate(job.fetchlet->getMetric, context_, props);
      board_.current[t] = -1;
      const bool aimedAt = board_.aimedAt[t * kPerThread + i];
      record->abortedShort += !IsLong(i) && outcome == kAborted;
      if (outcome == job.expected || (aimedAt && outcome == kAborted)) continue;
      if (record->wrong++ == 0) {
        record->first = {{"job", job.name}, {"i", i}, {"outcome", outcome}};
      }
    }
    --board_.working;
  }

  qvefet_Context* context_ = qvehost::NewContext();
  HostBaseline baseline_{context_};
  const TestAccount* account_ = nullptr;
  Board board_;
};

TEST_F(ConcurrencyTest, EveryRunEndsAndEveryAbortGivesKindSeven) {
  std::string noAccount;
  account_ = UdmAccount(&noAccount);
  std::array<Record, kThreads> records;
  {
    const FetchletHandles handles(context_);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([this, t, &records] { Work(t, &records[t]); });
    }
    std::thread aborter(AbortRequests, std::ref(board_));
    for (std::thread& thread : threads) thread.join();
    aborter.join();
  }
  int abortedShort = 0;
  for (const Record& record : records) {
    EXPECT_EQ(record.wrong, 0) << record.first.dump();
    abortedShort += record.abortedShort;
  }
  RecordProperty("aborted_short_runs", abortedShort);
  baseline_.ExpectUnchanged();
  if (account_ != nullptr) {
    EXPECT_EQ(ProcessesOf(account_->uid), std::vector<int>{});
  }
}

}  // namespace
}  // namespace qvetest
