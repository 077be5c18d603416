// Cost per evaluation of the two containments in the same run: every command
// in a cgroup of its own ended with cgroup.kill, beside process groups only.
// An evaluation starts /bin/true with all three pipes, reads its output to
// the end and waits for it. Evaluations alternate between the two paths and
// each side reports its median.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <vector>

#include "qve/embedded.h"
#include "qve/host.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kRounds = 400;
constexpr int kWarmUp = 10;

double EvaluateOnce() {
  char program[] = "/bin/true";
  char* argv[] = {program, nullptr};
  const auto start = Clock::now();
  sqvejcp_Process* process =
      sqvejcp_Process_new_argv_envp(nullptr, argv, 1, nullptr, 0);
  if (sqvejcp_Process_run_need_pipes(process, QVE_STREAM_ALL) != 0) {
    std::fprintf(stderr, "start failed\n");
  }
  sqvejcp_Process_stdin_close(process);
  char buffer[8207];
  while (sqvejcp_Process_stdout_read(process, buffer, sizeof buffer) > 0) {
  }
  sqvejcp_Process_blocking_wait(process);
  sqvejcp_Process_delete(process);
  return std::chrono::duration<double, std::micro>(Clock::now() - start)
      .count();
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

}  // namespace

int main() {
  const bool cgroups = qvehost::CgroupContainment();
  std::vector<double> with_cgroup, with_group;
  for (int i = 0; i < kRounds + kWarmUp; ++i) {
    const bool cgroup_first = i % 2 == 0;
    for (int side = 0; side < 2; ++side) {
      const bool use_cgroup = cgroups && (side == 0) == cgroup_first;
      qvehost::SetCgroupContainment(use_cgroup);
      const double micros = EvaluateOnce();
      if (i < kWarmUp) continue;
      (use_cgroup ? with_cgroup : with_group).push_back(micros);
    }
  }
  qvehost::SetCgroupContainment(true);
  const double group = Median(with_group);
  std::printf("process group: %.1f us per evaluation\n", group);
  if (!cgroups) {
    std::printf("no writable cgroup v2 hierarchy: cgroup path not measured\n");
    std::printf("{\"cgroup_us\":null,\"process_group_us\":%.1f,"
                "\"evaluations\":%zu}\n",
                group, with_group.size());
    return 0;
  }
  const double cgroup = Median(with_cgroup);
  std::printf("cgroup:        %.1f us per evaluation\n", cgroup);
  std::printf("{\"cgroup_us\":%.1f,\"process_group_us\":%.1f,\"ratio\":%.2f,"
              "\"evaluations\":%zu}\n",
              cgroup, group, cgroup / group, with_cgroup.size());
  return 0;
}
