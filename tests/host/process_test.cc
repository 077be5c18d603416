// The plain process family and the multiplexer, where the plug-in's runner
// cannot reach. Each test runs as a child subreaper, so whatever a command
// leaves behind becomes the test's own child; the fixture then proves that
// nothing is left alive (not even a zombie) and no descriptor is left open.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "common/processes.h"
#include "qve/embedded.h"
#include "qve/host.h"

namespace {

using qvetest::ExitValue;
using qvetest::OpenDescriptors;
using qvetest::RunToEnd;
using qvetest::WriteAll;
using Strings = std::vector<std::string>;
using qvetest::ProcessPtr;
using qvetest::StartPiped;
using MuxPtr =
    std::unique_ptr<sqvejcx_IOMuxor, decltype(&sqvejcx_IOMuxor_delete)>;

// A multiplexer watching the process's output streams.
MuxPtr Watch(sqvejcp_Process* process) {
  MuxPtr mux(sqvejcx_IOMuxor_new(nullptr), sqvejcx_IOMuxor_delete);
  EXPECT_EQ(sqvejcx_IOMuxor_addProcess(mux.get(), process, QVE_STREAM_OUTPUTS),
            0);
  return mux;
}

class ProcessTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    qvehost::RemoveIdleRunCgroups();
    descriptors_ = OpenDescriptors();
  }
  // Every child left must be an adopted zombie (a command's killed
  // background job), never a command the host did not reap (a group
  // leader), nor alive once killed processes had a moment to exit.
  void TearDown() override {
    const auto give_up =
        std::chrono::steady_clock::now() + std::chrono::seconds(10);
    siginfo_t child{};
    while (waitid(P_ALL, 0, &child, WEXITED | WNOHANG | WNOWAIT) == 0) {
      if (child.si_pid != 0) {
        EXPECT_NE(getpgid(child.si_pid), child.si_pid) << "left unreaped";
        waitpid(child.si_pid, nullptr, 0);
      } else if (std::chrono::steady_clock::now() < give_up) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
      } else {
        ADD_FAILURE() << "a process left alive";
        break;
      }
    }
    qvehost::RemoveIdleRunCgroups();  // the pool keeps its descriptors
    EXPECT_EQ(OpenDescriptors(), descriptors_) << "descriptors left open";
    prctl(PR_SET_CHILD_SUBREAPER, 0);
  }

  std::set<int> descriptors_;
};

// A script without "#!", found in PATH, runs through /bin/sh.
TEST_F(ProcessTest, ExitValuesAndScriptWithoutInterpreterLine) {
  char dir[] = "/tmp/qve-process-XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  const std::string script = std::string(dir) + "/no-interpreter-line";
  std::ofstream(script) << "echo \"script ran $1\"\n";
  chmod(script.c_str(), 0755);
  const std::string path = getenv("PATH");
  setenv("PATH", (std::string(dir) + ":" + path).c_str(), 1);
  const std::pair<Strings, std::pair<int32_t, std::string>> cases[] = {
      {{"sh", "-c", "echo A; echo B >&2; exit 3"}, {3, "A\n"}},
      {{"sh", "-c", "kill -USR1 $$"}, {128 + SIGUSR1, ""}},
      {{"no-interpreter-line", "y"}, {0, "script ran y\n"}},
  };
  for (const auto& [argv, outcome] : cases) {
    EXPECT_EQ(RunToEnd(argv, ""), outcome) << argv.back();
  }
  setenv("PATH", path.c_str(), 1);
  std::filesystem::remove_all(dir);
}

