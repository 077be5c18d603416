// A throw-away user account with a known password, for the tests of the
// credential launcher. Only root can make one; elsewhere those tests skip.
//
// Header only, so that every test program that needs it can share it. Each
// test program makes its own account (named after its pid, so that programs
// running side by side never meet) on first use, and removes it at its end.
#ifndef QVE_TESTS_COMMON_TEST_ACCOUNT_H_
#define QVE_TESTS_COMMON_TEST_ACCOUNT_H_

#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "qve/embedded.h"

namespace qvetest {

struct TestAccount {
  std::string name;
  std::string password;
  uid_t uid = 0;
  gid_t gid = 0;
  std::string home;
};

// The build tree's copy of a launcher file (share/fetchlet-launch/NAME).
inline std::string LauncherShareFile(const std::string& name) {
  const std::string launcher = qvehost::LauncherPath();
  return launcher.substr(0, launcher.rfind('/') + 1) +
         "../share/fetchlet-launch/" + name;
}

inline bool Shell(const std::string& command) {
  return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
}

// The whole of a file, NULs kept ("" when it cannot be read).
inline std::string FileBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream bytes;
  bytes << in.rdbuf();
  return bytes.str();
}

// Why the launcher tests cannot run here; empty when they can. The PAM
// service is renamed into place whole when it is missing or differs from the
// build's, for programs running side by side, and left there as an
// installation would leave it.
inline std::string LauncherSkipReason() {
  if (geteuid() != 0) {
    return "needs root to make a throw-away account and switch to it";
  }
  if (qvehost::LauncherPath().empty()) return "fetchlet-launch is not built";
  const std::string target = "/etc/pam.d/fetchlet-launch";
  const std::string built = LauncherShareFile("fetchlet-launch.pam");
  if (FileBytes(target) == FileBytes(built)) return "";
  const std::string temporary =
      "/etc/pam.d/.fetchlet-launch." + std::to_string(getpid());
  std::error_code ignored;
  std::filesystem::copy_file(
      built, temporary, std::filesystem::copy_options::overwrite_existing,
      ignored);
  chmod(temporary.c_str(), 0644);
  const bool placed = rename(temporary.c_str(), target.c_str()) == 0;
  unlink(temporary.c_str());
  return placed ? "" : "cannot install the PAM service fetchlet-launch";
}

// The program's account, with its own group, a home directory and a password
// hashed with few rounds (a full-strength hash costs far more than the
// launcher), made on first use; null when it cannot be made. The password
// goes to chpasswd on its standard input, never in arguments.
class AccountStore : public testing::Environment {
 public:
  static AccountStore& Get() {
    static auto* store = static_cast<AccountStore*>(
        testing::AddGlobalTestEnvironment(new AccountStore));  // owns it
    return *store;
  }

  const TestAccount* Shared() {
    if (tried_) return shared_;
    tried_ = true;
    account_.name = "qvel" + std::to_string(getpid());
    Remove();  // an earlier program's, of the same pid
    if (!Shell("useradd -m -U -s /bin/sh " + account_.name)) return nullptr;
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    account_.password =
        "Pw-" + std::to_string(getpid()) + "-" + std::to_string(now.count());
    FILE* chpasswd = popen("chpasswd -c SHA512 -s 1000", "w");
    if (chpasswd == nullptr) return nullptr;
    std::fprintf(chpasswd, "%s:%s\n", account_.name.c_str(),
                 account_.password.c_str());
    const passwd* entry = nullptr;
    if (pclose(chpasswd) != 0 ||
        (entry = getpwnam(account_.name.c_str())) == nullptr) {
      return nullptr;
    }
    account_.uid = entry->pw_uid;
    account_.gid = entry->pw_gid;
    account_.home = entry->pw_dir;
    return shared_ = &account_;
  }

  void TearDown() override { Remove(); }

 private:
  void Remove() {
    if (!account_.name.empty()) Shell("userdel -f -r " + account_.name);
  }

  TestAccount account_;
  bool tried_ = false;
  const TestAccount* shared_ = nullptr;
};

// The launcher's account, or null with *reason set when this process cannot
// make one or run the launcher.
inline const TestAccount* LauncherAccount(std::string* reason) {
  *reason = LauncherSkipReason();
  if (!reason->empty()) return nullptr;
  const TestAccount* account = AccountStore::Get().Shared();
  if (account == nullptr) *reason = "cannot make a test account";
  return account;
}

// Pids of the processes whose /proc directory satisfies shows.
inline std::vector<int> ProcessesWhere(
    const std::function<bool(const std::string&)>& shows) {
  std::vector<int> pids;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const int pid = std::atoi(entry.path().filename().c_str());
    if (pid > 0 && shows(entry.path().string())) pids.push_back(pid);
  }
  return pids;
}

// Processes whose real, effective or saved uid is uid, zombies included.
inline std::vector<int> ProcessesOf(uid_t uid) {
  return ProcessesWhere([uid](const std::string& dir) {
    const std::string status = FileBytes(dir + "/status");
    const size_t ids = status.find("\nUid:");
    if (ids == std::string::npos) return false;
    std::istringstream fields(status.substr(ids + 5));
    uid_t real = 0, effective = 0, saved = 0;
    fields >> real >> effective >> saved;
    return real == uid || effective == uid || saved == uid;
  });
}

// Processes whose command line or environment holds text.
inline std::vector<int> ProcessesShowing(const std::string& text) {
  return ProcessesWhere([&text](const std::string& dir) {
    const std::string shown =
        FileBytes(dir + "/cmdline") + '\0' + FileBytes(dir + "/environ");
    return shown.find(text) != std::string::npos;
  });
}

}  // namespace qvetest

#endif  // QVE_TESTS_COMMON_TEST_ACCOUNT_H_
