// Helpers of the launcher's tests: authenticated processes, a set-user-ID
// copy of the launcher, and children that run as nobody or adopt orphans.
#ifndef QVE_TESTS_HOST_LAUNCHER_SUPPORT_H_
#define QVE_TESTS_HOST_LAUNCHER_SUPPORT_H_

#include <fcntl.h>
#include <grp.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "common/processes.h"
#include "common/test_account.h"
#include "qve/embedded.h"
#include "qve/host.h"

namespace qvetest {

using Strings = std::vector<std::string>;

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

// A launched process run to its end: whether it started, the launcher's
// text, standard output and the exit value.
struct Finished {
  bool started = false;
  std::string text;
  std::string out;
  int32_t exit = -1;
  auto Tuple() const { return std::make_tuple(started, text, out, exit); }
};

inline Finished RunToEnd(qvefet_Context* context, Strings argv,
                         const std::string& user, const std::string& password,
                         Strings* env = nullptr) {
  qvejcap_Process* process =
      New(context, std::move(argv), user, password, env);
  Finished f;
  f.started = qvejcap_Process_run(process) == 0;
  char text[QVE_LAUNCHER_TEXT_BUFFER] = {'?'};
  qvejcap_Process_qvo_stderr_read(process, text, 0, 0);
  f.text = text;
  qvejcap_Process_stdin_close(process);
  if (f.started) {
    char buffer[8207];
    for (int32_t n; (n = qvejcap_Process_stdout_read(process, buffer,
                                                     sizeof buffer)) > 0;) {
      f.out.append(buffer, static_cast<size_t>(n));
    }
    qvejcap_Process_blocking_wait(process);
    qvejcap_Process_getExitValue(process, &f.exit);
  }
  qvejcap_Process_delete(process);
  return f;
}

// The rest of fd, which is closed.
inline std::string ReadToEnd(int fd) {
  std::string text;
  char chunk[512];
  for (ssize_t n; (n = read(fd, chunk, sizeof chunk)) > 0;) {
    text.append(chunk, static_cast<size_t>(n));
  }
  close(fd);
  return text;
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
  const std::string text = ReadToEnd(report[0]);
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

// One start of a launcher by hand, as a hostile caller would make it: its own
// uid (a number with no account), its own limits, a kill whenever it likes.
struct LaunchAttempt {
  std::string launcher;
  uid_t caller = 0;  // 0: root
  std::string user, password;
  Strings argv;
  std::vector<std::pair<int, rlimit>> limits;  // set just before the exec
  bool no_new_privs = false;
  int kill_after_ms = -1;  // SIGKILL to the launcher
};

// What the caller sees: the launcher's line, the output, the status.
using Seen = std::tuple<std::string, std::string, int>;

struct LaunchOutcome {
  std::string verdict;  // the launcher's line, tag and all
  std::string out;      // the command's output and errors
  int status = -1;      // as waitpid gives it
  double seconds = 0;

  Seen Tuple() const { return {verdict, out, status}; }
};

// In the child: from onto to, without close-on-exec; from is above 4.
inline bool MoveTo(int from, int to) { return dup2(from, to) == to; }

inline int Above4(int fd) { return fcntl(fd, F_DUPFD_CLOEXEC, 5); }

[[noreturn]] inline void ExecAttempt(const LaunchAttempt& a, int request,
                                     int verdict, int out) {
  Strings args{a.launcher, "--"};
  args.insert(args.end(), a.argv.begin(), a.argv.end());
  std::vector<char*> argv = Pointers(args);
  char* env[] = {nullptr};
  // Above 4 first, so that no move overwrites a descriptor still to move.
  const int null = Above4(open("/dev/null", O_RDONLY | O_CLOEXEC));
  out = Above4(out);
  request = Above4(request);
  verdict = Above4(verdict);
  bool ready = null >= 0 && out >= 0 && request >= 0 && verdict >= 0 &&
               MoveTo(null, 0) && MoveTo(out, 1) && MoveTo(out, 2) &&
               MoveTo(request, 3) && MoveTo(verdict, 4);
  for (const auto& [resource, limit] : a.limits) {
    ready = ready && setrlimit(resource, &limit) == 0;
  }
  if (a.no_new_privs) ready = ready && prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0;
  if (a.caller != 0) {
    ready = ready && setgroups(0, nullptr) == 0 &&
            setresgid(a.caller, a.caller, a.caller) == 0 &&
            setresuid(a.caller, a.caller, a.caller) == 0;
  }
  if (ready) execve(a.launcher.c_str(), argv.data(), env);
  _exit(99);
}

inline LaunchOutcome Attempt(const LaunchAttempt& a) {
  int request[2], verdict[2], out[2];
  if (pipe2(request, O_CLOEXEC) != 0 || pipe2(verdict, O_CLOEXEC) != 0 ||
      pipe2(out, O_CLOEXEC) != 0) {
    LaunchOutcome none;
    none.verdict = "no pipes";
    return none;
  }
  // Far less than a pipe holds: written before the launcher reads it.
  const std::string credentials = a.user + '\0' + a.password + '\0';
  (void)!write(request[1], credentials.data(), credentials.size());
  close(request[1]);
  const auto start = std::chrono::steady_clock::now();
  const pid_t pid = fork();
  if (pid == 0) ExecAttempt(a, request[0], verdict[1], out[1]);
  close(request[0]);
  close(verdict[1]);
  close(out[1]);
  if (a.kill_after_ms >= 0) {
    usleep(static_cast<useconds_t>(a.kill_after_ms) * 1000);
    kill(pid, SIGKILL);
  }
  LaunchOutcome outcome;
  outcome.verdict = ReadToEnd(verdict[0]);
  outcome.out = ReadToEnd(out[0]);
  waitpid(pid, &outcome.status, 0);
  outcome.seconds = std::chrono::duration<double>(
                        std::chrono::steady_clock::now() - start)
                        .count();
  return outcome;
}

// The status of a launcher that refused.
inline int Refused() { return 125 << 8; }

// A uid of no account that no other test program uses, and the record the
// launcher keeps for it (removed by the test).
inline uid_t StrangerUid() { return 3000000000U + static_cast<uid_t>(getpid()); }
inline std::string RecordOf(uid_t uid) {
  return "/run/fetchlet-launch/" + std::to_string(uid);
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
