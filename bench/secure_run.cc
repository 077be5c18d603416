// Authenticated runs of /bin/true through the plug-in's runner: under the
// real PAM service (password hashing included), under a service that
// permits without hashing (the launcher's own cost: two executions and
// PAM's loading), and beside the plain runner, in the same run. Repetitions
// are interleaved and medians reported; the figure is permit / plain.
//
// Needs root, to make a throw-away account and to install the two PAM
// services; otherwise it says so and prints its JSON line with nulls.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "fos/qvefos_runner.h"
#include "qve/embedded.h"
#include "qve/host.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kRounds = 40;
constexpr char kConfigVariable[] = "FETCHLET_LAUNCH_CONFIG";

struct Bench {
  std::string user;
  std::string password;
  std::string permit_service;
  std::string permit_config;
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
  bench->permit_config = "/tmp/qvel-bench-" + pid + ".conf";
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
  std::ofstream(bench->permit_config)
      << "service = " << bench->permit_service << "\n";
  return CopyFile(ShareFile("fetchlet-launch-permit.pam"),
                  "/etc/pam.d/" + bench->permit_service);
}

void TearDown(const Bench& bench) {
  std::remove(("/etc/pam.d/" + bench.permit_service).c_str());
  std::remove(bench.permit_config.c_str());
  Quiet("userdel -f -r " + bench.user);
}

char** NewArgv() {
  auto** argv =
      static_cast<char**>(qve_alloc0(2 * sizeof(char*), "bench", __LINE__));
  argv[0] = qve_allocpy0("/bin/true", "bench", __LINE__);
  return argv;
}

void FreeArgv(char** argv) {
  if (argv[0] != nullptr) qve_free0(argv[0], "qvefos", __LINE__);
  qve_free0(argv, "bench", __LINE__);
}

// Milliseconds of one run; negative when it failed.
double TimeRun(const Bench& bench, bool secure) {
  char** argv = NewArgv();
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
  FreeArgv(argv);
  return status == 0 ? ms : -1.0;
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

// The three kinds of run in turn, kRounds times; false when any failed.
bool Measure(const Bench& bench, std::vector<double> (&ms)[3]) {
  for (int round = 0; round < kRounds; ++round) {
    ms[0].push_back(TimeRun(bench, false));
    setenv(kConfigVariable, bench.permit_config.c_str(), 1);
    ms[1].push_back(TimeRun(bench, true));
    unsetenv(kConfigVariable);
    ms[2].push_back(TimeRun(bench, true));
    for (const auto& kind : ms) {
      if (kind.back() < 0) return false;
    }
  }
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
  std::vector<double> ms[3];  // plain, permit, real PAM
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
        "\"permit_ms_per_run\":null,\"plain_ms_per_run\":null,"
        "\"ratio\":null}\n");
    return 0;
  }
  const double plain = Median(ms[0]);
  const double permit = Median(ms[1]);
  const double real = Median(ms[2]);
  std::printf("/bin/true, median of %d interleaved runs each\n", kRounds);
  std::printf("  plain runner            %8.2f ms\n", plain);
  std::printf("  launcher, permit only   %8.2f ms\n", permit);
  std::printf("  launcher, real PAM      %8.2f ms\n", real);
  std::printf(
      "{\"bench\":\"secure_run\",\"ms_per_run\":%.3f,"
      "\"permit_ms_per_run\":%.3f,\"plain_ms_per_run\":%.3f,"
      "\"ratio\":%.3f}\n",
      real, permit, plain, permit / plain);
  return 0;
}
