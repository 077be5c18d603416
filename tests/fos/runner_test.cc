// The plain runner on real commands.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <thread>

#include <gtest/gtest.h>

#include "fos/run_support.h"
#include "qve/embedded.h"

namespace qvetest {
namespace {

using qvehost::LogLevel;
using Text = std::optional<std::string>;

constexpr int32_t kRunFailed = QVE_EXC_RUN_FAILED;

class RunnerTest : public testing::Test {
 protected:
  void SetUp() override { BecomeSubreaper(); }
  ~RunnerTest() override { qvehost::DeleteContext(context_); }

  // No process of a run may outlive it.
  static void ExpectNoChildren() {
    EXPECT_EQ(SurvivingChildren(), std::vector<int>{});
  }

  qvefet_Context* context_ = qvehost::NewContext();
  qvehost::LogCapture capture_;
};

struct OutcomeCase {
  const char* name;
  const char* script;
  RunOptions options;
  int32_t status;
  Text out;
  Text err;
  int32_t kind;
  const char* message;
};

void PrintTo(const OutcomeCase& c, std::ostream* os) { *os << c.name; }

class RunnerOutcomeTest : public RunnerTest,
                          public testing::WithParamInterface<OutcomeCase> {};

TEST_P(RunnerOutcomeTest, HandsBackTextsOrTheException) {
  const OutcomeCase& c = GetParam();
  RunOutcome r = RunShell(context_, c.script, c.options);
  EXPECT_EQ(r.status, c.status);
  EXPECT_EQ(r.out, c.out);
  EXPECT_EQ(r.err, c.err);
  EXPECT_EQ(r.kind, c.kind);
  EXPECT_EQ(r.message, c.message);
  ExpectNoChildren();
}

RunOptions Separate() {
  RunOptions o;
  o.separateErrorStream = 1;
  return o;
}
RunOptions WithStdin(std::string text) {
  RunOptions o;
  o.stdinText = std::move(text);
  return o;
}
RunOptions NoSlot() {
  RunOptions o;
  o.withExceptionSlot = false;
  return o;
}
RunOptions WithEnv(std::vector<std::string> env) {
  RunOptions o;
  o.env = std::move(env);
  return o;
}

INSTANTIATE_TEST_SUITE_P(
    Outcomes, RunnerOutcomeTest,
    testing::Values(
        OutcomeCase{"BothStreams", "printf A; printf B >&2", {}, 0, "A", "B",
                    0, ""},
        OutcomeCase{"OnlyStdout", "printf A", {}, 0, "A", {}, 0, ""},
        OutcomeCase{"OnlyStderr", "printf B >&2", {}, 0, {}, "B", 0, ""},
        OutcomeCase{"NoOutput", "true", {}, 0, {}, {}, 0, ""},
        OutcomeCase{"ExitThreeJoinsBoth", "printf A; printf B >&2; exit 3",
                    {}, -1, {}, {}, kRunFailed, "AB"},
        OutcomeCase{"ExitThreeSeparate", "printf A; printf B >&2; exit 3",
                    Separate(), -1, {}, {}, kRunFailed, "B"},
        OutcomeCase{"ExitWithOnlyStdoutSeparate", "printf A; exit 3",
                    Separate(), -1, {}, {}, kRunFailed,
                    "Command exited abnormally without any output"},
        OutcomeCase{"ExitWithoutSlot", "printf A; exit 3", NoSlot(), -1, {},
                    {}, 0, ""},
        OutcomeCase{"KilledBySignal", "kill -9 $$", {}, -1, {}, {},
                    kRunFailed, "Command exited abnormally without any output"},
        OutcomeCase{"NulEndsTheChunk", "printf 'a\\000b'; printf c >&2", {}, 0,
                    "a", "c", 0, ""},
        OutcomeCase{"StdinLines", "cat", WithStdin("x=1\ny=2\n"), 0,
                    "x=1\ny=2\n", {}, 0, ""},
        OutcomeCase{"EmptyStdin", "cat", WithStdin(""), 0, {}, {}, 0, ""},
        OutcomeCase{"EnvironmentGiven", "printf %s \"$ONLY${HOME:-none}\"",
                    WithEnv({"ONLY=1"}), 0, "1none", {}, 0, ""}),
    [](const testing::TestParamInfo<OutcomeCase>& param) {
      return std::string(param.param.name);
    });

TEST_F(RunnerTest, FailedRunLogsItsTexts) {
  RunShell(context_, "printf A; printf B >&2; exit 1");
  EXPECT_EQ(capture_.Texts(LogLevel::kError),
            (std::vector<std::string>{"Process stdout = A\n",
                                      "Process stderr = B\n"}));
  EXPECT_EQ(capture_.Texts(LogLevel::kTrace),
            std::vector<std::string>{
                "qvefos : Entering function - qvefos_executeCommand\n"});
}

TEST_F(RunnerTest, StartFailuresNameTheProgram) {
  const std::string script = testing::TempDir() + "not_executable_" +
                             std::to_string(getpid()) + ".sh";
  std::ofstream(script) << "#!/bin/sh\necho hi\n";
  chmod(script.c_str(), 0644);
  struct Case {
    std::string program;
    int32_t forced;
    int32_t kind;
    std::string message;
  } cases[] = {
      {"/x/y", 0, kRunFailed, "/x/y: not found"},
      {script, 0, kRunFailed, script + ": no execute permission"},
      {"/bin/true", QVE_PROCESS_LIMIT, QVE_EXC_PROCESS_LIMIT,
       "Process Limit exceed"},
      {"/bin/true", -99, kRunFailed, "Unable to run the process"},
  };
  for (const Case& c : cases) {
    qvehost::ForceStartResult(c.forced);
    RunOutcome r = RunPlain(context_, {c.program}, WithStdin("ignored\n"));
    EXPECT_EQ(r.status, -1) << c.program;
    EXPECT_EQ(r.kind, c.kind) << c.program;
    EXPECT_EQ(r.message, c.message);
    EXPECT_EQ(r.out, Text{});
  }
  qvehost::ForceStartResult(0);
  ExpectNoChildren();
}

TEST_F(RunnerTest, TimeLimitKillsTheWholeGroup) {
  for (int32_t limit : {1, 2}) {
    RunOptions o;
    o.timeoutSeconds = limit;
    // The background sleep would be orphaned if only the shell died.
    RunOutcome r = RunShell(context_, "sleep 10 & sleep 10; wait", o);
    const std::string message =
        "Metric execution timed out in " + std::to_string(limit) + " seconds";
    EXPECT_EQ(r.status, -1);
    EXPECT_EQ(r.kind, QVE_EXC_TIMEOUT);
    EXPECT_EQ(r.message, message);
    ExpectNoChildren();
  }
}

TEST_F(RunnerTest, AbortFromAnotherThreadEndsARunWithoutTimeLimit) {
  RunOptions o;
  o.requestId = "request-42";
  std::atomic<bool> done{false};
  std::thread aborter([&] {
    while (!done && !qvehost::AbortRequest("request-42")) usleep(20000);
  });
  RunOutcome r = RunShell(context_, "sleep 30", o);
  done = true;
  aborter.join();
  EXPECT_EQ(r.kind, QVE_EXC_TIMEOUT);
  EXPECT_EQ(r.message, "Metric execution aborted");
  EXPECT_FALSE(qvehost::AbortRequest("request-42"));  // deregistered
  const auto debug = capture_.Texts(LogLevel::kDebug, "fetchlets.os");
  ASSERT_FALSE(debug.empty());
  EXPECT_EQ(debug.front(), "Added abort callback successfully");
  ExpectNoChildren();
}

TEST_F(RunnerTest, AbortIsIgnoredWhileATimeLimitIsSet) {
  RunOptions o;
  o.requestId = "request-43";
  o.timeoutSeconds = 1;
  std::atomic<bool> done{false};
  std::thread aborter([&] {
    while (!done && !qvehost::AbortRequest("request-43")) usleep(20000);
  });
  RunOutcome r = RunShell(context_, "sleep 10", o);
  done = true;
  aborter.join();
  EXPECT_EQ(r.message, "Metric execution timed out in 1 seconds");
}

TEST_F(RunnerTest, LargeOutputIsJoinedWithoutLoss) {
  for (size_t size : {size_t{8207}, size_t{8208}, size_t{100000},
                      size_t{11} << 20}) {
    RunOutcome r = RunShell(
        context_, "yes 0123456789abcdef | head -c " + std::to_string(size));
    ASSERT_EQ(r.status, 0);
    ASSERT_TRUE(r.out.has_value());
    ASSERT_EQ(r.out->size(), size);
    EXPECT_EQ(r.out->find_first_not_of("0123456789abcdef\n"),
              std::string::npos);
    EXPECT_EQ(r.out->compare(0, 17, "0123456789abcdef\n"), 0);
  }
}

TEST_F(RunnerTest, FourMebibytesOfStdinGoThroughCat) {
  std::string input(4u << 20, 'x');
  for (size_t i = 99; i < input.size(); i += 100) input[i] = '\n';
  RunOutcome r = RunShell(context_, "cat", WithStdin(input));
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, input);
}

TEST_F(RunnerTest, CommandThatLeavesStdinUnreadIsAWriteFailure) {
  signal(SIGPIPE, SIG_DFL);  // the host must survive without ignoring it
  const std::string input(1u << 20, 'x');
  RunOutcome r = RunShell(context_, "exit 0", WithStdin(input));
  EXPECT_EQ(r.status, -1);
  EXPECT_EQ(r.kind, kRunFailed);
  EXPECT_EQ(r.message, "Error writing input stream for OS fetchlet");
  EXPECT_EQ(capture_.Texts(LogLevel::kError),
            std::vector<std::string>{
                "Error writing input stream for the java external fetchlet"});
  // Without a slot the writing stops and the run goes on.
  RunOptions o = NoSlot();
  o.stdinText = input;
  EXPECT_EQ(RunShell(context_, "exit 0", o).status, 0);
  ExpectNoChildren();
}

TEST_F(RunnerTest, HostileChildren) {
  const int leaked = open("/dev/null", O_RDONLY);  // not close-on-exec
  signal(SIGPIPE, SIG_IGN);
  sigset_t blocked;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGUSR1);
  pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
  struct Case {
    const char* name;
    const char* script;
    int32_t timeout;
    Text out;
    const char* message;
  } cases[] = {
      {"IgnoresSigterm", "trap '' TERM; sleep 10", 1, {},
       "Metric execution timed out in 1 seconds"},
      {"GrandchildHoldsThePipe", "sleep 30 & echo started", 2, {},
       "Metric execution timed out in 2 seconds"},
      {"SignalState", "grep -E '^Sig(Blk|Ign)' /proc/self/status", 5,
       "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n", ""},
      {"InheritedDescriptors",
       "ls /proc/$$/fd", 5, "0\n1\n2\n", ""},
  };
  for (const Case& c : cases) {
    RunOptions o;
    o.timeoutSeconds = c.timeout;
    RunOutcome r = RunShell(context_, c.script, o);
    EXPECT_EQ(r.out, c.out) << c.name;
    EXPECT_EQ(r.message, c.message) << c.name;
    ExpectNoChildren();
  }
  RunOutcome flood = RunShell(context_, "yes | head -c 30000000");
  EXPECT_EQ(flood.out ? flood.out->size() : 0u, 30000000u);
  pthread_sigmask(SIG_UNBLOCK, &blocked, nullptr);
  signal(SIGPIPE, SIG_DFL);
  close(leaked);
}

