// What a run leaves behind when it ends, however it ends: descendants that
// left the process group, output floods past the limit, a host that ignores
// SIGCHLD, a stepped clock. The test process is a child subreaper, so that
// a descendant that escaped would be found among its own children.
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <csignal>
#include <functional>
#include <memory>
#include <set>
#include <utility>
#include <string>
#include <thread>
#include <vector>

#include "common/processes.h"
#include "qve/embedded.h"
#include "qve/host.h"

namespace {

using Strings = std::vector<std::string>;
using qvetest::ExitValue;
using qvetest::ProcessPtr;
using qvetest::RunToEnd;
using qvetest::StartPiped;
constexpr char kNoCgroups[] =
    "no writable cgroup v2 hierarchy: process groups only";

// The first line of standard output: the pid a descendant printed.
pid_t ReadPid(sqvejcp_Process* process) {
  std::string line;
  char c;
  while (sqvejcp_Process_stdout_read(process, &c, 1) == 1 && c != '\n') {
    line += c;
  }
  return line.empty() ? 0 : static_cast<pid_t>(std::stol(line));
}

// True once pid has ended and, adopted by this subreaper, been collected.
// Bounded, never timed: a live process fails after ten seconds.
bool Gone(pid_t pid) {
  const auto give_up =
      std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (std::chrono::steady_clock::now() < give_up) {
    if (waitpid(pid, nullptr, WNOHANG) == pid) return true;
    if (kill(pid, 0) != 0 && errno == ESRCH) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

class ContainmentTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    qvehost::RemoveIdleRunCgroups();
    descriptors_ = qvetest::OpenDescriptors();
  }
  void TearDown() override {
    EXPECT_EQ(qvehost::LiveRunCgroups(), 0u) << "a cgroup left behind";
    qvehost::RemoveIdleRunCgroups();  // the pool keeps its descriptors
    EXPECT_EQ(qvetest::OpenDescriptors(), descriptors_) << "descriptors left";
    qvehost::TakeRunResources();
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
    prctl(PR_SET_CHILD_SUBREAPER, 0);
  }

  std::set<int> descriptors_;
};

// Descendants that left the command's process group and session: only the
// cgroup reaches them, whatever ends the run.
TEST_F(ContainmentTest, EscapedDescendantsEndWithTheRun) {
  if (!qvehost::CgroupContainment()) GTEST_SKIP() << kNoCgroups;
  const std::string hold = "echo $$; exec sleep 100 >/dev/null 2>&1";
  const Strings escapes[] = {
      {"sh", "-c", "setsid sh -c '" + hold + "' &"},
      {"sh", "-c", "(setsid sh -c '" + hold + "' &) ; true"},
  };
  using Ending = std::function<void(sqvejcp_Process*)>;
  const std::pair<const char*, Ending> endings[] = {
      {"time limit", [](sqvejcp_Process* p) { sqvejcp_Process_kill(p); }},
      {"emergency stop",
       [](sqvejcp_Process* p) {
         qvehost::KillRunningCommands();
         sqvejcp_Process_blocking_wait(p);
       }},
      {"normal end",
       [](sqvejcp_Process* p) { sqvejcp_Process_blocking_wait(p); }},
  };
  for (const Strings& escape : escapes) {
    for (const auto& [name, end] : endings) {
      // The command itself waits for its end, except at a normal end.
      Strings argv = escape;
      if (std::string(name) != "normal end") argv[2] += "\nexec sleep 100";
      ProcessPtr process = StartPiped(argv);
      const pid_t escaped = ReadPid(process.get());
      ASSERT_GT(escaped, 0) << name;
      end(process.get());
      EXPECT_TRUE(Gone(escaped)) << name << ": " << argv[2];
      EXPECT_EQ(qvehost::LiveRunCgroups(), 0u) << name;
    }
  }
}

// Ending one evaluation reaches its escaped descendants, not another's.
TEST_F(ContainmentTest, EndingAnEvaluationEndsItsWholeTree) {
  if (!qvehost::CgroupContainment()) GTEST_SKIP() << kNoCgroups;
  const Strings argv = {
      "sh", "-c",
      "setsid sh -c 'echo $$; exec sleep 100 >/dev/null 2>&1' & exec sleep 100"};
  ProcessPtr other = StartPiped(argv);
  const pid_t others = ReadPid(other.get());
  {
    qvehost::EvaluationScope scope(41);
    ProcessPtr process = StartPiped(argv);
    const pid_t escaped = ReadPid(process.get());
    qvehost::EndEvaluation(41);
    sqvejcp_Process_blocking_wait(process.get());
    EXPECT_TRUE(Gone(escaped));
  }
  EXPECT_EQ(kill(others, 0), 0) << "another evaluation's process ended";
  sqvejcp_Process_kill(other.get());
  EXPECT_TRUE(Gone(others));
}

// A flood on either stream stops at the limit: the stream's read fails, the
// command is killed with everything it started, and the error log says so.
TEST_F(ContainmentTest, OutputFloodEndsAtTheLimit) {
  const uint64_t saved = qvehost::OutputLimit();
  qvehost::SetOutputLimit(1 << 20);
  const std::pair<const char*, uint32_t> floods[] = {
      {"sleep 100 & echo $!; exec yes 0123456789", QVE_STREAM_STDOUT},
      {"sleep 100 & echo $!; exec yes 0123456789 >&2", QVE_STREAM_STDERR},
  };
  for (const auto& [script, kind] : floods) {
    qvehost::LogCapture capture;
    ProcessPtr process = StartPiped({"sh", "-c", script});
    const pid_t background = ReadPid(process.get());
    char buffer[65536];
    int32_t n;
    uint64_t total = 0;
    auto* read = kind == QVE_STREAM_STDOUT ? sqvejcp_Process_stdout_read
                                           : sqvejcp_Process_stderr_read;
    while ((n = read(process.get(), buffer, sizeof buffer)) > 0) total += n;
    EXPECT_EQ(n, -1) << script;
    EXPECT_LE(total, uint64_t{1} << 20) << script;
    EXPECT_EQ(read(process.get(), buffer, sizeof buffer), -1) << "stays failed";
    EXPECT_EQ(sqvejcp_Process_blocking_wait(process.get()), 0);
    EXPECT_EQ(ExitValue(process.get()), 128 + SIGKILL) << script;
    EXPECT_TRUE(Gone(background)) << script;
    const Strings errors = capture.Texts(qvehost::LogLevel::kError, "qvehost");
    ASSERT_EQ(errors.size(), 1u) << script;
    EXPECT_NE(errors[0].find("reached the output limit of 1048576 bytes on " +
                             std::string(kind == QVE_STREAM_STDOUT
                                             ? "standard output"
                                             : "standard error")),
              std::string::npos)
        << errors[0];
  }
  qvehost::SetOutputLimit(saved);
}

// The kernel reaps behind a parent's back only children that signal SIGCHLD;
// the host's do not, so an ignored SIGCHLD costs no exit value. From Linux
// 6.15 a pidfd keeps the exit of a child the kernel reaped.
TEST_F(ContainmentTest, IgnoredSigchldKeepsExitValues) {
  utsname name{};
  int major = 0, minor = 0;
  if (uname(&name) == 0) std::sscanf(name.release, "%d.%d", &major, &minor);
  if (major < 6 || (major == 6 && minor < 15)) {
    GTEST_SKIP() << "Linux " << name.release
                 << " forgets how a child reaped behind the host ended";
  }
  struct sigaction ignore = {}, old = {};
  ignore.sa_handler = SIG_IGN;
  sigaction(SIGCHLD, &ignore, &old);
  const std::pair<const char*, int32_t> cases[] = {
      {"/bin/true", 0}, {"/bin/false", 1}, {"no-such-command-here", -1}};
  for (const auto& [program, exit_value] : cases) {
    std::vector<char*> args = {const_cast<char*>(program), nullptr};
    ProcessPtr process(
        sqvejcp_Process_new_argv_envp(nullptr, args.data(), 1, nullptr, 0),
        sqvejcp_Process_delete);
    const int32_t started =
        sqvejcp_Process_run_need_pipes(process.get(), QVE_STREAM_ALL);
    EXPECT_EQ(started == 0, exit_value >= 0) << program;
    if (started != 0) continue;
    EXPECT_EQ(sqvejcp_Process_blocking_wait(process.get()), 0) << program;
    EXPECT_EQ(ExitValue(process.get()), exit_value) << program;
  }
  sigaction(SIGCHLD, &old, nullptr);
}

// The host's clock never follows a step of the system clock, back or ahead.
TEST_F(ContainmentTest, ClockIgnoresSystemClockSteps) {
  const int64_t steps[] = {-5, -3600, 3600};
  for (const int64_t step : steps) {
    const uint32_t before = qveut_currentSeconds();
    const int64_t system_before = qvehost::SystemClockNow();
    qvehost::StepSystemClock(step);
    EXPECT_GE(qvehost::SystemClockNow() - system_before, step);
    const uint32_t after = qveut_currentSeconds();
    EXPECT_GE(after, before) << step;
    qvehost::StepSystemClock(-step);
  }
}

// ---- Pooled cgroups, limits and figures -------------------------------------

// Prints the run's own cgroup, the processes in it and its limits, found
// as the host finds them (mountinfo and /proc/self/cgroup).
constexpr char kShowCgroup[] =
    "m=$(awk '$(NF-2)==\"cgroup2\"{print $5; exit}' /proc/self/mountinfo)\n"
    "c=$m$(sed -n 's/^0:://p' /proc/self/cgroup)\n"
    "echo \"$c\"; wc -l <\"$c/cgroup.procs\"\n"
    // A limit from the unified cgroup, or else from the v1 hierarchy that
    // holds its controller (where "no limit" is a huge number).
    "limit() { cat \"$c/$1\" 2>/dev/null && return\n"
    "  d=$(awk -v k=$2 '$(NF-2)==\"cgroup\" && $NF~\",\"k\"$\" {print $5}' "
    "/proc/self/mountinfo)\n"
    "  awk '{print ($1>9e18 ? \"max\" : $1)}' "
    "\"$d$(sed -n \"s/^[0-9]*:$2://p\" /proc/self/cgroup)/$3\" 2>/dev/null; }\n"
    "limit pids.max pids pids.max; "
    "limit memory.max memory memory.limit_in_bytes\n";

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  size_t at = 0;
  for (size_t end; (end = text.find('\n', at)) != std::string::npos;
       at = end + 1) {
    lines.push_back(text.substr(at, end - at));
  }
  return lines;
}

