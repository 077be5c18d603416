// Evaluations per second of the plain runner, beside a baseline in the same
// binary that runs the same command with raw posix_spawn, pipe2(O_CLOEXEC)
// pipes, poll and waitpid. Two commands: /bin/true, and cat of a 64 KiB text
// file. The baseline gives its child what every command of the host must get
// (own process group, default signal dispositions, empty mask) and collects
// the output the way the runner must (8207-byte reads, each appended with an
// exact realloc), so the ratio is the cost of the host and runner machinery,
// not of those duties. Evaluations run in pairs, one a side, the order
// alternating, and the median of the pairs' ratios is reported.
//
// System calls of the host process per evaluation: the program runs itself
// under "strace -c" (without -f, so the children are not counted) doing N
// evaluations, and again doing none; the difference over N is the figure.
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "tests/common/host_argv.h"
#include "bench/raw_loop.h"
#include "fos/qvefos_runner.h"
#include "qve/embedded.h"
#include "qve/host.h"

namespace {

using rawloop::Die;
using rawloop::RawText;

using Clock = std::chrono::steady_clock;

constexpr int kPairs = 600;
constexpr int kWarmUp = 20;
constexpr int kStraceEvals = 300;
constexpr size_t kOutputBytes = 64 * 1024;
// A time limit, as requests usually carry one: the runner then reads the
// clock after every wait.
constexpr int32_t kTimeoutSeconds = 60;

struct Host {
  qvefet_Context* context = nullptr;
  qveulm_LogCtx* log = nullptr;
};

// ---- Through the runner -------------------------------------------------

// Bytes of standard output of one evaluation.
size_t RunnerEval(const Host& host, const std::vector<std::string>& args) {
  char** argv = qvetest::NewHostArgv(args, "bench");
  char* out = nullptr;
  char* err = nullptr;
  qveue_Exception* exception = nullptr;
  const int32_t status = qvefos_executeCommand(
      host.context, argv, nullptr, nullptr, kTimeoutSeconds, nullptr, 0, &out,
      &err, &exception, host.log);
  qvetest::FreeHostArgv(argv, "bench");
  if (status != 0) {
    std::fprintf(stderr, "run_overhead: runner failed: %s\n",
                 exception != nullptr
                     ? qveue_Exception_getErrorMessage(exception)
                     : "no exception");
    std::exit(1);
  }
  const size_t bytes = out != nullptr ? std::strlen(out) : 0;
  if (out != nullptr) qve_free0(out, "bench", 0);
  if (err != nullptr) qve_free0(err, "bench", 0);
  return bytes;
}

// ---- The raw baseline ---------------------------------------------------

void SetChildAttributes(posix_spawnattr_t* attr) {
  sigset_t all;
  std::memset(&all, 0xff, sizeof all);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigdefault(attr, &all);
  posix_spawnattr_setsigmask(attr, &none);
  posix_spawnattr_setpgroup(attr, 0);
  posix_spawnattr_setflags(
      attr, static_cast<short>(POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGDEF |
                               POSIX_SPAWN_SETSIGMASK));
}

pid_t RawSpawn(char* const* argv, const int child_fds[3]) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  for (int i = 0; i < 3; ++i) {
    posix_spawn_file_actions_adddup2(&actions, child_fds[i], i);
  }
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  SetChildAttributes(&attr);
  pid_t pid = 0;
  const int error = posix_spawn(&pid, argv[0], &actions, &attr, argv, environ);
  posix_spawnattr_destroy(&attr);
  posix_spawn_file_actions_destroy(&actions);
  errno = error;
  if (error != 0) Die("posix_spawn");
  return pid;
}

// Reads both streams to their end; the bytes of standard output.
size_t RawCollect(int out_fd, int err_fd) {
  RawText texts[2];
  rawloop::CollectBoth(out_fd, err_fd, texts);
  std::free(texts[0].data);
  std::free(texts[1].data);
  return texts[0].length;
}

size_t RawEval(char* const* argv) {
  int in[2], out[2], err[2];
  if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 ||
      pipe2(err, O_CLOEXEC) != 0) {
    Die("pipe2");
  }
  const int child_fds[3] = {in[0], out[1], err[1]};
  const pid_t pid = RawSpawn(argv, child_fds);
  for (int fd : child_fds) close(fd);
  close(in[1]);
  const size_t bytes = RawCollect(out[0], err[0]);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) Die("waitpid");
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    std::fprintf(stderr, "run_overhead: raw command failed\n");
    std::exit(1);
  }
  return bytes;
}

