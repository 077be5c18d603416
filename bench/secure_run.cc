// Authenticated runs of /bin/true through the plug-in's runner: under the
// real PAM service (password hashing included), under a service that
// permits without hashing (the launcher's own cost: two executions and
// PAM's loading), and beside the plain runner, in the same run. Repetitions
// are interleaved and medians reported; the figure is permit / plain.
//
// The permit-only service is measured twice: from a directory of its own
// (pam_dir), whose fallback service "other" only denies, which is the
// figure; and from /etc/pam.d, where PAM also loads the site's fallback
// stack with all its modules on every run. Beside them, secure_run_floor
// does only what any launcher must (PAM's checks, the user's groups, the
// switch and the command's start) under the same permit-only service, run
// by the plain runner: the floor the launcher's cost is set against.
//
// Needs root, to make a throw-away account and to install the PAM
// services; otherwise it says so and prints its JSON line with nulls.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "tests/common/host_argv.h"
#include "fos/qvefos_runner.h"
#include "qve/embedded.h"
#include "qve/host.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kRounds = 40;

// What the runs are measured under, in the order they are taken.
enum Kind { kPlain, kFloor, kPermit, kPermitSite, kRealPam, kKinds };

struct Bench {
  std::string user;
  std::string password;
  std::string permit_service;  // in /etc/pam.d
  std::string pam_dir;         // a directory of the bench's own
  std::string config[kKinds];  // launcher settings per kind; empty: none
  qvefet_Context* context = nullptr;
  qveulm_LogCtx* log = nullptr;
};

bool Quiet(const std::string& command) {
  return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
}

std::string ShareFile(const std::string& name) {
  const std::string launcher = qvehost::LauncherPath();
  return launcher.substr(0, launcher.rfind('/') + 1) +
         "../share/fetchlet-launch/" + name;
}

bool CopyFile(const std::string& from, const std::string& to) {
  std::ifstream in(from, std::ios::binary);
  std::ofstream out(to, std::ios::binary | std::ios::trunc);
  if (!in || !out) return false;
  out << in.rdbuf();
  return static_cast<bool>(out);
}

// The account gets the site's own password hashing, so that the real
// service costs what it costs in use.
bool SetUp(Bench* bench) {
  const std::string pid = std::to_string(getpid());
  bench->user = "qvelbench" + pid;
  bench->password = "Bench-" + pid + "-pw";
  bench->permit_service = "qvel-bench-permit-" + pid;
  bench->pam_dir = "/tmp/qvel-bench-pam-" + pid;
  bench->config[kPermit] = "/tmp/qvel-bench-" + pid + ".conf";
  bench->config[kPermitSite] = "/tmp/qvel-bench-site-" + pid + ".conf";
  Quiet("userdel -f -r " + bench->user);
  if (!Quiet("useradd -m -U -s /bin/sh " + bench->user)) return false;
  FILE* chpasswd = popen("chpasswd", "w");
  if (chpasswd == nullptr) return false;
  std::fprintf(chpasswd, "%s:%s\n", bench->user.c_str(),
               bench->password.c_str());
  if (pclose(chpasswd) != 0) return false;
  if (access("/etc/pam.d/fetchlet-launch", F_OK) != 0 &&
      !CopyFile(ShareFile("fetchlet-launch.pam"),
                "/etc/pam.d/fetchlet-launch")) {
    return false;
  }
  const std::string permit = ShareFile("fetchlet-launch-permit.pam");
  if (mkdir(bench->pam_dir.c_str(), 0755) != 0 ||
      !CopyFile(permit, bench->pam_dir + "/permit") ||
      !CopyFile(ShareFile("fetchlet-launch-other.pam"),
                bench->pam_dir + "/other")) {
    return false;
  }
  std::ofstream(bench->config[kPermit])
      << "service = permit\npam_dir = " << bench->pam_dir << "\n";
  std::ofstream(bench->config[kPermitSite])
      << "service = " << bench->permit_service << "\n";
  return CopyFile(permit, "/etc/pam.d/" + bench->permit_service);
}

void TearDown(const Bench& bench) {
  std::remove(("/etc/pam.d/" + bench.permit_service).c_str());
  for (const std::string& config : bench.config) std::remove(config.c_str());
  std::remove((bench.pam_dir + "/permit").c_str());
  std::remove((bench.pam_dir + "/other").c_str());
  std::remove(bench.pam_dir.c_str());
  Quiet("userdel -f -r " + bench.user);
}

std::vector<std::string> Command(const Bench& bench, Kind kind) {
  if (kind != kFloor) return {"/bin/true"};
  return {QVE_SECURE_RUN_FLOOR, bench.user, bench.pam_dir, "permit",
          "/bin/true"};
}

