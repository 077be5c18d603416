// Capture throughput of the plain runner on a command that writes 1 GiB,
// beside a raw loop doing the same memory work: poll, reads of 8207 bytes,
// each chunk appended with realloc to the exact size. Each side runs in a
// forked child of its own, which reports its time and its peak resident
// memory (ru_maxrss) back through a pipe, so neither side's heap is seen by
// the other. Rounds alternate which side goes first; the median ratio of the
// rounds is reported. At 1 GiB a side a round (the default; the first
// argument gives another size in MiB), five rounds keep the program under a
// minute. On a loaded machine the wall-clock ratio swings by tens of
// percent from round to round, so the ratio of the capturing processes' own
// processor time (user and system) is reported beside it as cpu_ratio.
//
// The command is this program itself in a generating mode writing lines of
// text in 1 MiB writes: text rather than /dev/zero, because a NUL ends what
// the runner copies of a chunk (the rest is zero-filled instead), which would
// let it skip the copy the raw loop makes; and one process rather than a
// shell pipeline, so that no third process competes for the cores.
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/resource.h>
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

// 1 GiB unless the command line asks for another size.
size_t total_bytes = size_t{1} << 30;
constexpr size_t kWriteBytes = size_t{1} << 20;
constexpr int kRounds = 5;

// What a measuring child sends back.
struct SideReport {
  double seconds = -1;
  size_t bytes = 0;
  long peak_rss_kib = 0;
  double user_seconds = 0;  // of the measuring process
  double system_seconds = 0;
};

// ---- The command ----------------------------------------------------------

int Generate(size_t total) {
  std::string block;
  for (int line = 0; block.size() < kWriteBytes; ++line) {
    block += "eth" + std::to_string(line % 4) +
             ": rx 918273645 bytes, tx 564738291 bytes, 0 errors\n";
  }
  block.resize(kWriteBytes);
  for (size_t left = total; left > 0;) {
    const size_t n = std::min(left, block.size());
    const ssize_t written = write(1, block.data(), n);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return 1;
    left -= static_cast<size_t>(written);
  }
  return 0;
}

std::string SelfPath() {
  char path[4096];
  const ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
  if (n < 0) Die("readlink");
  return std::string(path, static_cast<size_t>(n));
}

// ---- Through the runner ---------------------------------------------------

SideReport RunnerSide(const std::vector<std::string>& args) {
  qvehost::SetLogLevel(qvehost::LogLevel::kOff);
  qvefet_Context* context = qvehost::NewContext();
  qveulm_LogCtx* log = qveulm_getLogCtx(context->logSource, "fetchlets.os");
  char** argv = qvetest::NewHostArgv(args, "bench");
  char* out = nullptr;
  char* err = nullptr;
  qveue_Exception* exception = nullptr;
  const auto start = Clock::now();
  const int32_t status =
      qvefos_executeCommand(context, argv, nullptr, nullptr, 0, nullptr, 0,
                            &out, &err, &exception, log);
  SideReport report;
  report.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  if (status != 0) report.seconds = -1;
  report.bytes = out != nullptr ? std::strlen(out) : 0;
  if (out != nullptr) qve_free0(out, "bench", 0);
  if (err != nullptr) qve_free0(err, "bench", 0);
  if (exception != nullptr) qveue_Exception_delete(exception);
  qvetest::FreeHostArgv(argv, "bench");
  qvehost::DeleteContext(context);
  return report;
}

// ---- The raw loop -----------------------------------------------------------

pid_t RawSpawn(char* const* argv, const int child_fds[3]) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  for (int i = 0; i < 3; ++i) {
    posix_spawn_file_actions_adddup2(&actions, child_fds[i], i);
  }
  pid_t pid = 0;
  const int error =
      posix_spawn(&pid, argv[0], &actions, nullptr, argv, environ);
  posix_spawn_file_actions_destroy(&actions);
  errno = error;
  if (error != 0) Die("posix_spawn");
  return pid;
}

// Reads both streams to their end; standard output's text is kept.
RawText RawCollect(int out_fd, int err_fd) {
  RawText texts[2];
  rawloop::CollectBoth(out_fd, err_fd, texts);
  std::free(texts[1].data);
  return texts[0];
}

SideReport RawSide(const std::vector<std::string>& args) {
  std::vector<std::string> copies = args;
  std::vector<char*> argv;
  for (std::string& arg : copies) argv.push_back(arg.data());
  argv.push_back(nullptr);
  const auto start = Clock::now();
  int in[2], out[2], err[2];
  if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 ||
      pipe2(err, O_CLOEXEC) != 0) {
    Die("pipe2");
  }
  const int child_fds[3] = {in[0], out[1], err[1]};
  const pid_t pid = RawSpawn(argv.data(), child_fds);
  for (int fd : child_fds) close(fd);
  close(in[1]);
  RawText text = RawCollect(out[0], err[0]);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) Die("waitpid");
  }
  SideReport report;
  report.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) report.seconds = -1;
  report.bytes = text.data != nullptr ? std::strlen(text.data) : 0;
  std::free(text.data);
  return report;
}

