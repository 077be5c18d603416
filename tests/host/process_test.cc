// The plain process family and the multiplexer on real commands. Each test
// runs as a child subreaper, so whatever a command leaves behind becomes the
// test's own child; the fixture then proves that nothing is left alive (not
// even a zombie) and no descriptor is left open.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "qve/host.h"

namespace {

using Strings = std::vector<std::string>;
using Kinds = std::vector<uint32_t>;

using ProcessPtr = std::unique_ptr<sqvejcp_Process, decltype(&sqvejcp_Process_delete)>;
using MuxPtr = std::unique_ptr<sqvejcx_IOMuxor, decltype(&sqvejcx_IOMuxor_delete)>;

MuxPtr NewMux() { return MuxPtr(sqvejcx_IOMuxor_new(nullptr), sqvejcx_IOMuxor_delete); }

std::vector<char*> CStrings(const Strings& strings) {
  std::vector<char*> pointers;
  for (const std::string& s : strings) pointers.push_back(const_cast<char*>(s.c_str()));
  pointers.push_back(nullptr);
  return pointers;
}

// env null: the host's environment.
ProcessPtr NewProcess(const Strings& argv, const Strings* env = nullptr) {
  std::vector<char*> args = CStrings(argv);
  std::vector<char*> envs = CStrings(env != nullptr ? *env : Strings{});
  return ProcessPtr(sqvejcp_Process_new_argv_envp(
      nullptr, args.data(), static_cast<int32_t>(argv.size()),
      env != nullptr ? envs.data() : nullptr,
      env != nullptr ? static_cast<int32_t>(env->size()) : 0),
      sqvejcp_Process_delete);
}

// Started with all three pipes; standard input stays open.
ProcessPtr Start(const Strings& argv) {
  ProcessPtr process = NewProcess(argv);
  EXPECT_EQ(sqvejcp_Process_run_need_pipes(process.get(), QVE_STREAM_ALL), 0);
  return process;
}

// The last write's result: a byte count, or the failure code.
int32_t WriteAll(sqvejcp_Process* process, std::string_view input) {
  int32_t n = 0;
  while (!input.empty()) {
    n = sqvejcp_Process_stdin_write(process, input.data(),
                                    static_cast<uint32_t>(input.size()));
    if (n <= 0) break;
    input.remove_prefix(static_cast<size_t>(n));
  }
  return n;
}

// One read of standard output: a byte count, the end, or a failure.
int32_t ReadSome(sqvejcp_Process* process) {
  char buffer[8207];
  return sqvejcp_Process_stdout_read(process, buffer, sizeof buffer);
}

// -1 also when getExitValue reports failure, as it must then.
int32_t ExitValue(sqvejcp_Process* process) {
  int32_t exit_value = 0;
  const int32_t rc = sqvejcp_Process_getExitValue(process, &exit_value);
  EXPECT_EQ(rc != 0, exit_value == -1);
  return exit_value;
}

// The stream kinds of one wait, in list order.
Kinds Select(sqvejcx_IOMuxor* mux, int32_t bound_ms) {
  uint32_t count = 99;
  sqvejcx_Channel* channels = nullptr;
  EXPECT_EQ(sqvejcx_IOMuxor_select(mux, bound_ms, &count, &channels), 0);
  Kinds kinds;
  for (uint32_t i = 0; i < count; ++i) kinds.push_back(channels[i].streamKind);
  sqvejcx_IOMuxor_freeChannels(channels);
  return kinds;
}

// Reads both output streams through a multiplexer until both have ended.
void Collect(sqvejcp_Process* process, std::string* out, std::string* err) {
  MuxPtr mux = NewMux();
  ASSERT_EQ(sqvejcx_IOMuxor_addProcess(mux.get(), process, QVE_STREAM_OUTPUTS), 0);
  char buffer[8207];
  int open = 2;
  for (int idle = 0; open > 0 && idle < 120;) {
    const Kinds kinds = Select(mux.get(), 1000);
    idle = kinds.empty() ? idle + 1 : 0;
    for (uint32_t kind : kinds) {
      const bool is_out = kind == QVE_STREAM_STDOUT;
      const int32_t n =
          is_out ? sqvejcp_Process_stdout_read(process, buffer, sizeof buffer)
                 : sqvejcp_Process_stderr_read(process, buffer, sizeof buffer);
      if (n > 0) {
        (is_out ? out : err)->append(buffer, static_cast<size_t>(n));
      } else {
        EXPECT_EQ(n, QVE_END_OF_STREAM);
        sqvejcx_IOMuxor_removeProcess(mux.get(), process, static_cast<int32_t>(kind));
        --open;
      }
    }
  }
  EXPECT_EQ(open, 0) << "the streams never ended";
}

struct Outcome {
  int32_t exit = 0;
  std::string out;
  std::string err;
};

Outcome RunCommand(const Strings& argv, const Strings* env = nullptr,
                   std::string_view input = {}) {
  Outcome outcome;
  ProcessPtr process = NewProcess(argv, env);
  EXPECT_EQ(sqvejcp_Process_run_need_pipes(process.get(), QVE_STREAM_ALL), 0);
  WriteAll(process.get(), input);
  sqvejcp_Process_stdin_close(process.get());
  Collect(process.get(), &outcome.out, &outcome.err);
  EXPECT_EQ(sqvejcp_Process_blocking_wait(process.get()), 0);
  outcome.exit = ExitValue(process.get());
  return outcome;
}

// The iterator's own descriptor shows too, at the same number while no
// other descriptor is left open.
Strings OpenDescriptors() {
  Strings names;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    names.push_back(entry.path().filename());
  }
  return names;
}

