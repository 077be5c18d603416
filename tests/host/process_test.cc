// The plain process family on real commands.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "host/process_support.h"
#include "qve/embedded.h"
#include "qve/host.h"

namespace qvetest {
namespace {

using Strings = std::vector<std::string>;

class ProcessTest : public ChildWatchTest {
 protected:
  static void SetUpTestSuite() { scratch_ = new ScratchDir; }
  static void TearDownTestSuite() {
    delete scratch_;
    scratch_ = nullptr;
  }
  static ScratchDir* scratch_;
};
ScratchDir* ProcessTest::scratch_ = nullptr;

// Sets a signal's disposition for one scope.
class ScopedDisposition {
 public:
  ScopedDisposition(int sig, void (*handler)(int), int flags = 0) : sig_(sig) {
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = flags;
    sigaction(sig, &action, &old_);
  }
  ~ScopedDisposition() { sigaction(sig_, &old_, nullptr); }

 private:
  int sig_;
  struct sigaction old_;
};

TEST_F(ProcessTest, RealCommandsGiveTheirStreamsAndExitValue) {
  const std::string script =
      scratch_->Write("no-interpreter-line", "echo \"script ran $1\"\n", 0755);
  struct Case {
    const char* name;
    Strings argv;
    int32_t exit;
    std::string out;
    std::string err;
  } cases[] = {
      {"both streams",
       {"sh", "-c", "printf out; printf err >&2"},
       0,
       "out",
       "err"},
      {"no output", {"/bin/true"}, 0, "", ""},
      {"PATH search", {"printf", "%s", "found"}, 0, "found", ""},
      {"exit value",
       {"sh", "-c", "echo A; echo B >&2; exit 3"},
       3,
       "A\n",
       "B\n"},
      {"signal", {"sh", "-c", "kill -USR1 $$"}, 128 + SIGUSR1, "", ""},
      {"script without #!", {script, "x"}, 0, "script ran x\n", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Outcome outcome = RunCommand(c.argv);
    EXPECT_EQ(outcome.start, 0);
    EXPECT_EQ(outcome.exit, c.exit);
    EXPECT_EQ(outcome.out, c.out);
    EXPECT_EQ(outcome.err, c.err);
  }
}

// A process that did not start takes its standard input without writing it
// (the start result is what the caller reports) and has no exit value.
TEST_F(ProcessTest, StartFailuresGiveTheirCodes) {
  const std::string plain = scratch_->Write("not-executable", "true\n", 0644);
  struct Case {
    const char* name;
    Strings argv;
    int32_t forced;
    int32_t start;
  } cases[] = {
      {"no such path", {"/nonexistent/qve-program"}, 0, QVE_NOT_FOUND},
      {"not in PATH", {"qve-no-such-program"}, 0, QVE_NOT_FOUND},
      {"not executable", {plain}, 0, QVE_NO_PERMISSION},
      {"process limit", {"/bin/true"}, QVE_PROCESS_LIMIT, QVE_PROCESS_LIMIT},
      {"other cause", {"/bin/true"}, -5, -5},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    qvehost::ForceStartResult(c.forced);
    ProcessPtr process = NewProcess(c.argv);
    EXPECT_EQ(sqvejcp_Process_run_need_pipes(process.get(), QVE_STREAM_ALL),
              c.start);
    EXPECT_EQ(sqvejcp_Process_stdin_write(process.get(), "abc", 3), 3);
    sqvejcp_Process_stdin_close(process.get());
    EXPECT_NE(sqvejcp_Process_blocking_wait(process.get()), 0);
    int32_t exit_value = 0;
    EXPECT_NE(sqvejcp_Process_getExitValue(process.get(), &exit_value), 0);
    EXPECT_EQ(exit_value, -1);
  }
  qvehost::ForceStartResult(0);
}

TEST_F(ProcessTest, EnvironmentIsTheHostsOrExactlyTheEntriesGiven) {
  // The host's environment as it is at the start, not at creation.
  ProcessPtr host_env = NewProcess({"sh", "-c", "printf %s \"$QVE_PROBE\""});
  setenv("QVE_PROBE", "from the host", 1);
  ASSERT_EQ(sqvejcp_Process_run_need_pipes(host_env.get(), QVE_STREAM_ALL), 0);
  sqvejcp_Process_stdin_close(host_env.get());
  std::string out, err;
  Collect(host_env.get(), &out, &err);
  unsetenv("QVE_PROBE");
  EXPECT_EQ(out, "from the host");

  const Strings given = {"A=1", "B=two words"};
  EXPECT_EQ(RunCommand({"/usr/bin/env"}, &given).out, "A=1\nB=two words\n");
  const Strings none;
  EXPECT_EQ(RunCommand({"/usr/bin/env"}, &none).out, "");
}

// Each case starts a hostile command and deals with it; the fixture then
// proves that nothing is left alive and no descriptor stays open.
TEST_F(ProcessTest, HostileChildrenLeaveNothingBehind) {
  struct Case {
    const char* name;
    Strings argv;
    std::function<void(sqvejcp_Process*)> deal;
  } cases[] = {
      {"ignores SIGTERM",
       {"sh", "-c", "trap '' TERM; echo ready; exec sleep 100"},
       [](sqvejcp_Process* p) {
         char buffer[16];
         EXPECT_GT(sqvejcp_Process_stdout_read(p, buffer, sizeof buffer), 0);
         EXPECT_EQ(sqvejcp_Process_kill(p), 0);
         int32_t exit_value = 0;
         sqvejcp_Process_getExitValue(p, &exit_value);
         EXPECT_EQ(exit_value, 128 + SIGKILL);
       }},
      {"grandchild holds the output pipe",
       {"sh", "-c", "sleep 100 & sleep 100 & echo started"},
       [](sqvejcp_Process* p) {
         char buffer[16];
         EXPECT_GT(sqvejcp_Process_stdout_read(p, buffer, sizeof buffer), 0);
         EXPECT_EQ(sqvejcp_Process_kill(p), 0);
         // The kill ended the holders, so the stream ends.
         EXPECT_EQ(sqvejcp_Process_stdout_read(p, buffer, sizeof buffer),
                   QVE_END_OF_STREAM);
       }},
      {"floods its output",
       {"yes", "flood"},
       [](sqvejcp_Process* p) {
         char buffer[8207];
         EXPECT_GT(sqvejcp_Process_stdout_read(p, buffer, sizeof buffer), 0);
       }},
      {"left running",
       {"sh", "-c", "sleep 100 & sleep 100"},
       [](sqvejcp_Process*) {}},
      {"background job after its streams end",
       {"sh", "-c", "sleep 100 >/dev/null 2>&1 &"},
       [](sqvejcp_Process* p) {
         std::string out, err;
         Collect(p, &out, &err);
         EXPECT_EQ(sqvejcp_Process_blocking_wait(p), 0);
       }},
  };
  for (Case& c : cases) {
    SCOPED_TRACE(c.name);
    ProcessPtr process = NewProcess(c.argv);
    ASSERT_EQ(sqvejcp_Process_run_need_pipes(process.get(), QVE_STREAM_ALL), 0);
    sqvejcp_Process_stdin_close(process.get());
    c.deal(process.get());
  }
}

// The host ignores SIGPIPE and blocks a signal; its commands must not
// inherit either, nor any descriptor besides 0, 1 and 2 — not even one the
// host opened without close-on-exec.
TEST_F(ProcessTest, ChildStartsWithDefaultSignalsAndOnlyThreeDescriptors) {
  ScopedDisposition ignore_pipe(SIGPIPE, SIG_IGN);
  sigset_t blocked, old;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGUSR2);
  pthread_sigmask(SIG_BLOCK, &blocked, &old);
  const int inheritable = open("/dev/null", O_RDONLY);
  ASSERT_GT(inheritable, 2);

  Outcome status = RunCommand(
      {"sh", "-c",
       "grep -E '^Sig(Ign|Blk)' /proc/self/status; ls /proc/$$/fd; exit 0"});

  close(inheritable);
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
  EXPECT_EQ(status.out,
            "SigBlk:\t0000000000000000\n"
            "SigIgn:\t0000000000000000\n"
            "0\n1\n2\n");
}

TEST_F(ProcessTest, FourMebibytesOfStdinThroughCatComeBackWhole) {
  std::string input(4 << 20, '\0');
  for (size_t i = 0; i < input.size(); ++i) {
    input[i] = static_cast<char>('a' + i % 23);
  }
  Outcome outcome = RunCommand({"cat"}, nullptr, input);
  EXPECT_EQ(outcome.exit, 0);
  EXPECT_EQ(outcome.out.size(), input.size());
  EXPECT_TRUE(outcome.out == input);
}

TEST_F(ProcessTest, ReaderThatIsGoneGivesWriteFailureNotSigpipe) {
  ScopedDisposition default_pipe(SIGPIPE, SIG_DFL);
  ProcessPtr process = NewProcess({"sh", "-c", "exit 0"});
  ASSERT_EQ(sqvejcp_Process_run_need_pipes(process.get(), QVE_STREAM_ALL), 0);
  const std::string input(1 << 20, 'x');
  EXPECT_EQ(WriteAll(process.get(), input), QVE_WRITE_FAILED);
  sigset_t pending;
  sigpending(&pending);
  EXPECT_FALSE(sigismember(&pending, SIGPIPE));
  EXPECT_EQ(sqvejcp_Process_blocking_wait(process.get()), 0);
}

TEST_F(ProcessTest, DeleteWithoutWaitKillsAndReaps) {
  ProcessPtr process = NewProcess({"sleep", "100"});
  ASSERT_EQ(sqvejcp_Process_run_need_pipes(process.get(), QVE_STREAM_ALL), 0);
  process.reset();
  // The fixture finds no child, not even a zombie.
}

TEST_F(ProcessTest, FailedWaitGivesUnknownExitValue) {
  ScopedDisposition reap_automatically(SIGCHLD, SIG_IGN);
  ProcessPtr process = NewProcess({"/bin/true"});
  ASSERT_EQ(sqvejcp_Process_run_need_pipes(process.get(), QVE_STREAM_ALL), 0);
  EXPECT_NE(sqvejcp_Process_blocking_wait(process.get()), 0);
  int32_t exit_value = 0;
  EXPECT_NE(sqvejcp_Process_getExitValue(process.get(), &exit_value), 0);
  EXPECT_EQ(exit_value, -1);
}

// Signals without SA_RESTART hit the thread all through a run: every wait,
// read and write must carry on.
TEST_F(ProcessTest, InterruptedCallsAreRetried) {
  ScopedDisposition interrupt(SIGUSR1, [](int) {});
  const pthread_t target = pthread_self();
  std::atomic<bool> stop{false};
  std::thread interrupter([&] {
    while (!stop.load()) {
      pthread_kill(target, SIGUSR1);
      std::this_thread::sleep_for(std::chrono::microseconds(300));
    }
  });
  const std::string input(1 << 20, 'y');
  Outcome outcome = RunCommand({"sh", "-c", "sleep 0.2; cat"}, nullptr, input);
  stop = true;
  interrupter.join();
  EXPECT_EQ(outcome.exit, 0);
  EXPECT_TRUE(outcome.out == input);
}

}  // namespace
}  // namespace qvetest
