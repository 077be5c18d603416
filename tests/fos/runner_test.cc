// The plain runner on real commands: texts and exceptions, start failures,
// time limits, aborts, floods and hostile children.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/time.h>

#include "common/run_support.h"
#include "fos/qvefos_captured_text.h"

namespace qvetest {
namespace {

using qvehost::LogLevel;
constexpr int32_t kRunFailed = QVE_EXC_RUN_FAILED;
const std::string kNoOutput = "Command exited abnormally without any output";

Json Ok(const Text& out, const Text& err = {}) {
  return Succeeded(Texts(out, err));
}

class RunnerTest : public PluginTest {
 protected:
  void SetUp() override { BecomeSubreaper(); }
  // No process of a run may outlive it.
  void TearDown() override {
    EXPECT_EQ(SurvivingChildren(), std::vector<int>{});
  }
};

TEST_F(RunnerTest, HandsBackTextsOrTheException) {
  const std::string failing = "printf A; printf B >&2; exit 3";
  // clang-format off
  const std::tuple<std::string, RunOptions, Json> cases[] = {
      {"printf A; printf B >&2", {}, Ok("A", "B")},
      {"printf B >&2", {}, Ok({}, "B")},
      {failing, {}, Failed(kRunFailed, "AB")},
      {failing, {.separateErrorStream = 1}, Failed(kRunFailed, "B")},
      {"printf A; exit 3", {.separateErrorStream = 1},
       Failed(kRunFailed, kNoOutput)},
      {"printf A; exit 3", {.withExceptionSlot = false}, kFailedQuietly},
      {"kill -9 $$", {}, Failed(kRunFailed, kNoOutput)},
      // A NUL ends what a chunk gives of its text.
      {"printf 'a\\000b'; printf c >&2", {}, Ok("a", "c")},
      {"cat", {.stdinText = ""}, Ok({})},
      {"printf %s \"$ONLY${HOME:-none}\"", {.env = {"ONLY=1"}}, Ok("1none")},
  };
  // clang-format on
  for (const auto& [script, options, outcome] : cases) {
    EXPECT_EQ(RunShell(context_, script, options), outcome) << script;
  }
  capture_.Clear();
  RunShell(context_, failing);
  EXPECT_EQ(Logged(LogLevel::kError),
            (Strings{"Process stdout = A\n", "Process stderr = B\n"}));
}

TEST_F(RunnerTest, StartFailuresNameTheProgram) {
  const std::tuple<std::string, int32_t, Json> cases[] = {
      {"/x/y", 0, Failed(kRunFailed, "/x/y: not found")},
      // Without an execute bit even root cannot run it.
      {"/etc/passwd", 0,
       Failed(kRunFailed, "/etc/passwd: no execute permission")},
      {"/bin/true", QVE_PROCESS_LIMIT,
       Failed(QVE_EXC_PROCESS_LIMIT, "Process Limit exceed")},
      {"/bin/true", -99, Failed(kRunFailed, "Unable to run the process")},
  };
  for (const auto& [program, forced, outcome] : cases) {
    qvehost::ForceStartResult(forced);
    EXPECT_EQ(RunCommand(context_, {program}, {.stdinText = "ignored\n"}),
              outcome);
  }
  qvehost::ForceStartResult(0);
}

TEST_F(RunnerTest, AbortEndsOnlyARunWithoutATimeLimit) {
  {
    const Aborter aborter("request-42");
    EXPECT_EQ(RunShell(context_, "sleep 30", {.requestId = "request-42"}),
              Failed(QVE_EXC_TIMEOUT, "Metric execution aborted"));
  }
  EXPECT_FALSE(qvehost::AbortRequest("request-42"));  // deregistered
  const Strings debug = Logged(LogLevel::kDebug, "fetchlets.os");
  ASSERT_FALSE(debug.empty());
  EXPECT_EQ(debug.front(), "Added abort callback successfully");
  const Aborter aborter("request-43");
  EXPECT_EQ(RunShell(context_, "sleep 10",
                     {.timeoutSeconds = 1, .requestId = "request-43"}),
            Failed(QVE_EXC_TIMEOUT, "Metric execution timed out in 1 seconds"));
}

TEST_F(RunnerTest, LargeTextsGoThroughWithoutLoss) {
  // Around one read's worth, and a flood.
  for (size_t size : {size_t{8207}, size_t{8208}, size_t{30} << 20}) {
    const Json r = RunShell(
        context_, "yes 0123456789abcdef | head -c " + std::to_string(size));
    ASSERT_EQ(r["status"], 0);
    const std::string out = r["result"]["out"];
    ASSERT_EQ(out.size(), size);
    EXPECT_EQ(out.find_first_not_of("0123456789abcdef\n"), std::string::npos);
    EXPECT_EQ(out.compare(0, 17, "0123456789abcdef\n"), 0);
  }
  // Input and output at once: neither side may wait for the other.
  std::string input(4u << 20, 'x');
  for (size_t i = 99; i < input.size(); i += 100) input[i] = '\n';
  EXPECT_EQ(RunShell(context_, "cat", {.stdinText = input}), Ok(input));
}

// An interval timer interrupts every poll, read, write and wait of whole
// runs through a handler without SA_RESTART (a write blocked on a full pipe
// among them): the runner and the host must retry them all and lose no byte.
TEST_F(RunnerTest, RunsThroughAnIntervalTimerWithoutRestart) {
  static std::atomic<int> ticks{0};
  struct sigaction action = {}, previous = {};
  action.sa_handler = [](int) { ticks.fetch_add(1); };
  ASSERT_EQ(sigaction(SIGALRM, &action, &previous), 0);
  const itimerval every{{0, 500}, {0, 500}};
  ASSERT_EQ(setitimer(ITIMER_REAL, &every, nullptr), 0);
  const std::string input(1 << 20, 'i');
  const struct {
    std::string script;
    Text stdinText;
    std::string out;
  } cases[] = {
      {"sleep 0.2; cat", input, input},
      {"for i in 1 2 3 4 5 6 7 8; do head -c 8192 /dev/zero | tr '\\0' o;"
       " sleep 0.01; done", {}, std::string(64 << 10, 'o')},
      {"head -c 65536 /dev/zero | tr '\\0' e >&2; sleep 0.05; echo done", {},
       "done\n"},
  };
  for (const auto& c : cases) {
    const Json r = RunShell(context_, c.script, {.stdinText = c.stdinText});
    ASSERT_EQ(r["status"], 0) << c.script << " " << r.dump().substr(0, 200);
    EXPECT_TRUE(r["result"]["out"] == c.out) << c.script;
  }
  const itimerval off{};
  setitimer(ITIMER_REAL, &off, nullptr);
  sigaction(SIGALRM, &previous, nullptr);
  EXPECT_GT(ticks.load(), 0);
}

// Growth past the length's range fails before any allocation, as a refused
// one does; the text keeps what it held.
TEST_F(RunnerTest, CapturedTextNeverWrapsItsLength) {
  const struct {
    uint32_t start;
    uint32_t chunk;
    bool withSpace;
    bool grows;
  } cases[] = {
      {UINT32_MAX - 8, 8, false, true},   {UINT32_MAX - 8, 9, false, false},
      {UINT32_MAX - 8, 7, true, true},    {UINT32_MAX - 8, 8, true, false},
      {UINT32_MAX, 1, false, false},      {UINT32_MAX - 1, 0, true, true},
  };
  for (const auto& c : cases) {
    qvehost::ResetFaults();
    qvefos::CapturedText captured;
    captured.text = static_cast<char*>(qvefos::kFosMemory.Alloc(1));
    captured.length = c.start;
    const char chunk[16] = "abcdefghijklmno";
    if (c.grows) {
      // A stand-in for the tail: only the bounds check is under test.
      qvehost::FailAllocation("qvefos", 1, false);
    }
    const bool appended = c.withSpace ? captured.AppendWithSpace(chunk, c.chunk)
                                      : captured.Append(chunk, c.chunk);
    EXPECT_FALSE(appended) << c.start << " + " << c.chunk;
    EXPECT_EQ(captured.length, c.start);
    EXPECT_EQ(qvehost::AllocationCount("qvefos"), c.grows ? 2u : 1u)
        << "a wrap must fail before it asks for memory";
    captured.Drop();
  }
}

TEST_F(RunnerTest, CommandThatLeavesStdinUnreadIsAWriteFailure) {
  signal(SIGPIPE, SIG_DFL);  // the host must survive without ignoring it
  const std::string input(1u << 20, 'x');
  EXPECT_EQ(RunShell(context_, "exit 0", {.stdinText = input}),
            Failed(kRunFailed, "Error writing input stream for OS fetchlet"));
  EXPECT_EQ(Logged(LogLevel::kError),
            Strings{"Error writing input stream for the java external "
                    "fetchlet"});
  // Without a slot the writing stops and the run goes on.
  EXPECT_EQ(RunShell(context_, "exit 0",
                     {.stdinText = input, .withExceptionSlot = false}),
            Ok({}));
}

// A flood on either stream ends on the read-failure path once the host's
// limit is reached (the host's log line: ContainmentTest). Each run ends
// with its whole group gone.
TEST_F(RunnerTest, HostileChildren) {
  const int leaked = open("/dev/null", O_RDONLY);  // not close-on-exec
  signal(SIGPIPE, SIG_IGN);
  sigset_t blocked;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGUSR1);
  pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
  const uint64_t saved = qvehost::OutputLimit();
  qvehost::SetOutputLimit(uint64_t{1} << 20);
  // clang-format off
  const std::pair<std::string, Json> cases[] = {
      {"trap '' TERM; sleep 10",
       Failed(QVE_EXC_TIMEOUT, "Metric execution timed out in 2 seconds")},
      // Only the group's kill ends the sleep that holds the pipe.
      {"sleep 30 & echo started",
       Failed(QVE_EXC_TIMEOUT, "Metric execution timed out in 2 seconds")},
      // Nothing of the host's signal state or descriptors reaches the child.
      {"grep -E '^Sig(Blk|Ign)' /proc/self/status",
       Ok("SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n")},
      {"ls /proc/$$/fd", Ok("0\n1\n2\n")},
      {"sleep 30 & exec yes 0123456789",
       Failed(kRunFailed, "Unable to read output from command execution")},
      {"sleep 30 & exec yes 0123456789 >&2",
       Failed(kRunFailed, "Unable to read stderr from command execution")},
  };
  // clang-format on
  for (const auto& [script, outcome] : cases) {
    EXPECT_EQ(RunShell(context_, script, {.timeoutSeconds = 2}), outcome);
    EXPECT_EQ(SurvivingChildren(), std::vector<int>{}) << script;
  }
  qvehost::SetOutputLimit(saved);
  pthread_sigmask(SIG_UNBLOCK, &blocked, nullptr);
  signal(SIGPIPE, SIG_DFL);
  close(leaked);
}

TEST_F(RunnerTest, ConcurrentRunsDoNotWaitForASlowSibling) {
  std::atomic<bool> sleeperDone{false};
  std::atomic<int> finishedEarly{0};
  std::vector<std::thread> threads;
  threads.emplace_back([&] {
    RunShell(context_, "sleep 3");
    sleeperDone = true;
  });
  for (int t = 0; t < 7; ++t) {
    threads.emplace_back([&] {
      // A pipe end leaked into the sleeper would hold these runs open.
      for (int i = 0; i < 2; ++i) {
        if (RunShell(context_, "echo x") == Ok("x\n") && !sleeperDone) {
          ++finishedEarly;
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(finishedEarly.load(), 14);
}

}  // namespace
}  // namespace qvetest
