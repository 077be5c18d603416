// The multiplexer over real processes.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "host/process_support.h"
#include "qve/host.h"

namespace qvetest {
namespace {

class IOMuxTest : public ChildWatchTest {
 protected:
  void TearDown() override {
    mux_.reset();
    process_.reset();
    ChildWatchTest::TearDown();
  }

  // A started process with its standard input still open.
  ProcessPtr Start(const std::vector<std::string>& argv) {
    ProcessPtr process = NewProcess(argv);
    EXPECT_EQ(sqvejcp_Process_run_need_pipes(process.get(), QVE_STREAM_ALL), 0);
    return process;
  }

  // The stream kinds of one wait, in list order.
  std::vector<uint32_t> Select(int32_t bound_ms) {
    uint32_t count = 99;
    sqvejcx_Channel* channels = nullptr;
    EXPECT_EQ(sqvejcx_IOMuxor_select(mux_.get(), bound_ms, &count, &channels),
              0);
    std::vector<uint32_t> kinds;
    for (uint32_t i = 0; i < count; ++i) {
      EXPECT_EQ(channels[i].hostProcess, process_.get());
      kinds.push_back(channels[i].streamKind);
    }
    if (count == 0) {
      EXPECT_EQ(channels, nullptr);
    }
    sqvejcx_IOMuxor_freeChannels(channels);
    return kinds;
  }

  MuxPtr mux_{sqvejcx_IOMuxor_new(nullptr)};
  ProcessPtr process_;
};

TEST_F(IOMuxTest, WaitWithNothingRegisteredFails) {
  uint32_t count = 7;
  sqvejcx_Channel* channels = nullptr;
  EXPECT_NE(sqvejcx_IOMuxor_select(mux_.get(), 0, &count, &channels), 0);
  EXPECT_EQ(count, 0u);

  process_ = Start({"/bin/true"});
  ASSERT_EQ(sqvejcx_IOMuxor_addProcess(mux_.get(), process_.get(), 6), 0);
  ASSERT_EQ(sqvejcx_IOMuxor_removeProcess(mux_.get(), process_.get(), 2), 0);
  ASSERT_EQ(sqvejcx_IOMuxor_removeProcess(mux_.get(), process_.get(), 4), 0);
  EXPECT_NE(sqvejcx_IOMuxor_select(mux_.get(), 0, &count, &channels), 0);
}

TEST_F(IOMuxTest, RegistrationIsRefusedWithoutStreams) {
  ProcessPtr never_started = NewProcess({"/bin/true"});
  EXPECT_NE(sqvejcx_IOMuxor_addProcess(mux_.get(), never_started.get(), 6), 0);
  process_ = Start({"/bin/true"});
  EXPECT_NE(sqvejcx_IOMuxor_addProcess(mux_.get(), process_.get(), 0), 0);
  EXPECT_NE(sqvejcx_IOMuxor_addProcess(mux_.get(), nullptr, 6), 0);
  EXPECT_NE(sqvejcx_IOMuxor_removeProcess(mux_.get(), process_.get(), 2), 0);
}

TEST_F(IOMuxTest, QuietStreamTimesOutWithNoChannels) {
  process_ = Start({"sleep", "100"});
  ASSERT_EQ(sqvejcx_IOMuxor_addProcess(mux_.get(), process_.get(), 6), 0);
  EXPECT_EQ(Select(20), std::vector<uint32_t>{});
}

// An ended stream stays ready, so its read gives the end; once removed it is
// not reported again.
TEST_F(IOMuxTest, EndedStreamIsReadyUntilRemoved) {
  process_ = Start({"/bin/true"});
  sqvejcp_Process_stdin_close(process_.get());
  // Once reaped, the command has released both pipes.
  ASSERT_EQ(sqvejcp_Process_blocking_wait(process_.get()), 0);
  ASSERT_EQ(sqvejcx_IOMuxor_addProcess(mux_.get(), process_.get(), 6), 0);
  EXPECT_EQ(Select(1000), (std::vector<uint32_t>{2, 4}));
  char buffer[64];
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(sqvejcp_Process_stdout_read(process_.get(), buffer, 64),
              QVE_END_OF_STREAM);
  }
  EXPECT_EQ(Select(1000), (std::vector<uint32_t>{2, 4}));
  ASSERT_EQ(sqvejcx_IOMuxor_removeProcess(mux_.get(), process_.get(), 2), 0);
  EXPECT_EQ(Select(1000), std::vector<uint32_t>{4});
}

// The command first writes more than a pipe holds, then reads its standard
// input for ever. Writing that input drains the output into the process
// object; the wait must report it at once, since the pipe itself stays quiet.
TEST_F(IOMuxTest, DrainedOutputIsReadyWithoutWaiting) {
  constexpr int32_t kOutput = 300000;
  process_ = Start({"sh", "-c", "head -c 300000 /dev/zero; cat >/dev/null"});
  const std::string input(1 << 20, 'z');
  ASSERT_GT(WriteAll(process_.get(), input), 0);
  ASSERT_EQ(sqvejcx_IOMuxor_addProcess(mux_.get(), process_.get(), 6), 0);
  EXPECT_EQ(Select(30000), std::vector<uint32_t>{2});
  std::vector<char> buffer(kOutput);
  int32_t total = 0;
  while (total < kOutput) {
    const int32_t n = sqvejcp_Process_stdout_read(
        process_.get(), buffer.data() + total, kOutput - total);
    ASSERT_GT(n, 0);
    total += n;
  }
  EXPECT_EQ(std::count(buffer.begin(), buffer.end(), '\0'), kOutput);
}

// Either may go first; neither leaves the other with a dangling stream.
TEST_F(IOMuxTest, DeleteWorksWithStreamsStillRegistered) {
  process_ = Start({"sleep", "100"});
  ASSERT_EQ(sqvejcx_IOMuxor_addProcess(mux_.get(), process_.get(), 6), 0);
  process_.reset();
  uint32_t count = 0;
  sqvejcx_Channel* channels = nullptr;
  EXPECT_NE(sqvejcx_IOMuxor_select(mux_.get(), 0, &count, &channels), 0);

  process_ = Start({"sleep", "100"});
  ASSERT_EQ(sqvejcx_IOMuxor_addProcess(mux_.get(), process_.get(), 6), 0);
  mux_.reset();
}

}  // namespace
}  // namespace qvetest