TEST_F(RunnerTest, AllocationFailuresEndInSuccessOrTheDocumentedFailure) {
  RunOptions o = WithStdin("a\n");
  o.requestId = "sweep";
  o.timeoutSeconds = 30;
  for (const char* module : {"qvefos", "sqvefos"}) {
    for (uint64_t k = 1;; ++k) {
      qvehost::ResetFaults();
      qvehost::FailAllocation(module, k, false);
      RunOutcome r = RunShell(context_, "cat; printf e >&2", o);
      if (r.status == 0) {
        EXPECT_EQ(r.out, "a\n");
      } else {
        EXPECT_EQ(r.status, -1) << module << " " << k;
        EXPECT_EQ(r.kind, kRunFailed) << module << " " << k;
      }
      EXPECT_TRUE(qvehost::LiveBlocks().empty())
          << module << " " << k << "\n" << qvehost::DescribeLiveBlocks();
      if (qvehost::AllocationCount(module) < k) break;
    }
  }
  ExpectNoChildren();
}

TEST_F(RunnerTest, ConcurrentRunsDoNotWaitForASlowSibling) {
  std::atomic<bool> sleeperDone{false};
  std::atomic<int> finishedEarly{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 2; ++i) {
        if (t == 0 && i == 0) {
          RunShell(context_, "sleep 3");
          sleeperDone = true;
          continue;
        }
        RunOutcome r = RunShell(context_, "echo x");
        // A pipe end leaked into the sleeper would hold this run open.
        if (t != 0 && r.out == "x\n" && !sleeperDone) ++finishedEarly;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(finishedEarly.load(), 14);
  ExpectNoChildren();
}

}  // namespace
}  // namespace qvetest
