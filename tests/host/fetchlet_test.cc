// The fetchlet framework's abort registry.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "qve/embedded.h"
#include "qve/host.h"

namespace {

class FetchletTest : public testing::Test {
 protected:
  ~FetchletTest() override { qvehost::DeleteContext(context_); }
  qvefet_Context* context_ = qvehost::NewContext();
};

int32_t Count(qvefet_Context*, const char* id, void* calls) {
  EXPECT_STREQ(id, "req-1");
  ++*static_cast<int*>(calls);
  return 1;
}

// The runner tests cover registration, abort and removal; these are the
// registry's own rules.
TEST_F(FetchletTest, AbortRegistryCopiesIdsRefusesDuplicatesAndStrangers) {
  int calls = 0;
  char id[] = "req-1";
  ASSERT_EQ(qvefet_addAbortCallback(context_, id, Count, &calls), 0);
  std::strcpy(id, "other");
  EXPECT_NE(qvefet_addAbortCallback(context_, "req-1", Count, &calls), 0);
  EXPECT_TRUE(qvehost::AbortRequest("req-1"));
  EXPECT_EQ(calls, 1);

  qvefet_Context* stranger = qvehost::NewContext();
  EXPECT_NE(qvefet_removeAbortCallback(stranger, "req-1"), 0);
  ASSERT_EQ(qvefet_addAbortCallback(stranger, "req-2", Count, &calls), 0);
  qvehost::DeleteContext(stranger);  // takes its registrations along
  EXPECT_FALSE(qvehost::AbortRequest("req-2"));
  EXPECT_EQ(qvefet_removeAbortCallback(context_, "req-1"), 0);
}

// A run's abort cell as a runner holds it: a callback arriving after removal
// has returned would write to a cell its run has already given up.
struct RunCell {
  std::atomic<bool> removed{false};
  std::atomic<int> late_calls{0};
};

int32_t MarkRun(qvefet_Context*, const char*, void* user) {
  auto* run = static_cast<RunCell*>(user);
  if (run->removed.load()) ++run->late_calls;
  return 1;
}

TEST_F(FetchletTest, NoCallbackRunsAfterRemovalReturnsUnderConcurrentAborts) {
  constexpr size_t kWorkers = 3, kRuns = 1000, kIds = 4;
  auto run_id = [](size_t worker, size_t slot) {
    return "w" + std::to_string(worker) + "-" + std::to_string(slot);
  };
  std::vector<RunCell> runs(kWorkers * kRuns);
  std::atomic<bool> done{false};
  std::vector<std::thread> aborters;
  for (int a = 0; a < 2; ++a) {
    aborters.emplace_back([&] {
      while (!done.load()) {
        for (size_t w = 0; w < kWorkers; ++w) {
          for (size_t i = 0; i < kIds; ++i) qvehost::AbortRequest(run_id(w, i));
        }
        std::this_thread::yield();  // let registrations through the lock
      }
    });
  }
  std::vector<std::thread> workers;
  for (size_t w = 0; w < kWorkers; ++w) {
    workers.emplace_back([&, w] {
      for (size_t r = 0; r < kRuns; ++r) {
        RunCell& run = runs[w * kRuns + r];
        const std::string id = run_id(w, r % kIds);
        EXPECT_EQ(qvefet_addAbortCallback(context_, id.c_str(), MarkRun, &run), 0);
        std::this_thread::yield();
        EXPECT_EQ(qvefet_removeAbortCallback(context_, id.c_str()), 0);
        run.removed.store(true);
      }
    });
  }
  for (std::thread& worker : workers) worker.join();
  done.store(true);
  for (std::thread& aborter : aborters) aborter.join();
  int late = 0;
  for (const RunCell& run : runs) late += run.late_calls.load();
  EXPECT_EQ(late, 0);
}

}  // namespace