// ---- Measuring ----------------------------------------------------------

struct Command {
  std::vector<std::string> args;
  std::vector<char*> raw_argv;  // into args
  size_t expected_bytes;
};

Command MakeCommand(std::vector<std::string> args, size_t expected) {
  Command command{std::move(args), {}, expected};
  for (std::string& arg : command.args) command.raw_argv.push_back(arg.data());
  command.raw_argv.push_back(nullptr);
  return command;
}

// Seconds of one evaluation of one side.
double TimeEval(const Host& host, const Command& command, bool runner) {
  const auto start = Clock::now();
  const size_t bytes = runner ? RunnerEval(host, command.args)
                              : RawEval(command.raw_argv.data());
  const double seconds =
      std::chrono::duration<double>(Clock::now() - start).count();
  if (bytes != command.expected_bytes) {
    std::fprintf(stderr, "run_overhead: %zu bytes, expected %zu\n", bytes,
                 command.expected_bytes);
    std::exit(1);
  }
  return seconds;
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const size_t mid = values.size() / 2;
  return values.size() % 2 ? values[mid] : (values[mid - 1] + values[mid]) / 2;
}

struct Figures {
  double ratio;
  double evals_per_s;
  double baseline_evals_per_s;
};

// Pairs of one evaluation a side, back to back in alternating order, so that
// both sides of a pair meet the same load from the rest of the machine; the
// median of the pairs' ratios shrugs off the pairs that a burst of it hit.
Figures Measure(const Host& host, const Command& command) {
  for (int i = 0; i < kWarmUp; ++i) {
    TimeEval(host, command, true);
    TimeEval(host, command, false);
  }
  std::vector<double> ours, raw, ratios;
  for (int pair = 0; pair < kPairs; ++pair) {
    const bool runner_first = pair % 2 == 0;
    const double first = TimeEval(host, command, runner_first);
    const double second = TimeEval(host, command, !runner_first);
    ours.push_back(runner_first ? first : second);
    raw.push_back(runner_first ? second : first);
    ratios.push_back(ours.back() / raw.back());
  }
  return {Median(ratios), 1.0 / Median(ours), 1.0 / Median(raw)};
}

std::string WriteTextFile() {
  char path[] = "/tmp/qve-run-overhead-XXXXXX";
  const int fd = mkstemp(path);
  if (fd < 0) Die("mkstemp");
  std::string text;
  for (int line = 0; text.size() < kOutputBytes; ++line) {
    text += "/dev/sda" + std::to_string(line % 9) +
            "   98304000  4523412  88739128   5% /srv/data\n";
  }
  text.resize(kOutputBytes);
  if (write(fd, text.data(), text.size()) !=
      static_cast<ssize_t>(text.size())) {
    Die("write");
  }
  close(fd);
  return path;
}

// ---- System calls per evaluation ----------------------------------------

// Calls per system call name in a "strace -c" summary; "total" included.
std::map<std::string, long> ReadStraceSummary(const std::string& path) {
  std::map<std::string, long> calls;
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    std::vector<std::string> words;
    for (std::string word; fields >> word;) words.push_back(word);
    if (words.size() < 5 || words[0].find_first_of("0123456789") != 0) {
      continue;
    }
    calls[words.back()] = std::atol(words[3].c_str());
  }
  return calls;
}

std::map<std::string, long> StraceRun(const std::string& self,
                                      const std::string& mode, int evals,
                                      const std::string& file) {
  const std::string out = file + ".strace";
  const std::string command = "strace -c -o " + out + " " + self + " --count " +
                              mode + " " + std::to_string(evals) + " " + file +
                              " >/dev/null 2>&1";
  if (std::system(command.c_str()) != 0) return {};
  auto calls = ReadStraceSummary(out);
  std::remove(out.c_str());
  return calls;
}

// Calls per evaluation of mode; negative when strace cannot be run.
double SyscallsPerEval(const std::string& self, const std::string& mode,
                       const std::string& file, bool show) {
  auto idle = StraceRun(self, mode, 0, file);
  auto busy = StraceRun(self, mode, kStraceEvals, file);
  if (idle.count("total") == 0 || busy.count("total") == 0) return -1;
  if (show) {
    std::printf("  host system calls per evaluation, %s:\n", mode.c_str());
    for (const auto& [name, n] : busy) {
      const double each = static_cast<double>(n - idle[name]) / kStraceEvals;
      if (name != "total" && each >= 0.05) {
        std::printf("    %-16s %6.2f\n", name.c_str(), each);
      }
    }
  }
  return static_cast<double>(busy["total"] - idle["total"]) / kStraceEvals;
}

