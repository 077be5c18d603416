// The command's start under the user, and the launcher's watch over it.
//
// The launcher stays the command's parent so that a host without privilege
// can still end a command that runs under another uid: the host signals the
// launcher, which it may, and the launcher ends the command's group.
#include <fcntl.h>
#include <grp.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "launch_protocol.h"
#include "launcher.h"

namespace qvelaunch {
namespace {

constexpr char kSwitchRefused[] = "Unable to switch to the user";
constexpr char kNotFound[] = "Command not found";
constexpr char kNotExecutable[] = "Command not executable";
constexpr char kExecFailed[] = "Unable to execute the command";
constexpr char kForkFailed[] = "Unable to start the command";

constexpr char kUserPath[] = "/usr/local/bin:/usr/bin:/bin";
constexpr char kRootPath[] =
    "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";
constexpr char kDefaultShell[] = "/bin/sh";

// Stops the launcher passes on to the command's group: SIGTERM first, SIGKILL
// when the grace has passed (SIGALRM) or at once.
constexpr int kStops[] = {kStopSignal, SIGINT, SIGHUP, SIGQUIT};
constexpr int kKills[] = {kKillSignal, SIGALRM};

volatile sig_atomic_t g_command = 0;

void SignalCommand(pid_t command, int sig) {
  kill(-command, sig);
  // In case the command left its group.
  kill(command, sig);
}

void Forward(int sig) {
  const pid_t command = g_command;
  if (command <= 0) return;
  const int saved = errno;
  const bool kill_now = sig == kKillSignal || sig == SIGALRM;
  SignalCommand(command, kill_now ? SIGKILL : SIGTERM);
  if (!kill_now) {
    SignalCommand(command, SIGCONT);
    alarm(kStopGraceSeconds);
  }
  errno = saved;
}

bool Sets(const std::vector<char*>& env, std::string_view name) {
  for (const char* entry : env) {
    const std::string_view text(entry);
    if (text.size() > name.size() && text.starts_with(name) &&
        text[name.size()] == '=') {
      return true;
    }
  }
  return false;
}

// The given environment, completed by the login variables it lacks. The
// strings live in storage, which must not change size afterwards.
std::vector<char*> CommandEnvironment(const Account& account,
                                      const std::vector<char*>& given,
                                      std::vector<std::string>* storage) {
  const std::string shell = account.shell.empty() ? kDefaultShell
                                                  : account.shell;
  const std::pair<const char*, std::string> defaults[] = {
      {"HOME", account.home},       {"USER", account.name},
      {"LOGNAME", account.name},    {"SHELL", shell},
      {"PATH", account.uid == 0 ? kRootPath : kUserPath}};
  storage->reserve(std::size(defaults));
  for (const auto& [name, value] : defaults) {
    if (!Sets(given, name)) storage->push_back(std::string(name) + "=" + value);
  }
  std::vector<char*> env = given;
  for (std::string& entry : *storage) env.push_back(entry.data());
  env.push_back(nullptr);
  return env;
}

// The account's supplementary groups, looked up before the child exists:
// the child of vfork may make system calls only.
std::vector<gid_t> GroupsOf(const Account& account) {
  std::vector<gid_t> groups(32);
  for (;;) {
    int count = static_cast<int>(groups.size());
    if (getgrouplist(account.name.c_str(), account.gid, groups.data(),
                     &count) >= 0) {
      groups.resize(static_cast<size_t>(count));
      return groups;
    }
    groups.resize(static_cast<size_t>(count) > groups.size()
                      ? static_cast<size_t>(count)
                      : groups.size() * 2);
  }
}

// Supplementary groups, group and user, real, effective and saved alike; then
// proof that root cannot be regained. Without privilege the launcher can
// only run commands as its caller.
bool SwitchUser(const Account& account, const std::vector<gid_t>& groups) {
  if (geteuid() != 0) {
    return account.uid == getuid() && account.uid == geteuid();
  }
  if (setgroups(groups.size(), groups.data()) != 0 ||
      setresgid(account.gid, account.gid, account.gid) != 0 ||
      setresuid(account.uid, account.uid, account.uid) != 0) {
    return false;
  }
  uid_t ruid, euid, suid;
  gid_t rgid, egid, sgid;
  if (getresuid(&ruid, &euid, &suid) != 0 ||
      getresgid(&rgid, &egid, &sgid) != 0) {
    return false;
  }
  const bool switched = ruid == account.uid && euid == account.uid &&
                        suid == account.uid && rgid == account.gid &&
                        egid == account.gid && sgid == account.gid;
  if (!switched) return false;
  return account.uid == 0 || (setuid(0) != 0 && seteuid(0) != 0);
}

// Default dispositions and an empty mask, as any command expects.
void ResetSignals() {
  struct sigaction standard;
  std::memset(&standard, 0, sizeof standard);
  standard.sa_handler = SIG_DFL;
  for (int sig = 1; sig < NSIG; ++sig) sigaction(sig, &standard, nullptr);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

const char* ExecFailure(int error) {
  switch (error) {
    case ENOENT:
    case ENOTDIR:
      return kNotFound;
    case EACCES:
    case EPERM:
      return kNotExecutable;
    default:
      return kExecFailed;
  }
}

// Runs in the child of vfork, which shares the launcher's memory until it
// executes: system calls only, no allocation.
[[noreturn]] void StartCommand(const Account& account,
                               const std::vector<gid_t>& groups,
                               const CallerLimits& limits, pid_t launcher,
                               char** argv, char** env) {
  ResetSignals();
  setpgid(0, 0);
  limits.Restore();
  if (!SwitchUser(account, groups)) {
    Report(kRefusedTag, kSwitchRefused);
    _exit(kLauncherFailed);
  }
  // The command dies with the launcher. The kernel clears this on a change
  // of credentials, so it can only come now; a launcher already gone has
  // made the child an orphan, which must not run.
  if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != launcher) {
    _exit(kLauncherFailed);
  }
  if (account.home.empty() || chdir(account.home.c_str()) != 0) {
    if (chdir("/") != 0) _exit(kLauncherFailed);
  }
  // Only 0 to 2 reach the command; the error descriptor closes on exec.
  close_range(kRequestFd, kRequestFd, 0);
  close_range(kErrorFd + 1, ~0U, 0);
  // execvp searches the PATH of the command's own environment. The launcher
  // reads its environment no more, so sharing the change is harmless.
  environ = env;
  execvp(argv[0], argv);
  const int error = errno;
  Report(kExecFailedTag, ExecFailure(error));
  _exit(error == ENOENT ? 127 : 126);
}

// The launcher keeps no more privilege than it needs to signal the command.
void DropPrivilege(const Account& account) {
  if (geteuid() != 0 || account.uid == 0) return;
  if (setgroups(0, nullptr) == 0 &&
      setresgid(getgid(), account.gid, account.gid) == 0) {
    // Should this fail the launcher stays root, which it needs no more than
    // to wait for the command and pass stops on to it.
    if (setresuid(getuid(), account.uid, account.uid) != 0) return;
  }
}

// The command's output pipes must end when the command's copies close.
void ReleaseStandardStreams() {
  const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
  if (null < 0) return;
  for (int fd = 0; fd <= 2; ++fd) dup2(null, fd);
  close(null);
}

void InstallForwarding(sigset_t* blocked, sigset_t* previous) {
  sigemptyset(blocked);
  struct sigaction action;
  std::memset(&action, 0, sizeof action);
  action.sa_handler = Forward;
  sigfillset(&action.sa_mask);
  for (int sig : kStops) {
    sigaddset(blocked, sig);
    sigaction(sig, &action, nullptr);
  }
  for (int sig : kKills) {
    sigaddset(blocked, sig);
    sigaction(sig, &action, nullptr);
  }
  sigprocmask(SIG_BLOCK, blocked, previous);
}

// Waits without reaping, so that the command's id still names its group,
// ends what is left of the group, reaps every member that ends up as the
// launcher's child, then exits with the command's status. _exit: nothing is
// left to flush, and a leak check at exit could not trace a process that
// has switched users.
[[noreturn]] void WaitAndExit(pid_t command) {
  siginfo_t info;
  std::memset(&info, 0, sizeof info);
  while (waitid(P_PID, static_cast<id_t>(command), &info,
                WEXITED | WNOWAIT) != 0) {
    if (errno != EINTR) _exit(kLauncherFailed);
  }
  // No stop may reach the command's id once it is reaped and free again.
  sigset_t all;
  sigfillset(&all);
  sigprocmask(SIG_BLOCK, &all, nullptr);
  kill(-command, SIGKILL);
  int status = 0;
  while (waitpid(command, &status, 0) < 0) {
    if (errno != EINTR) _exit(kLauncherFailed);
  }
  // As a subreaper the launcher inherits the group's orphans: no zombie of
  // the command's is left to whoever reaps after it.
  int orphan_status;
  while (waitpid(-command, &orphan_status, 0) > 0 || errno == EINTR) {
  }
  if (WIFSIGNALED(status)) _exit(128 + WTERMSIG(status));
  _exit(WIFEXITED(status) ? WEXITSTATUS(status) : kLauncherFailed);
}

}  // namespace

void RunCommand(const Account& account, char** argv,
                const std::vector<char*>& env, const CallerLimits& limits,
                PamTransaction* transaction) {
  std::vector<std::string> storage;
  std::vector<char*> command_env = CommandEnvironment(account, env, &storage);
  const std::vector<gid_t> groups = GroupsOf(account);
  sigset_t blocked;
  sigset_t previous;
  InstallForwarding(&blocked, &previous);
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  const pid_t launcher = getpid();
  // vfork: no copy of the launcher's memory, with all of PAM in it, for a
  // child that only switches user and executes.
  const pid_t command = vfork();
  if (command == 0) {
    StartCommand(account, groups, limits, launcher, argv, command_env.data());
  }
  if (command < 0) {
    Report(kExecFailedTag, kForkFailed);
    std::exit(kLauncherFailed);
  }
  g_command = command;
  setpgid(command, command);
  EndTransaction(transaction);
  close(kErrorFd);
  ReleaseStandardStreams();
  DropPrivilege(account);
  sigprocmask(SIG_SETMASK, &previous, nullptr);
  WaitAndExit(command);
}

}  // namespace qvelaunch
