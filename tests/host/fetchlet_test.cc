// The fetchlet framework: handles, server version, the abort registry.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "qve/embedded.h"
#include "qve/host.h"

namespace {

int32_t NoMetric(qvefet_Context*, qvlnv_NVList*, qvedrmr_MetricResult**,
                 qveue_Exception**) {
  return 0;
}
void NoFree(qvefet_Fetchlet*) {}

class FetchletTest : public testing::Test {
 protected:
  ~FetchletTest() override { qvehost::DeleteContext(context_); }
  qvefet_Context* context_ = qvehost::NewContext();
};

TEST_F(FetchletTest, ContextCarriesLanguageHandleAndLogSource) {
  EXPECT_NE(context_->langHandle, nullptr);
  EXPECT_NE(context_->logSource, nullptr);
}

TEST_F(FetchletTest, HandleRecordsItsContextUnlessRefused) {
  qvefet_Fetchlet* fetchlet = qvefet_newFetchlet(NoMetric, context_, NoFree);
  ASSERT_NE(fetchlet, nullptr);
  EXPECT_EQ(qvefet_getFetchletContext(fetchlet), context_);
  qvefet_freeFetchlet(fetchlet);
  qvehost::RefuseNewFetchlet(true);
  EXPECT_EQ(qvefet_newFetchlet(NoMetric, context_, NoFree), nullptr);
}

TEST_F(FetchletTest, ServerVersionComesFromTheSetting) {
  EXPECT_EQ(qvectx_getPLBVersion(context_), QVE_SERVER_VERSION_CURRENT);
  qvehost::SetServerVersion(0x400000);
  EXPECT_EQ(qvectx_getPLBVersion(context_), 0x400000);
  qvehost::SetServerVersion(QVE_SERVER_VERSION_CURRENT);
}

struct Seen {
  qvefet_Context* context = nullptr;
  std::string id;
  int calls = 0;
};

int32_t Record(qvefet_Context* context, const char* id, void* user) {
  auto* seen = static_cast<Seen*>(user);
  seen->context = context;
  seen->id = id;
  ++seen->calls;
  return 1;
}

TEST_F(FetchletTest, AbortReachesTheCallbackOnlyWhileRegistered) {
  Seen seen;
  char id[] = "req-1";
  EXPECT_FALSE(qvehost::AbortRequest("req-1"));
  ASSERT_EQ(qvefet_addAbortCallback(context_, id, Record, &seen), 0);
  std::strcpy(id, "other");  // the registry keeps its own copy
  EXPECT_NE(qvefet_addAbortCallback(context_, "req-1", Record, &seen), 0);

  EXPECT_TRUE(qvehost::AbortRequest("req-1"));
  EXPECT_EQ(seen.calls, 1);
  EXPECT_EQ(seen.context, context_);
  EXPECT_EQ(seen.id, "req-1");

  qvefet_Context* stranger = qvehost::NewContext();
  EXPECT_NE(qvefet_removeAbortCallback(stranger, "req-1"), 0);
  qvehost::DeleteContext(stranger);
  EXPECT_EQ(qvefet_removeAbortCallback(context_, "req-1"), 0);
  EXPECT_FALSE(qvehost::AbortRequest("req-1"));
  EXPECT_EQ(seen.calls, 1);
}

TEST_F(FetchletTest, DeletedContextLeavesNoRegistration) {
  Seen seen;
  qvefet_Context* context = qvehost::NewContext();
  ASSERT_EQ(qvefet_addAbortCallback(context, "req-2", Record, &seen), 0);
  qvehost::DeleteContext(context);
  EXPECT_FALSE(qvehost::AbortRequest("req-2"));
}

TEST_F(FetchletTest, OneOfManyConcurrentAddsOfAnIdWins) {
  std::atomic<int> winners{0};
  Seen seen;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      if (qvefet_addAbortCallback(context_, "same", Record, &seen) == 0) ++winners;
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(winners.load(), 1);
  EXPECT_EQ(qvefet_removeAbortCallback(context_, "same"), 0);
}

// A run's abort cell as a runner holds it: a callback arriving after removal
// has returned would write to a cell its run has already given up.
struct RunCell {
  std::atomic<bool> removed{false};
  std::atomic<int> calls{0};
  std::atomic<int> late_calls{0};
};

int32_t MarkRun(qvefet_Context*, const char*, void* user) {
  auto* run = static_cast<RunCell*>(user);
  if (run->removed.load()) ++run->late_calls;
  ++run->calls;
  return 1;
}

constexpr size_t kWorkers = 3;
constexpr size_t kRunsPerWorker = 1000;
constexpr size_t kIdsPerWorker = 4;

std::string RunId(size_t worker, size_t slot) {
  return "w" + std::to_string(worker) + "-" + std::to_string(slot);
}

void AbortUntilDone(const std::atomic<bool>& done) {
  while (!done.load()) {
    for (size_t w = 0; w < kWorkers; ++w) {
      for (size_t i = 0; i < kIdsPerWorker; ++i) qvehost::AbortRequest(RunId(w, i));
    }
    std::this_thread::yield();  // let registrations through the lock
  }
}

// One runner's life, many times over: register, wait a moment, remove.
void RegisterAndRemove(qvefet_Context* context, size_t worker, RunCell* runs) {
  for (size_t r = 0; r < kRunsPerWorker; ++r) {
    std::string id = RunId(worker, r % kIdsPerWorker);
    EXPECT_EQ(qvefet_addAbortCallback(context, id.c_str(), MarkRun, &runs[r]), 0);
    std::this_thread::yield();
    EXPECT_EQ(qvefet_removeAbortCallback(context, id.c_str()), 0);
    runs[r].removed.store(true);
  }
}

TEST_F(FetchletTest, NoCallbackRunsAfterRemovalReturnsUnderConcurrentAborts) {
  std::vector<RunCell> runs(kWorkers * kRunsPerWorker);
  std::atomic<bool> done{false};
  std::vector<std::thread> aborters;
  for (int a = 0; a < 2; ++a) aborters.emplace_back(AbortUntilDone, std::cref(done));
  std::vector<std::thread> workers;
  for (size_t w = 0; w < kWorkers; ++w) {
    workers.emplace_back(RegisterAndRemove, context_, w, &runs[w * kRunsPerWorker]);
  }
  for (std::thread& worker : workers) worker.join();
  done.store(true);
  for (std::thread& aborter : aborters) aborter.join();

  int late = 0;
  int calls = 0;
  for (const RunCell& run : runs) {
    late += run.late_calls.load();
    calls += run.calls.load();
  }
  EXPECT_EQ(late, 0);
  RecordProperty("callbacks", calls);
}

}  // namespace
