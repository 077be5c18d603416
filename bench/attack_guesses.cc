// The guesser: a caller with a uid of no account starts a set-user-ID copy of
// the launcher with a wrong password for a throw-away account, and kills it
// 150 ms later, again and again. A guess counts when its password reached
// PAM, which is when the launcher records a new deadline for the caller: a
// right password there would have run the command. Tries that are killed
// while they pay the last one's debt check nothing.
#include "bench/attack_guesses.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "qve/embedded.h"

namespace {

constexpr int64_t kWindowNanos = 20'000'000'000;
constexpr useconds_t kKillAfterUs = 150000;

bool Quiet(const std::string& command) {
  return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
}

// In the child: from onto to, without close-on-exec.
bool MoveTo(int from, int to) { return dup2(from, to) == to; }

// One try as caller: the request on descriptor 3, the verdict's descriptor
// 4 and the output on /dev/null; SIGKILL 150 ms after the start.
void KilledTry(const std::string& launcher, uid_t caller,
               const std::string& request) {
  int pipe_fds[2];
  if (pipe2(pipe_fds, O_CLOEXEC) != 0) return;
  (void)!write(pipe_fds[1], request.data(), request.size());
  close(pipe_fds[1]);
  const pid_t pid = fork();
  if (pid == 0) {
    // Above 4 first, so that no move overwrites a descriptor still to move.
    const int null = fcntl(open("/dev/null", O_RDWR | O_CLOEXEC),
                           F_DUPFD_CLOEXEC, 5);
    const int request_fd = fcntl(pipe_fds[0], F_DUPFD_CLOEXEC, 5);
    char arg0[] = "fetchlet-launch", mark[] = "--", command[] = "true";
    char* argv[] = {arg0, mark, command, nullptr};
    char* env[] = {nullptr};
    if (null >= 0 && request_fd >= 0 && MoveTo(null, 0) && MoveTo(null, 1) &&
        MoveTo(null, 2) && MoveTo(request_fd, 3) && MoveTo(null, 4) &&
        setgroups(0, nullptr) == 0 &&
        setresgid(caller, caller, caller) == 0 &&
        setresuid(caller, caller, caller) == 0) {
      execve(launcher.c_str(), argv, env);
    }
    _exit(127);
  }
  close(pipe_fds[0]);
  if (pid < 0) return;
  usleep(kKillAfterUs);
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
}

// The launcher's clock for its deadlines.
int64_t BootNanos() {
  timespec now;
  clock_gettime(CLOCK_BOOTTIME, &now);
  return int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

// The deadline the launcher last recorded for the caller (0: none).
int64_t Recorded(const std::string& record) {
  int64_t deadline = 0;
  const int fd = open(record.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 0;
  if (read(fd, &deadline, sizeof deadline) != sizeof deadline) deadline = 0;
  close(fd);
  return deadline;
}

struct Setup {
  std::string dir, launcher, user, record;
  uid_t caller = 0;

  bool Make() {
    const std::string pid = std::to_string(getpid());
    dir = "/tmp/qvel-guesses-" + pid;
    user = "qvgs" + pid;
    caller = 3100000000U + static_cast<uid_t>(getpid());
    record = "/run/fetchlet-launch/" + std::to_string(caller);
    launcher = dir + "/fetchlet-launch";
    std::error_code error;
    std::filesystem::create_directory(dir, error);
    std::filesystem::copy_file(qvehost::LauncherPath(), launcher, error);
    if (error || chmod(dir.c_str(), 0755) != 0 ||
        chown(launcher.c_str(), 0, 0) != 0 ||
        chmod(launcher.c_str(), 04755) != 0 ||
        !Quiet("useradd -M -s /bin/sh " + user)) {
      return false;
    }
    FILE* chpasswd = popen("chpasswd", "w");
    if (chpasswd == nullptr) return false;
    std::fprintf(chpasswd, "%s:Right-%s\n", user.c_str(), pid.c_str());
    return pclose(chpasswd) == 0;
  }

  ~Setup() {
    Quiet("userdel -f " + user);
    std::error_code ignored;
    std::filesystem::remove_all(dir, ignored);
    unlink(record.c_str());
  }
};

}  // namespace

double MeasureGuessesPerMinute() {
  if (geteuid() != 0 || qvehost::LauncherPath().empty()) return -1;
  Setup setup;
  if (!setup.Make()) return -1;
  int guesses = 0;
  int64_t last = Recorded(setup.record);
  const int64_t start = BootNanos();
  while (BootNanos() - start < kWindowNanos) {
    KilledTry(setup.launcher, setup.caller,
              setup.user + '\0' + "wrong-" + std::to_string(guesses) + '\0');
    const int64_t recorded = Recorded(setup.record);
    if (recorded != last) ++guesses;
    last = recorded;
  }
  // The window ends when the guesser may have its next password checked:
  // what the last guess owes is part of what the guesses cost.
  const int64_t end = std::max(BootNanos(), last);
  return guesses * 60e9 / static_cast<double>(end - start);
}
