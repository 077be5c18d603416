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

// The account's supplementary groups, looked up before the child exists.
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

// The account's groups go to the launcher itself before PAM establishes the
// credentials, as su does, so that groups a module adds (pam_group) reach the
// command, which inherits them.
bool TakeGroups(const Account& account) {
  if (geteuid() != 0) return true;
  const std::vector<gid_t> groups = GroupsOf(account);
  return setgroups(groups.size(), groups.data()) == 0;
}

// Group and user, real, effective and saved alike; then proof that root
// cannot be regained. Without privilege the launcher can only run commands as
// its caller.
bool SwitchUser(const Account& account) {
  if (geteuid() != 0) {
    return account.uid == getuid() && account.uid == geteuid();
  }
  if (setresgid(account.gid, account.gid, account.gid) != 0 ||
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
                               const CallerLimits& limits, pid_t launcher,
                               char** argv, char** env) {
  ResetSignals();
  // A session of its own, so no controlling terminal: a terminal shared with
  // the caller is a keyboard the user could type on (TIOCSTI) and read from.
  // Its group is the one that stops reach.
  if (!limits.Restore() || !SwitchUser(account) || setsid() < 0) {
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

// While the command runs the launcher is the user, so that it may pass stops
// on, and its caller's, so that the caller may signal it. Only its saved uid
// stays root: closing the PAM session needs root as opening it did (modules
// log, and undo what they set up, as root), and the command, whose uid
// matches neither the launcher's real nor its saved one, cannot signal it.
void DropPrivilege(const Account& account) {
  if (geteuid() != 0 || account.uid == 0) return;
  if (setgroups(0, nullptr) == 0 &&
      setresgid(getgid(), account.gid, account.gid) == 0) {
    // Should this fail the launcher stays root, which it needs no more than
    // to wait for the command and pass stops on to it.
    if (setresuid(getuid(), account.uid, 0) != 0) return;
  }
}

// Root again, for the end of the session only.
void RegainPrivilege() {
  uid_t real, effective, saved;
  if (getresuid(&real, &effective, &saved) == 0 && saved == 0) {
    (void)!seteuid(0);
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
// launcher's child, closes the session, then exits with the command's
// status. _exit: nothing is left to flush, and a leak check at exit could not
// trace a process that has switched users.
[[noreturn]] void WaitAndExit(pid_t command, PamTransaction* transaction) {
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
  RegainPrivilege();
  CloseSession(transaction);
  if (WIFSIGNALED(status)) _exit(128 + WTERMSIG(status));
  _exit(WIFEXITED(status) ? WEXITSTATUS(status) : kLauncherFailed);
}

}  // namespace

void RunCommand(const Account& account, char** argv,
                const std::vector<char*>& env, CallerLimits* limits,
                PamTransaction* transaction) {
  std::vector<std::string> storage;
  std::vector<char*> command_env = CommandEnvironment(account, env, &storage);
  // The caller's limits go back before the session opens, so that the
  // session's (pam_limits) come on top of them; what the command is to get
  // is then kept, and the launcher takes its own again as far as it may.
  if (!TakeGroups(account) || !limits->Restore()) {
    EndTransaction(transaction);
    Refuse(kSwitchRefused);
  }
  if (const char* failure = OpenSession(transaction)) Refuse(failure);
  if (limits->replaced() && !limits->KeepForCommand()) {
    CloseSession(transaction);
    Refuse(kSwitchRefused);
  }
  sigset_t blocked;
  sigset_t previous;
  InstallForwarding(&blocked, &previous);
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  const pid_t launcher = getpid();
  // vfork: no copy of the launcher's memory, with all of PAM in it, for a
  // child that only switches user and executes.
  const pid_t command = vfork();
  if (command == 0) {
    StartCommand(account, *limits, launcher, argv, command_env.data());
  }
  if (command < 0) {
    CloseSession(transaction);
    Report(kExecFailedTag, kForkFailed);
    std::exit(kLauncherFailed);
  }
  g_command = command;
  close(kErrorFd);
  ReleaseStandardStreams();
  DropPrivilege(account);
  sigprocmask(SIG_SETMASK, &previous, nullptr);
  WaitAndExit(command, transaction);
}

}  // namespace qvelaunch