// A run that spun, held limits or left a setsid child hands none of it to
// the next run in its cgroup: the next one finds only itself, no limit, and
// figures of its own.
TEST_F(ContainmentTest, PooledCgroupCarriesNothingIntoTheNextRun) {
  if (!qvehost::CgroupContainment()) GTEST_SKIP() << kNoCgroups;
  qvehost::RunLimits limits;
  limits.pids = 64;
  limits.memory_bytes = 256u << 20;
  const bool limited = qvehost::RunLimitsError(limits).empty();
  const std::string spin = "i=0; while [ $i -lt 30000 ]; do i=$((i+1)); done";
  const std::pair<const char*, std::string> firsts[] = {
      {"spinner", std::string(kShowCgroup) + spin},
      {"setsid child",
       std::string(kShowCgroup) + spin +
           "\nsetsid sh -c 'exec sleep 100' >/dev/null 2>&1 &"},
  };
  for (const auto& [name, script] : firsts) {
    std::vector<std::string> first;
    {
      std::unique_ptr<qvehost::RunLimitsScope> scope;
      if (limited) scope = std::make_unique<qvehost::RunLimitsScope>(limits);
      first = Lines(RunToEnd({"sh", "-c", script}).second);
    }
    const qvehost::RunResources spent = qvehost::TakeRunResources();
    ASSERT_GE(first.size(), 2u) << name;
    if (limited) {
      EXPECT_EQ(first.at(2), "64") << name;
    }
    const auto [exit_value, out] = RunToEnd({"sh", "-c", kShowCgroup});
    const qvehost::RunResources next = qvehost::TakeRunResources();
    const std::vector<std::string> lines = Lines(out);
    ASSERT_GE(lines.size(), 2u) << name << ": " << out;
    // The clean end gives the cgroup back; a killed one is never reused.
    EXPECT_EQ(lines[0] == first[0], std::string(name) == "spinner") << name;
    EXPECT_EQ(lines[1], "2") << name << ": only the shell and wc";
    if (limited) {
      EXPECT_EQ(lines.at(2), "max") << name;
      EXPECT_EQ(lines.at(3), "max") << name;
    }
    EXPECT_TRUE(spent.from_cgroup && next.from_cgroup) << name;
    EXPECT_EQ(next.runs, 1u) << name;
    EXPECT_LT(next.user_seconds + next.system_seconds,
              spent.user_seconds + spent.system_seconds)
        << name << ": the spinner's CPU time came along";
  }
}