// This process's children that are alive, and the commands the host started
// (group leaders) that it left unreaped, as "pid (name) state". Adopted
// zombies (a command's killed background jobs) are reaped on the way.
Strings LeftBehind() {
  Strings left;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    std::ifstream stat(entry.path() / "stat");
    std::string line;
    if (!std::getline(stat, line) || line.rfind(')') == std::string::npos) continue;
    std::istringstream fields(line.substr(line.rfind(')') + 2));
    char state = 0;
    pid_t parent = 0, group = 0;
    fields >> state >> parent >> group;
    const pid_t pid = std::atoi(entry.path().filename().c_str());
    if (parent != getpid()) continue;
    if (state == 'Z' && group != pid) {
      waitpid(pid, nullptr, WNOHANG);
    } else {
      left.push_back(line.substr(0, line.rfind(')') + 3));
    }
  }
  return left;
}

class ProcessTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    descriptors_ = OpenDescriptors();
    char dir[] = "/tmp/qve-process-XXXXXX";
    dir_ = mkdtemp(dir);
  }
  void TearDown() override {
    // Killed processes take a moment to exit; give them that, not more.
    const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    Strings left = LeftBehind();
    while (!left.empty() && std::chrono::steady_clock::now() < give_up) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
      left = LeftBehind();
    }
    EXPECT_EQ(left, Strings{}) << "processes left behind";
    // Reaped once reported, so that they fail this test only.
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
    EXPECT_EQ(OpenDescriptors(), descriptors_) << "descriptors left open";
    prctl(PR_SET_CHILD_SUBREAPER, 0);
    std::filesystem::remove_all(dir_);
  }

  // Writes a file of the test's own directory; gives its path.
  std::string Write(const std::string& name, std::string_view text, mode_t mode) {
    const std::string path = dir_ + "/" + name;
    std::ofstream(path) << text;
    chmod(path.c_str(), mode);
    return path;
  }

  Strings descriptors_;
  std::string dir_;
};

// Sets a signal's disposition for one scope.
class ScopedDisposition {
 public:
  ScopedDisposition(int sig, void (*handler)(int)) : sig_(sig) {
    struct sigaction action = {};
    action.sa_handler = handler;
    sigaction(sig, &action, &old_);
  }
  ~ScopedDisposition() { sigaction(sig_, &old_, nullptr); }

 private:
  int sig_;
  struct sigaction old_;
};