// ---- One side in a child of its own ---------------------------------------

double Seconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) +
         static_cast<double>(time.tv_usec) / 1e6;
}

SideReport MeasureInChild(bool runner, const std::vector<std::string>& args) {
  int channel[2];
  if (pipe2(channel, O_CLOEXEC) != 0) Die("pipe2");
  const pid_t pid = fork();
  if (pid < 0) Die("fork");
  if (pid == 0) {
    close(channel[0]);
    SideReport report = runner ? RunnerSide(args) : RawSide(args);
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    report.peak_rss_kib = usage.ru_maxrss;
    report.user_seconds = Seconds(usage.ru_utime);
    report.system_seconds = Seconds(usage.ru_stime);
    const bool sent =
        write(channel[1], &report, sizeof report) == sizeof report;
    std::_Exit(sent ? 0 : 1);
  }
  close(channel[1]);
  SideReport report;
  ssize_t n;
  do {
    n = read(channel[0], &report, sizeof report);
  } while (n < 0 && errno == EINTR);
  close(channel[0]);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (n != sizeof report || report.seconds < 0 || report.bytes != total_bytes) {
    std::fprintf(stderr, "capture: the %s side failed (%zu bytes)\n",
                 runner ? "runner" : "raw", report.bytes);
    std::exit(1);
  }
  return report;
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const size_t mid = values.size() / 2;
  return values.size() % 2 ? values[mid] : (values[mid - 1] + values[mid]) / 2;
}

double CpuSeconds(const SideReport& report) {
  return report.user_seconds + report.system_seconds;
}

double MegabytesPerSecond(double seconds) {
  return static_cast<double>(total_bytes) / 1e6 / seconds;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && std::strcmp(argv[1], "--generate") == 0) {
    return Generate(std::strtoull(argv[2], nullptr, 10));
  }
  if (argc == 2) total_bytes = std::strtoull(argv[1], nullptr, 10) << 20;
  // The runner would end the command at the host's default output limit.
  qvehost::SetOutputLimit(0);
  const std::vector<std::string> command{SelfPath(), "--generate",
                                         std::to_string(total_bytes)};
  std::vector<double> ours, raw, ratios, cpu_ratios;
  long peak_kib = 0;
  long raw_peak_kib = 0;
  for (int round = 0; round < kRounds; ++round) {
    const bool runner_first = round % 2 == 0;
    const SideReport first = MeasureInChild(runner_first, command);
    const SideReport second = MeasureInChild(!runner_first, command);
    const SideReport& mine = runner_first ? first : second;
    const SideReport& theirs = runner_first ? second : first;
    ours.push_back(MegabytesPerSecond(mine.seconds));
    raw.push_back(MegabytesPerSecond(theirs.seconds));
    ratios.push_back(ours.back() / raw.back());
    cpu_ratios.push_back(CpuSeconds(theirs) / CpuSeconds(mine));
    peak_kib = std::max(peak_kib, mine.peak_rss_kib);
    raw_peak_kib = std::max(raw_peak_kib, theirs.peak_rss_kib);
    std::printf(
        "round %d: runner %6.1f MB/s (user %.2f s, system %.2f s)  "
        "raw %6.1f MB/s (user %.2f s, system %.2f s)  ratio %.3f\n",
        round + 1, ours.back(), mine.user_seconds, mine.system_seconds,
        raw.back(), theirs.user_seconds, theirs.system_seconds, ratios.back());
  }
  const double peak_mib = static_cast<double>(peak_kib) / 1024;
  const double raw_peak_mib = static_cast<double>(raw_peak_kib) / 1024;
  std::printf("%zu MiB of text, median of %d interleaved rounds\n",
              total_bytes >> 20, kRounds);
  std::printf("  runner %7.1f MB/s  peak %7.1f MiB\n", Median(ours), peak_mib);
  std::printf("  raw    %7.1f MB/s  peak %7.1f MiB\n", Median(raw),
              raw_peak_mib);
  std::printf(
      "{\"bench\":\"capture\",\"ratio\":%.3f,\"mb_per_s\":%.1f,"
      "\"baseline_mb_per_s\":%.1f,\"peak_rss_mib\":%.1f,"
      "\"baseline_peak_rss_mib\":%.1f,\"cpu_ratio\":%.3f}\n",
      Median(ratios), Median(ours), Median(raw), peak_mib, raw_peak_mib,
      Median(cpu_ratios));
  return 0;
}