// Kill ends the whole group (the background sleep holds the output pipe),
// and deleting a running process does as much; a background job that
// outlives its command's streams is reaped. The fixture proves the rest.
TEST_F(ProcessTest, KillAndDeleteLeaveNothingBehind) {
  ProcessPtr process =
      StartPiped({"sh", "-c", "trap '' TERM; sleep 100 & echo up; exec sleep 100"});
  char buffer[8];
  EXPECT_EQ(sqvejcp_Process_stdout_read(process.get(), buffer, 8), 3);
  EXPECT_EQ(sqvejcp_Process_kill(process.get()), 0);
  EXPECT_EQ(ExitValue(process.get()), 128 + SIGKILL);
  EXPECT_EQ(sqvejcp_Process_stdout_read(process.get(), buffer, 8),
            QVE_END_OF_STREAM);
  StartPiped({"sh", "-c", "sleep 100 & sleep 100"});  // deleted while running
  EXPECT_EQ(RunToEnd({"sh", "-c", "sleep 100 >/dev/null 2>&1 &"}, "").first, 0);
}

// Writing to a command that is gone fails without killing the host. The
// SIGPIPE the write raises is taken back; one the thread already had pending
// is not the host's to take.
TEST_F(ProcessTest, GoneReaderGivesWriteFailureAndOnlyAForeignSigpipeStays) {
  signal(SIGPIPE, SIG_DFL);
  sigset_t pipe_set, old, pending;
  sigemptyset(&pipe_set);
  sigaddset(&pipe_set, SIGPIPE);
  for (const auto& [blocked, foreign] :
       {std::pair{false, false}, {true, false}, {true, true}}) {
    pthread_sigmask(blocked ? SIG_BLOCK : SIG_UNBLOCK, &pipe_set, &old);
    if (foreign) pthread_kill(pthread_self(), SIGPIPE);
    ProcessPtr process = StartPiped({"sh", "-c", "exit 0"});
    EXPECT_EQ(WriteAll(process.get(), std::string(1 << 20, 'x')),
              QVE_WRITE_FAILED);
    sigpending(&pending);
    EXPECT_EQ(sigismember(&pending, SIGPIPE) == 1, foreign) << blocked;
    const timespec zero{};
    if (foreign) sigtimedwait(&pipe_set, nullptr, &zero);
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    EXPECT_EQ(sqvejcp_Process_blocking_wait(process.get()), 0);
  }
}

// The command first writes more than a pipe holds, then reads its standard
// input for ever. Writing that input drains the output into the process
// object; the wait must report it at once, since the pipe itself stays quiet.
TEST_F(ProcessTest, MuxReportsOutputDrainedWhileStdinWasFull) {
  constexpr int32_t kOutput = 300000;
  ProcessPtr process =
      StartPiped({"sh", "-c", "head -c 300000 /dev/zero; cat >/dev/null"});
  ASSERT_GT(WriteAll(process.get(), std::string(1 << 20, 'z')), 0);
  MuxPtr mux = Watch(process.get());
  uint32_t count = 99;
  sqvejcx_Channel* channels = nullptr;
  ASSERT_EQ(sqvejcx_IOMuxor_select(mux.get(), 30000, &count, &channels), 0);
  EXPECT_EQ(count == 1 ? channels[0].streamKind : 0u, QVE_STREAM_STDOUT);
  sqvejcx_IOMuxor_freeChannels(channels);
  std::vector<char> buffer(kOutput);
  for (int32_t total = 0, n = 0; total < kOutput; total += n) {
    n = sqvejcp_Process_stdout_read(process.get(), buffer.data() + total,
                                    kOutput - total);
    ASSERT_GT(n, 0);
  }
  EXPECT_EQ(std::count(buffer.begin(), buffer.end(), '\0'), kOutput);
}

// Either may go first; neither leaves the other with a dangling stream.
TEST_F(ProcessTest, MuxAndProcessMayBeDeletedInEitherOrder) {
  ProcessPtr process = StartPiped({"sleep", "100"});
  MuxPtr mux = Watch(process.get());
  process = StartPiped({"sleep", "100"});  // the watched one deleted
  uint32_t count = 0;
  sqvejcx_Channel* channels = nullptr;
  EXPECT_NE(sqvejcx_IOMuxor_select(mux.get(), 0, &count, &channels), 0);
  ASSERT_EQ(
      sqvejcx_IOMuxor_addProcess(mux.get(), process.get(), QVE_STREAM_OUTPUTS),
      0);
  mux.reset();
}

}  // namespace