Command CommandFor(const std::string& mode, const std::string& file) {
  if (mode.ends_with("64k")) {
    return MakeCommand({"/bin/cat", file}, kOutputBytes);
  }
  return MakeCommand({"/bin/true"}, 0);
}

// The counted run: evals evaluations of mode and nothing else.
int CountMode(const Host& host, const std::string& mode, int evals,
              const std::string& file) {
  const Command command = CommandFor(mode, file);
  const bool runner = mode.starts_with("runner");
  for (int i = 0; i < evals; ++i) {
    if (runner) {
      RunnerEval(host, command.args);
    } else {
      RawEval(command.raw_argv.data());
    }
  }
  return 0;
}

std::string SelfPath() {
  char path[4096];
  const ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
  if (n < 0) Die("readlink");
  return std::string(path, static_cast<size_t>(n));
}

std::string JsonNumber(double value) {
  if (value < 0) return "null";
  char text[32];
  std::snprintf(text, sizeof text, "%.3f", value);
  return text;
}

}  // namespace

int main(int argc, char** argv) {
  qvehost::SetLogLevel(qvehost::LogLevel::kOff);
  // --process-group (first): the runner without cgroups, for comparison;
  // the counted runs below inherit it through the environment.
  if ((argc > 1 && std::strcmp(argv[1], "--process-group") == 0) ||
      std::getenv("QVE_BENCH_PROCESS_GROUP") != nullptr) {
    qvehost::SetCgroupContainment(false);
    setenv("QVE_BENCH_PROCESS_GROUP", "1", 1);
    if (argc > 1 && std::strcmp(argv[1], "--process-group") == 0) {
      --argc;
      ++argv;
    }
  }
  Host host;
  host.context = qvehost::NewContext();
  host.log = qveulm_getLogCtx(host.context->logSource, "fetchlets.os");
  if (argc == 5 && std::strcmp(argv[1], "--count") == 0) {
    return CountMode(host, argv[2], std::atoi(argv[3]), argv[4]);
  }
  const char* containment =
      qvehost::CgroupContainment() ? "pooled cgroup" : "process group";
  const std::string file = WriteTextFile();
  const Figures small = Measure(host, CommandFor("runner-true", file));
  const Figures large = Measure(host, CommandFor("runner-64k", file));
  std::printf("median of %d interleaved pairs of evaluations, runner "
              "contained by %s\n", kPairs, containment);
  std::printf("  /bin/true    runner %8.1f/s  raw %8.1f/s  ratio %.3f\n",
              small.evals_per_s, small.baseline_evals_per_s, small.ratio);
  std::printf("  cat 64 KiB   runner %8.1f/s  raw %8.1f/s  ratio %.3f\n",
              large.evals_per_s, large.baseline_evals_per_s, large.ratio);
  const std::string self = SelfPath();
  const double calls = SyscallsPerEval(self, "runner-true", file, true);
  const double calls_64k = SyscallsPerEval(self, "runner-64k", file, false);
  const double raw_calls = SyscallsPerEval(self, "raw-true", file, true);
  std::printf("  system calls per evaluation: runner %s (64 KiB: %s), raw %s\n",
              JsonNumber(calls).c_str(), JsonNumber(calls_64k).c_str(),
              JsonNumber(raw_calls).c_str());
  std::remove(file.c_str());
  qvehost::DeleteContext(host.context);
  std::printf(
      "{\"bench\":\"run_overhead\",\"containment\":\"%s\","
      "\"ratio\":%.3f,\"ratio_64k\":%.3f,"
      "\"evals_per_s\":%.1f,\"baseline_evals_per_s\":%.1f,"
      "\"evals_per_s_64k\":%.1f,\"baseline_evals_per_s_64k\":%.1f,"
      "\"syscalls_per_eval\":%s,\"syscalls_per_eval_64k\":%s,"
      "\"baseline_syscalls_per_eval\":%s}\n",
      containment, small.ratio, large.ratio, small.evals_per_s, small.baseline_evals_per_s,
      large.evals_per_s, large.baseline_evals_per_s, JsonNumber(calls).c_str(),
      JsonNumber(calls_64k).c_str(), JsonNumber(raw_calls).c_str());
  return 0;
}