// The host ignores SIGPIPE, blocks a signal and holds a descriptor without
// close-on-exec; its commands inherit none of it. A script without "#!" runs
// through /bin/sh, also when found in PATH.
TEST_F(ProcessTest, RealCommandsGiveTheirStreamsAndExitValue) {
  const std::string script = Write("no-interpreter-line", "echo \"script ran $1\"\n", 0755);
  const std::string path = getenv("PATH");
  setenv("PATH", (dir_ + ":" + path).c_str(), 1);
  ScopedDisposition ignore_pipe(SIGPIPE, SIG_IGN);
  sigset_t blocked, old;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGUSR2);
  pthread_sigmask(SIG_BLOCK, &blocked, &old);
  const int inheritable = open("/dev/null", O_RDONLY);
  struct Case {
    Strings argv;
    int32_t exit;
    std::string out;
    std::string err;
  } cases[] = {
      {{"sh", "-c", "echo A; echo B >&2; exit 3"}, 3, "A\n", "B\n"},
      {{"sh", "-c", "kill -USR1 $$"}, 128 + SIGUSR1, "", ""},
      {{script, "x"}, 0, "script ran x\n", ""},
      {{"no-interpreter-line", "y"}, 0, "script ran y\n", ""},
      {{"sh", "-c", "grep -E '^Sig(Ign|Blk)' /proc/self/status; ls /proc/$$/fd"}, 0,
       "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n0\n1\n2\n", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.argv.back());
    Outcome outcome = RunCommand(c.argv);
    EXPECT_EQ(outcome.exit, c.exit);
    EXPECT_EQ(outcome.out, c.out);
    EXPECT_EQ(outcome.err, c.err);
  }
  close(inheritable);
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
  setenv("PATH", path.c_str(), 1);
}

// A process that did not start takes its standard input without writing it
// (the start result is what the caller reports) and has no exit value; nor
// has one that the kernel reaped behind the host's back.
TEST_F(ProcessTest, StartFailuresGiveTheirCodesAndNoExitValue) {
  const std::pair<std::string, int32_t> cases[] = {
      {"/nonexistent/qve-program", QVE_NOT_FOUND},
      {"qve-no-such-program", QVE_NOT_FOUND},
      {Write("not-executable", "true\n", 0644), QVE_NO_PERMISSION},
  };
  for (const auto& [program, code] : cases) {
    SCOPED_TRACE(program);
    ProcessPtr process = NewProcess({program});
    EXPECT_EQ(sqvejcp_Process_run_need_pipes(process.get(), QVE_STREAM_ALL), code);
    EXPECT_EQ(sqvejcp_Process_stdin_write(process.get(), "abc", 3), 3);
    EXPECT_NE(sqvejcp_Process_blocking_wait(process.get()), 0);
    EXPECT_EQ(ExitValue(process.get()), -1);
  }
  ScopedDisposition reap_automatically(SIGCHLD, SIG_IGN);
  ProcessPtr process = Start({"/bin/true"});
  EXPECT_NE(sqvejcp_Process_blocking_wait(process.get()), 0);
  EXPECT_EQ(ExitValue(process.get()), -1);
}

TEST_F(ProcessTest, EnvironmentIsTheHostsAtStartOrExactlyTheEntriesGiven) {
  ProcessPtr host_env = NewProcess({"sh", "-c", "printf %s \"$QVE_PROBE\""});
  setenv("QVE_PROBE", "from the host", 1);
  ASSERT_EQ(sqvejcp_Process_run_need_pipes(host_env.get(), QVE_STREAM_ALL), 0);
  unsetenv("QVE_PROBE");
  sqvejcp_Process_stdin_close(host_env.get());
  std::string out, err;
  Collect(host_env.get(), &out, &err);
  EXPECT_EQ(out, "from the host");
  const Strings none;
  EXPECT_EQ(RunCommand({"/usr/bin/env"}, &none).out, "");
}