// Where a limit cannot hold, asking for it is an error that says why; where
// it can, a hostile command meets it, the error log names it and the host
// is unharmed.
TEST_F(ContainmentTest, HostileCommandsMeetTheirLimits) {
  qvehost::RunLimits probe;
  probe.memory_bytes = 1;
  probe.pids = 1;
  probe.cpu = 1;
  const std::string why = qvehost::RunLimitsError(probe);
  std::string error;
  EXPECT_EQ(qvehost::SetRunLimits(probe, &error), why.empty());
  EXPECT_EQ(error, why);
  EXPECT_EQ(qvehost::DefaultRunLimits().any(), why.empty()) << why;
  qvehost::SetRunLimits({}, nullptr);
  if (!why.empty()) {
    // Limits a caller imposes unchecked stop the start, never run unlimited.
    qvehost::LogCapture capture;
    {
      qvehost::RunLimitsScope scope(probe);
      std::vector<char*> args = {const_cast<char*>("/bin/true"), nullptr};
      ProcessPtr process(
          sqvejcp_Process_new_argv_envp(nullptr, args.data(), 1, nullptr, 0),
          sqvejcp_Process_delete);
      EXPECT_EQ(sqvejcp_Process_run_need_pipes(process.get(), QVE_STREAM_ALL),
                -1);
    }
    const Strings errors = capture.Texts(qvehost::LogLevel::kError, "qvehost");
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0].rfind("the limits of a command could not be applied: ",
                              0),
              0u)
        << errors[0];
    GTEST_SKIP() << why;
  }
  struct Case {
    const char* name;
    qvehost::RunLimits limits;
    const char* script;
    const char* log;
    bool dies;  // the limit ends the command itself
  };
  const Case cases[] = {
      {"memory hog", {32u << 20, 0, 0},
       "a=$(head -c 200000000 /dev/zero | tr '\\0' x); echo survived",
       "was killed by the OOM killer at its memory limit of 33554432 bytes",
       true},
      {"fork loop", {0, 16, 0},
       "i=0; while [ $i -lt 100 ]; do sleep 30 >/dev/null & i=$((i+1)); "
       "done",
       "was refused a new process at its limit of 16 processes", false},
  };
  for (const Case& c : cases) {
    qvehost::LogCapture capture;
    {
      qvehost::RunLimitsScope scope(c.limits);
      const auto [exit_value, out] = RunToEnd({"sh", "-c", c.script});
      if (c.dies) {
        EXPECT_EQ(out.find("survived"), std::string::npos) << c.name;
        EXPECT_NE(exit_value, 0) << c.name;
      }
    }
    const qvehost::RunResources r = qvehost::TakeRunResources();
    EXPECT_EQ(r.oom_kills != 0, c.limits.memory_bytes != 0) << c.name;
    EXPECT_EQ(r.forks_refused != 0, c.limits.pids != 0) << c.name;
    const Strings errors = capture.Texts(qvehost::LogLevel::kError, "qvehost");
    ASSERT_FALSE(errors.empty()) << c.name;
    EXPECT_NE(errors[0].find(c.log), std::string::npos) << errors[0];
  }
  EXPECT_EQ(RunToEnd({"sh", "-c", "echo fine"}).second, "fine\n");
}

// A spinner under a fifth of a core gets about that: its CPU seconds per
// wall second, from the run's own figures, stay within the limit and a
// tenth. It spins for two seconds: a run may meet one 100 ms period more
// than its length holds, a tenth of a one-second run.
TEST_F(ContainmentTest, SpinnerIsThrottled) {
  qvehost::RunLimits limits;
  limits.cpu = 0.2;
  const std::string why = qvehost::RunLimitsError(limits);
  if (!why.empty()) GTEST_SKIP() << why;
  const auto start = std::chrono::steady_clock::now();
  {
    qvehost::RunLimitsScope scope(limits);
    RunToEnd({"timeout", "2", "sh", "-c", "while :; do :; done"});
  }
  const std::chrono::duration<double> wall =
      std::chrono::steady_clock::now() - start;
  const qvehost::RunResources r = qvehost::TakeRunResources();
  EXPECT_LE((r.user_seconds + r.system_seconds) / wall.count(), 0.2 * 1.1);
}

}  // namespace
