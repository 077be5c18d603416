// What a wrong password costs through an installed (set-user-ID) launcher:
// seconds for a caller other than root, nothing for root, and never a run of
// the command. Slow by design, so among the long tests.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <sstream>
#include <string>

#include "common/test_account.h"
#include "host/launcher_support.h"
#include "qve/embedded.h"
#include "qve/host.h"

namespace qvetest {
namespace {

// What root is told, and what every other caller is.
constexpr char kWrongPassword[] = "Authentication failed: wrong password";
constexpr char kFailed[] = "Authentication failed";
constexpr int kAttempts = 3;
constexpr double kDelaySeconds = 3;

// kAttempts wrong passwords in turn: each attempt's seconds and the texts
// that were not the refusal, as "s1 s2 s3|unexpected texts".
std::string WrongPasswords(const TestAccount& account,
                           const std::string& marker, const char* refusal) {
  qvefet_Context* context = qvehost::NewContext();
  std::string seconds, unexpected;
  for (int i = 0; i < kAttempts; ++i) {
    const auto start = std::chrono::steady_clock::now();
    qvejcap_Process* process = New(context, {"touch", marker}, account.name,
                                   "wrong-" + std::to_string(i));
    const int32_t started = qvejcap_Process_run(process);
    char text[8208] = {'?'};
    qvejcap_Process_qvo_stderr_read(process, text, 0, 0);
    qvejcap_Process_blocking_wait(process);
    qvejcap_Process_delete(process);
    const std::chrono::duration<double> spent =
        std::chrono::steady_clock::now() - start;
    seconds += std::to_string(spent.count()) + " ";
    if (started != 0 || std::string(text) != refusal) {
      unexpected += text;
    }
  }
  qvehost::DeleteContext(context);
  return seconds + "|" + unexpected;
}

// The seconds of "s1 s2 s3|..." added up, and the longest.
std::pair<double, double> SumAndMax(const std::string& seconds) {
  double sum = 0, most = 0;
  std::istringstream in(seconds.substr(0, seconds.find('|')));
  for (double s; in >> s;) {
    sum += s;
    most = std::max(most, s);
  }
  return {sum, most};
}

TEST(LauncherDelayTest, WrongPasswordsCostCallersButRootSecondsEach) {
  std::string reason;
  const TestAccount* account = LauncherAccount(&reason);
  if (account == nullptr) GTEST_SKIP() << reason;
  const std::string dir = "/tmp/qvel-delay-" + std::to_string(getpid());
  const std::string launcher = SetuidLauncherCopy(dir);
  ASSERT_NE(launcher, "");
  chmod(dir.c_str(), 01777);
  const std::string marker = dir + "/ran";
  qvehost::SetLauncherPath(launcher);
  const std::string nobody =
      AsNobody([&] { return WrongPasswords(*account, marker, kFailed); });
  const std::string root = WrongPasswords(*account, marker, kWrongPassword);
  qvehost::SetLauncherPath("");
  EXPECT_GE(SumAndMax(nobody).first, kAttempts * kDelaySeconds) << nobody;
  EXPECT_LT(SumAndMax(root).second, kDelaySeconds) << root;
  EXPECT_EQ(nobody.substr(nobody.find('|')), "|");
  EXPECT_EQ(root.substr(root.find('|')), "|");
  EXPECT_FALSE(std::filesystem::exists(marker));
  EXPECT_EQ(ProcessesOf(account->uid), std::vector<int>{});
  std::filesystem::remove_all(dir);
}

}  // namespace
}  // namespace qvetest