// Each case starts a hostile command and deals with it (or only deletes it);
// the fixture proves the rest.
TEST_F(ProcessTest, HostileChildrenLeaveNothingBehind) {
  struct Case {
    const char* name;
    Strings argv;
    std::function<void(sqvejcp_Process*)> deal;
  } cases[] = {
      {"ignores SIGTERM", {"sh", "-c", "trap '' TERM; echo ready; exec sleep 100"},
       [](sqvejcp_Process* p) {
         EXPECT_GT(ReadSome(p), 0);
         EXPECT_EQ(sqvejcp_Process_kill(p), 0);
         EXPECT_EQ(ExitValue(p), 128 + SIGKILL);
       }},
      {"grandchild holds the output pipe", {"sh", "-c", "sleep 100 & sleep 100 & echo started"},
       [](sqvejcp_Process* p) {
         EXPECT_GT(ReadSome(p), 0);
         EXPECT_EQ(sqvejcp_Process_kill(p), 0);
         EXPECT_EQ(ReadSome(p), QVE_END_OF_STREAM);  // the kill reached the holders
       }},
      {"floods its output", {"yes", "flood"}, [](sqvejcp_Process* p) { EXPECT_GT(ReadSome(p), 0); }},
      {"deleted while running", {"sh", "-c", "sleep 100 & sleep 100"}, {}},
      {"background job after its streams end", {"sh", "-c", "sleep 100 >/dev/null 2>&1 &"},
       [](sqvejcp_Process* p) {
         std::string out, err;
         Collect(p, &out, &err);
         EXPECT_EQ(sqvejcp_Process_blocking_wait(p), 0);
       }},
  };
  for (Case& c : cases) {
    SCOPED_TRACE(c.name);
    ProcessPtr process = Start(c.argv);
    sqvejcp_Process_stdin_close(process.get());
    if (c.deal) c.deal(process.get());
  }
}

// Writing to a command that is gone fails without killing the host. The
// SIGPIPE the write raises is taken back; one the thread already had pending
// is not the host's to take.
TEST_F(ProcessTest, GoneReaderGivesWriteFailureAndOnlyAForeignSigpipeStays) {
  ScopedDisposition default_pipe(SIGPIPE, SIG_DFL);
  const struct {
    const char* name;
    bool blocked;
    bool pending;
  } cases[] = {{"unblocked", false, false},
               {"blocked", true, false},
               {"blocked with one pending", true, true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    sigset_t pipe_set, old, pending;
    sigemptyset(&pipe_set);
    sigaddset(&pipe_set, SIGPIPE);
    pthread_sigmask(c.blocked ? SIG_BLOCK : SIG_UNBLOCK, &pipe_set, &old);
    if (c.pending) pthread_kill(pthread_self(), SIGPIPE);
    ProcessPtr process = Start({"sh", "-c", "exit 0"});
    EXPECT_EQ(WriteAll(process.get(), std::string(1 << 20, 'x')), QVE_WRITE_FAILED);
    sigpending(&pending);
    EXPECT_EQ(sigismember(&pending, SIGPIPE) == 1, c.pending);
    const timespec zero{};
    if (c.pending) sigtimedwait(&pipe_set, nullptr, &zero);
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    EXPECT_EQ(sqvejcp_Process_blocking_wait(process.get()), 0);
  }
}

// Signals without SA_RESTART hit the thread all through a run: every wait,
// read and write (draining included) must carry on.
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

// The command first writes more than a pipe holds, then reads its standard
// input for ever. Writing that input drains the output into the process
// object; the wait must report it at once, since the pipe itself stays quiet.
TEST_F(ProcessTest, MuxReportsOutputDrainedWhileStdinWasFull) {
  constexpr int32_t kOutput = 300000;
  MuxPtr mux = NewMux();
  ProcessPtr process = Start({"sh", "-c", "head -c 300000 /dev/zero; cat >/dev/null"});
  ASSERT_GT(WriteAll(process.get(), std::string(1 << 20, 'z')), 0);
  ASSERT_EQ(sqvejcx_IOMuxor_addProcess(mux.get(), process.get(), 6), 0);
  EXPECT_EQ(Select(mux.get(), 30000), Kinds{2});
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
  MuxPtr mux = NewMux();
  ProcessPtr process = Start({"sleep", "100"});
  ASSERT_EQ(sqvejcx_IOMuxor_addProcess(mux.get(), process.get(), 6), 0);
  process.reset();
  uint32_t count = 0;
  sqvejcx_Channel* channels = nullptr;
  EXPECT_NE(sqvejcx_IOMuxor_select(mux.get(), 0, &count, &channels), 0);

  process = Start({"sleep", "100"});
  ASSERT_EQ(sqvejcx_IOMuxor_addProcess(mux.get(), process.get(), 6), 0);
  mux.reset();
}

}  // namespace
