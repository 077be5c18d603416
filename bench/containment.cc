// Cost per evaluation of the containments in the same run: every command in
// a cgroup taken from the pool, in a cgroup made and removed for it, and in
// its process group alone. An evaluation starts /bin/true with all three
// pipes, reads its output to the end and waits for it. Evaluations take
// turns between the paths and each side reports its median.
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

// One way of containing a run: cgroups from the pool, a fresh cgroup per
// run, or the process group alone.
struct Side {
  const char* name;
  bool cgroup;
  bool pooled;
  std::vector<double> micros;
};

void Use(const Side& side) {
  qvehost::SetCgroupContainment(side.cgroup);
  qvehost::SetCgroupPooling(side.pooled);
}

}  // namespace

int main() {
  const bool cgroups = qvehost::CgroupContainment();
  std::vector<Side> sides = {{"process group", false, false, {}}};
  if (cgroups) {
    sides.push_back({"pooled cgroup", true, true, {}});
    sides.push_back({"cgroup per run", true, false, {}});
  }
  for (int i = 0; i < kRounds + kWarmUp; ++i) {
    // The order turns each round, so that no side always follows another.
    for (size_t k = 0; k < sides.size(); ++k) {
      Side& side = sides[(k + static_cast<size_t>(i)) % sides.size()];
      Use(side);
      const double micros = EvaluateOnce();
      if (i >= kWarmUp) side.micros.push_back(micros);
    }
  }
  qvehost::SetCgroupContainment(true);
  qvehost::SetCgroupPooling(true);
  const double group = Median(sides[0].micros);
  for (const Side& side : sides) {
    std::printf("%-15s %7.1f us per evaluation\n", side.name,
                Median(side.micros));
  }
  if (!cgroups) {
    std::printf("no writable cgroup v2 hierarchy: cgroup paths not measured\n");
    std::printf("{\"bench\":\"containment\",\"pooled_us\":null,"
                "\"unpooled_us\":null,\"process_group_us\":%.1f,"
                "\"evaluations\":%zu}\n",
                group, sides[0].micros.size());
    return 0;
  }
  const double pooled = Median(sides[1].micros);
  const double unpooled = Median(sides[2].micros);
  std::printf("{\"bench\":\"containment\",\"pooled_us\":%.1f,"
              "\"unpooled_us\":%.1f,\"process_group_us\":%.1f,"
              "\"pooled_ratio\":%.3f,\"unpooled_ratio\":%.3f,"
              "\"evaluations\":%zu}\n",
              pooled, unpooled, group, pooled / group, unpooled / group,
              sides[0].micros.size());
  return 0;
}
