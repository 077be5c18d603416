// The fetchlet framework's abort registry: its own rules (the runner tests
// cover registration, abort and removal) and removal under racing aborts.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "qve/embedded.h"
#include "qve/host.h"

namespace {

int32_t Count(qvefet_Context*, const char* id, void* calls) {
  EXPECT_STREQ(id, "req-1");
  ++*static_cast<int*>(calls);
  return 1;
}

// Ids are copied; a duplicate id or another context's removal is refused;
// deleting a context takes its registrations along.
TEST(FetchletTest, AbortRegistryCopiesIdsRefusesDuplicatesAndStrangers) {
  qvefet_Context* owner = qvehost::NewContext();
  qvefet_Context* stranger = qvehost::NewContext();
  int calls = 0;
  char id[] = "req-1";
  ASSERT_EQ(qvefet_addAbortCallback(owner, id, Count, &calls), 0);
  std::strcpy(id, "other");
  EXPECT_NE(qvefet_addAbortCallback(owner, "req-1", Count, &calls), 0);
  EXPECT_TRUE(qvehost::AbortRequest("req-1"));
  EXPECT_EQ(calls, 1);
  EXPECT_NE(qvefet_removeAbortCallback(stranger, "req-1"), 0);
  ASSERT_EQ(qvefet_addAbortCallback(stranger, "req-2", Count, &calls), 0);
  qvehost::DeleteContext(stranger);
  EXPECT_FALSE(qvehost::AbortRequest("req-2"));
  EXPECT_EQ(qvefet_removeAbortCallback(owner, "req-1"), 0);
  qvehost::DeleteContext(owner);
}

// A run's abort flag as a runner holds it: a callback arriving after removal
// has returned would write to a flag its run has already given up.
std::atomic<int> late_calls{0};

int32_t MarkRun(qvefet_Context*, const char*, void* removed) {
  if (static_cast<std::atomic<bool>*>(removed)->load()) ++late_calls;
  return 1;
}

TEST(FetchletTest, NoCallbackRunsAfterRemovalReturnsUnderConcurrentAborts) {
  constexpr size_t kWorkers = 3, kRuns = 1000, kIds = 4;
  auto run_id = [](size_t worker, size_t slot) {
    return "w" + std::to_string(worker) + "-" + std::to_string(slot);
  };
  qvefet_Context* context = qvehost::NewContext();
  std::vector<std::atomic<bool>> removed(kWorkers * kRuns);
  std::atomic<bool> done{false};
  std::vector<std::thread> aborters, workers;
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
  for (size_t w = 0; w < kWorkers; ++w) {
    workers.emplace_back([&, w] {
      for (size_t r = 0; r < kRuns; ++r) {
        std::atomic<bool>& flag = removed[w * kRuns + r];
        const std::string id = run_id(w, r % kIds);
        EXPECT_EQ(qvefet_addAbortCallback(context, id.c_str(), MarkRun, &flag),
                  0);
        std::this_thread::yield();
        EXPECT_EQ(qvefet_removeAbortCallback(context, id.c_str()), 0);
        flag.store(true);
      }
    });
  }
  for (std::thread& worker : workers) worker.join();
  done.store(true);
  for (std::thread& aborter : aborters) aborter.join();
  EXPECT_EQ(late_calls.load(), 0);
  qvehost::DeleteContext(context);
}

}  // namespace
