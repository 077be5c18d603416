// Helpers of the launcher's tests: authenticated processes, a set-user-ID
// copy of the launcher, and children that run as nobody or adopt orphans.
#ifndef QVE_TESTS_HOST_LAUNCHER_SUPPORT_H_
#define QVE_TESTS_HOST_LAUNCHER_SUPPORT_H_

#include <fcntl.h>
#include <grp.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "common/test_account.h"
#include "qve/embedded.h"
#include "qve/host.h"

namespace qvetest {

using Strings = std::vector<std::string>;

inline std::vector<char*> Pointers(Strings& strings) {
  std::vector<char*> pointers;
  for (std::string& s : strings) pointers.push_back(s.data());
  pointers.push_back(nullptr);
  return pointers;
}

// The host copies the arrays: they need not outlive the call.
inline qvejcap_Process* New(qvefet_Context* context, Strings argv,
                     const std::string& user, const std::string& password,
                     Strings* env = nullptr) {
  std::vector<char*> args = Pointers(argv);
  std::vector<char*> envs;
  if (env != nullptr) envs = Pointers(*env);
  return qvejcap_Process_new(
      context, args.data(), static_cast<int32_t>(argv.size()),
      env != nullptr ? envs.data() : nullptr,
      env != nullptr ? static_cast<int32_t>(env->size()) : 0, 0, user.c_str(),
      password.c_str(), nullptr);
}

// What body reports, run in a forked child (its exit status is 0 when it
// reported at all).
inline std::string InChild(const std::function<std::string()>& body) {
  int report[2];
  if (pipe2(report, O_CLOEXEC) != 0) return "no pipe";
  const pid_t pid = fork();
  if (pid == 0) {
    const std::string text = body();
    const bool written =
        write(report[1], text.data(), text.size()) ==
        static_cast<ssize_t>(text.size());
    _exit(written ? 0 : 1);
  }
  close(report[1]);
  std::string text;
  char chunk[512];
  for (ssize_t n; (n = read(report[0], chunk, sizeof chunk)) > 0;) {
    text.append(chunk, static_cast<size_t>(n));
  }
  close(report[0]);
  int status = -1;
  waitpid(pid, &status, 0);
  return status == 0 ? text : "child failed: " + text;
}

// A set-user-ID root copy of the launcher in dir, as an installation has
// it; empty when it cannot be made.
inline std::string SetuidLauncherCopy(const std::string& dir) {
  const std::string launcher = dir + "/fetchlet-launch";
  std::filesystem::create_directory(dir);
  chmod(dir.c_str(), 0755);
  std::error_code error;
  std::filesystem::copy_file(qvehost::LauncherPath(), launcher, error);
  if (error || chown(launcher.c_str(), 0, 0) != 0 ||
      chmod(launcher.c_str(), 04755) != 0) {
    return "";
  }
  return launcher;
}

// What body reports, run in a child that has become nobody.
inline std::string AsNobody(const std::function<std::string()>& body) {
  return InChild([&] {
    constexpr uid_t kNobody = 65534;
    if (setgroups(0, nullptr) != 0 ||
        setresgid(kNobody, kNobody, kNobody) != 0 ||
        setresuid(kNobody, kNobody, kNobody) != 0) {
      return std::string("cannot become nobody");
    }
    return body();
  });
}

// What body reports, run in a child that adopts the orphans of its
// descendants.
inline std::string InSubreaper(const std::function<std::string()>& body) {
  return InChild([&] {
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    return body();
  });
}

inline pid_t FirstChild() {
  const std::string self = std::to_string(getpid());
  return std::atoi(
      FileBytes("/proc/" + self + "/task/" + self + "/children").c_str());
}

// Reaps host and every orphan until no process of uid is left: "" then, or
// the processes left after 15 s.
inline std::string WaitUntilNoneLeft(pid_t host, uid_t uid) {
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::seconds(15);
  for (;;) {
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
    const std::vector<int> left = ProcessesOf(uid);
    if (left.empty() && kill(host, 0) != 0) return "";
    if (std::chrono::steady_clock::now() > deadline) {
      std::string pids;
      for (int pid : left) pids += std::to_string(pid) + " ";
      return "left: " + pids;
    }
    usleep(20000);
  }
}

}  // namespace qvetest

#endif  // QVE_TESTS_HOST_LAUNCHER_SUPPORT_H_
