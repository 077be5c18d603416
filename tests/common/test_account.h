// A throw-away user account with a known password, for the tests of the
// credential launcher. Only root can make one; elsewhere those tests skip.
//
// Header only, so that every test program that needs it can share it. Each
// test program makes its own account (named after its pid, so that programs
// running side by side never meet) on first use, and removes it at its end.
#ifndef QVE_TESTS_COMMON_TEST_ACCOUNT_H_
#define QVE_TESTS_COMMON_TEST_ACCOUNT_H_

#include <dirent.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

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
  const std::string bin = launcher.substr(0, launcher.rfind('/') + 1);
  return bin + "../share/fetchlet-launch/" + name;
}

// Puts the build tree's service file in /etc/pam.d under service unless a
// file of that name is there already; left in place afterwards, as an
// installation would leave it. Atomic, for programs running side by side.
inline bool InstallPamService(const std::string& source,
                              const std::string& service) {
  const std::string target = "/etc/pam.d/" + service;
  if (access(target.c_str(), F_OK) == 0) return true;
  const std::string temporary =
      "/etc/pam.d/." + service + "." + std::to_string(getpid());
  {
    std::ifstream in(source, std::ios::binary);
    std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
    if (!in || !out) return false;
    out << in.rdbuf();
  }
  chmod(temporary.c_str(), 0644);
  const bool linked = link(temporary.c_str(), target.c_str()) == 0 ||
                      access(target.c_str(), F_OK) == 0;
  unlink(temporary.c_str());
  return linked;
}

inline bool Shell(const std::string& command) {
  return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
}

inline void RemoveAccount(const std::string& name) {
  Shell("userdel -f -r " + name);
}

// A new account with its own group, a home directory and a password hashed
// with few rounds: a full-strength hash costs far more than the launcher.
// The password goes to chpasswd on its standard input, never in arguments.
inline bool CreateAccount(const std::string& name, TestAccount* account) {
  RemoveAccount(name);
  if (!Shell("useradd -m -U -s /bin/sh " + name)) return false;
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  account->name = name;
  account->password =
      "Pw-" + std::to_string(getpid()) + "-" + std::to_string(now.count());
  FILE* chpasswd = popen("chpasswd -c SHA512 -s 1000", "w");
  if (chpasswd == nullptr) return false;
  std::fprintf(chpasswd, "%s:%s\n", name.c_str(), account->password.c_str());
  if (pclose(chpasswd) != 0) return false;
  const passwd* entry = getpwnam(name.c_str());
  if (entry == nullptr) return false;
  account->uid = entry->pw_uid;
  account->gid = entry->pw_gid;
  account->home = entry->pw_dir;
  return true;
}

// Why the launcher tests cannot run here; empty when they can.
inline std::string LauncherSkipReason() {
  if (geteuid() != 0) {
    return "needs root to make a throw-away account and switch to it";
  }
  if (qvehost::LauncherPath().empty()) return "fetchlet-launch is not built";
  if (!InstallPamService(LauncherShareFile("fetchlet-launch.pam"),
                         "fetchlet-launch")) {
    return "cannot install the PAM service fetchlet-launch";
  }
  return {};
}

class AccountStore : public testing::Environment {
 public:
  static AccountStore& Get() {
    static AccountStore* store = [] {
      auto* made = new AccountStore;
      testing::AddGlobalTestEnvironment(made);  // owns it
      return made;
    }();
    return *store;
  }

  // The program's account, made on first use; null when it cannot be made.
  const TestAccount* Shared() {
    if (!tried_) {
      tried_ = true;
      const std::string name = "qvel" + std::to_string(getpid());
      if (CreateAccount(name, &account_)) made_.push_back(name);
    }
    return made_.empty() ? nullptr : &account_;
  }

  // A further account, removed with the shared one.
  bool Extra(const std::string& suffix, TestAccount* account) {
    const std::string name = "qvel" + std::to_string(getpid()) + suffix;
    if (!CreateAccount(name, account)) return false;
    made_.push_back(name);
    return true;
  }

  void TearDown() override {
    for (const std::string& name : made_) RemoveAccount(name);
    made_.clear();
  }

 private:
  TestAccount account_;
  bool tried_ = false;
  std::vector<std::string> made_;
};

// Processes whose real, effective or saved uid is uid, zombies included.
inline std::vector<int> ProcessesOf(uid_t uid) {
  std::vector<int> pids;
  DIR* proc = opendir("/proc");
  if (proc == nullptr) return pids;
  while (dirent* entry = readdir(proc)) {
    const int pid = std::atoi(entry->d_name);
    if (pid <= 0) continue;
    std::ifstream status("/proc/" + std::string(entry->d_name) + "/status");
    std::string line;
    while (std::getline(status, line)) {
      if (!line.starts_with("Uid:")) continue;
      std::istringstream ids(line.substr(4));
      uid_t real = 0, effective = 0, saved = 0;
      ids >> real >> effective >> saved;
      if (real == uid || effective == uid || saved == uid) pids.push_back(pid);
      break;
    }
  }
  closedir(proc);
  return pids;
}

// The whole of a file, NULs kept ("" when it cannot be read).
inline std::string FileBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream bytes;
  bytes << in.rdbuf();
  return bytes.str();
}

// Pids of every process whose command line or environment holds text.
inline std::vector<int> ProcessesShowing(const std::string& text) {
  std::vector<int> pids;
  DIR* proc = opendir("/proc");
  if (proc == nullptr) return pids;
  while (dirent* entry = readdir(proc)) {
    const int pid = std::atoi(entry->d_name);
    if (pid <= 0) continue;
    const std::string dir = "/proc/" + std::string(entry->d_name);
    if (FileBytes(dir + "/cmdline").find(text) != std::string::npos ||
        FileBytes(dir + "/environ").find(text) != std::string::npos) {
      pids.push_back(pid);
    }
  }
  closedir(proc);
  return pids;
}

}  // namespace qvetest

#endif  // QVE_TESTS_COMMON_TEST_ACCOUNT_H_