// Milliseconds of one run; negative when it failed.
double TimeRun(const Bench& bench, Kind kind) {
  const bool secure = kind >= kPermit;
  char** argv = qvetest::NewHostArgv(Command(bench, kind), "bench");
  char* out = nullptr;
  char* err = nullptr;
  qveue_Exception* exception = nullptr;
  const auto start = Clock::now();
  const int32_t status =
      secure ? qvefos_executeSecureCommand(
                   bench.context, argv, nullptr, nullptr, 0, nullptr, 0,
                   bench.user.c_str(), bench.password.c_str(), &out, &err,
                   &exception, bench.log)
             : qvefos_executeCommand(bench.context, argv, nullptr, nullptr, 0,
                                     nullptr, 0, &out, &err, &exception,
                                     bench.log);
  const double ms =
      std::chrono::duration<double, std::milli>(Clock::now() - start).count();
  if (out != nullptr) qve_free0(out, "qvefos", __LINE__);
  if (err != nullptr) qve_free0(err, "qvefos", __LINE__);
  if (exception != nullptr) {
    std::fprintf(stderr, "run failed: %s\n",
                 qveue_Exception_getErrorMessage(exception));
    qveue_Exception_delete(exception);
  }
  qvetest::FreeHostArgv(argv, "bench");
  return status == 0 ? ms : -1.0;
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

// The kinds of run in turn, kRounds times; false when any failed.
bool Measure(const Bench& bench, std::vector<double> (&ms)[kKinds]) {
  for (int round = 0; round < kRounds; ++round) {
    for (int kind = 0; kind < kKinds; ++kind) {
      qvehost::SetLauncherConfig(bench.config[kind]);
      const double ms_of_run = TimeRun(bench, static_cast<Kind>(kind));
      if (ms_of_run < 0) return false;
      ms[kind].push_back(ms_of_run);
    }
  }
  qvehost::SetLauncherConfig("");
  return true;
}

}  // namespace

int main() {
  qvehost::SetLogLevel(qvehost::LogLevel::kOff);
  const char* skipped = nullptr;
  if (geteuid() != 0) {
    skipped = "needs root to make a throw-away account and PAM services";
  } else if (qvehost::LauncherPath().empty()) {
    skipped = "fetchlet-launch is not built";
  }
  Bench bench;
  std::vector<double> ms[kKinds];
  bool measured = false;
  if (skipped == nullptr) {
    if (SetUp(&bench)) {
      bench.context = qvehost::NewContext();
      bench.log = qveulm_getLogCtx(bench.context->logSource, "fetchlets.os");
      measured = Measure(bench, ms);
      qvehost::DeleteContext(bench.context);
    }
    TearDown(bench);
    if (!measured) skipped = "the runs failed";
  }
  if (!measured) {
    std::printf("secure_run skipped: %s\n", skipped);
    std::printf(
        "{\"bench\":\"secure_run\",\"ms_per_run\":null,"
        "\"permit_ms_per_run\":null,\"permit_site_ms_per_run\":null,"
        "\"floor_ms_per_run\":null,\"plain_ms_per_run\":null,"
        "\"ratio\":null,\"ratio_site\":null,\"floor_ratio\":null,"
        "\"over_floor\":null}\n");
    return 0;
  }
  double median[kKinds];
  for (int kind = 0; kind < kKinds; ++kind) median[kind] = Median(ms[kind]);
  const double plain = median[kPlain];
  std::printf("/bin/true, median of %d interleaved runs each\n", kRounds);
  const char* const names[kKinds] = {
      "plain runner", "floor: PAM, groups, switch, start",
      "launcher, permit only (pam_dir)", "launcher, permit only (/etc/pam.d)",
      "launcher, real PAM"};
  for (int kind = 0; kind < kKinds; ++kind) {
    std::printf("  %-38s %8.2f ms  %5.2f x plain\n", names[kind],
                median[kind], median[kind] / plain);
  }
  std::printf(
      "{\"bench\":\"secure_run\",\"ms_per_run\":%.3f,"
      "\"permit_ms_per_run\":%.3f,\"permit_site_ms_per_run\":%.3f,"
      "\"floor_ms_per_run\":%.3f,\"plain_ms_per_run\":%.3f,"
      "\"ratio\":%.3f,\"ratio_site\":%.3f,\"floor_ratio\":%.3f,"
      "\"over_floor\":%.3f}\n",
      median[kRealPam], median[kPermit], median[kPermitSite], median[kFloor],
      plain, median[kPermit] / plain, median[kPermitSite] / plain,
      median[kFloor] / plain, median[kPermit] / median[kFloor]);
  return 0;
}
