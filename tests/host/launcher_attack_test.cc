// The launcher attacked as a local user would: its terminal, its delay, its
// answers, its limits; and its PAM session. As root with a throw-away
// account; the hostile caller is a uid of no account.
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "common/test_account.h"
#include "host/launcher_support.h"
#include "qve/embedded.h"
#include "qve/host.h"

namespace qvetest {
namespace {

constexpr char kFailed[] = "RAuthentication failed\n";
constexpr char kLimitsRefused[] = "RLauncher limits could not be set\n";
constexpr double kDelay = 3;  // the default fail_delay

bool HasCapability(int bit) {
  const std::string status = FileBytes("/proc/self/status");
  const size_t at = status.find("CapEff:");
  if (at == std::string::npos) return false;
  const unsigned long long set =
      std::strtoull(status.c_str() + at + 7, nullptr, 16);
  return ((set >> bit) & 1) != 0;
}

class LauncherAttackTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string reason;
    account_ = LauncherAccount(&reason);
    if (account_ == nullptr) GTEST_SKIP() << reason;
    launcher_ = SetuidLauncherCopy(dir_);
    ASSERT_NE(launcher_, "");
  }
  void TearDown() override {
    qvehost::SetLauncherConfig("");
    std::filesystem::remove_all(dir_);
    unlink(RecordOf(StrangerUid()).c_str());
    EXPECT_EQ(ProcessesOf(account_ != nullptr ? account_->uid : 0),
              std::vector<int>{});
  }

  LaunchAttempt As(uid_t caller, const std::string& password, Strings argv,
                   const std::string& user = {}) const {
    LaunchAttempt a;
    a.launcher = launcher_;
    a.caller = caller;
    a.user = user.empty() ? account_->name : user;
    a.password = password;
    a.argv = std::move(argv);
    return a;
  }

  // Through the host with the build's launcher: its text, then the output.
  std::string HostRun(Strings argv) {
    qvefet_Context* context = qvehost::NewContext();
    const Finished f = RunToEnd(context, std::move(argv), account_->name,
                                account_->password);
    qvehost::DeleteContext(context);
    return f.started ? f.text + "|" + f.out : "";
  }

  const TestAccount* account_ = nullptr;
  const std::string dir_ = "/tmp/qvel-attack-" + std::to_string(getpid());
  std::string launcher_;
};

// The README's scenario in a terminal: the caller's controlling terminal is
// a pty, the user's command opens /dev/tty, pushes a line into it (TIOCSTI)
// and would take its foreground (TIOCSPGRP). It leads a session of its own
// with no terminal, so each fails, and nothing waits to be read on the pty.
TEST_F(LauncherAttackTest, CommandReachesNoTerminalOfTheCaller) {
  const std::string perl =
      "my ($c, $g) = ('i', pack('i', $$));"
      "if (open(my $t, '+<', '/dev/tty')) {"
      "  print ioctl($t, 0x5412, $c) ? \"pushed\\n\" : \"push: $!\\n\";"
      "  print ioctl($t, 0x5410, $g) ? \"foreground\\n\" : \"\";"
      "} else { print \"tty: $!\\n\" }"
      "print ioctl(STDIN, 0x5412, $c) ? \"pushed on 0\\n\" : \"0: $!\\n\";";
  const std::string script =
      "set -- $(cat /proc/$$/stat); [ \"$6\" = $$ ] && echo own session; "
      "echo tty $7; exec perl -e \"$0\"";
  const std::string report = InChild([&] {
    // A command that took the terminal could stop the run: end it instead.
    alarm(30);
    const int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0 ||
        setsid() < 0) {
      return std::string("no pty");
    }
    const int terminal = open(ptsname(master), O_RDWR | O_CLOEXEC);
    if (terminal < 0 || ioctl(terminal, TIOCSCTTY, 0) != 0) {
      return std::string("no controlling terminal");
    }
    std::string result = HostRun({"sh", "-c", script, perl});
    fcntl(terminal, F_SETFL, O_NONBLOCK);
    char pushed[16];
    if (read(terminal, pushed, sizeof pushed) > 0) result += "|line pushed";
    return result;
  });
  EXPECT_EQ(report,
            "|own session\ntty 0\ntty: No such device or address\n"
            "0: Inappropriate ioctl for device\n");
}

// Whatever the reason, a caller other than root learns only that it failed,
// and only when the delay is over; root learns why, at once.
TEST_F(LauncherAttackTest, EveryFailureAnswersAlikeToCallersButRoot) {
  const std::string& name = account_->name;
  const std::string right = account_->password;
  const struct {
    std::string setup, undo, user, password, root_text;
  } cases[] = {
      {"", "", "qvel-nobody-here", right,
       "Authentication failed: unknown user"},
      {"", "", name, "not-" + right, "Authentication failed: wrong password"},
      {"chage -d 0 " + name, "chage -d \"$(date +%F)\" " + name, name, right,
       "Password expired"},
      {"chage -E 0 " + name, "chage -E -1 " + name, name, right,
       "Account expired or not permitted"},
      {"usermod -s /usr/sbin/nologin " + name, "usermod -s /bin/sh " + name,
       name, right, "Login shell not permitted"},
      {"", "", "root", right, "Running commands as root is not permitted"},
  };
  for (const auto& c : cases) {
    if (!c.setup.empty()) {
      ASSERT_TRUE(Shell(c.setup)) << c.setup;
    }
    const LaunchOutcome root = Attempt(As(0, c.password, {"id"}, c.user));
    EXPECT_EQ(root.Tuple(), Seen("R" + c.root_text + "\n", "",
                                           Refused()));
    const LaunchOutcome stranger =
        Attempt(As(StrangerUid(), c.password, {"id"}, c.user));
    EXPECT_EQ(stranger.Tuple(), Seen(kFailed, "", Refused()))
        << c.root_text;
    EXPECT_GE(stranger.seconds, kDelay) << c.root_text;
    if (!c.undo.empty()) {
      ASSERT_TRUE(Shell(c.undo)) << c.undo;
    }
  }
  EXPECT_EQ(Attempt(As(StrangerUid(), right, {"id", "-un"})).Tuple(),
            Seen("", name + "\n", 0));
}

// A guesser that kills the launcher 150 ms into a wrong try gains nothing:
// the next try, right or wrong, first pays what the killed one owed.
TEST_F(LauncherAttackTest, KilledGuesserStillPaysTheDelay) {
  const struct {
    std::string password;
    Seen want;
    double least_seconds;  // from the killed try's start
  } cases[] = {
      {"not-" + account_->password, {kFailed, "", Refused()}, 2 * kDelay},
      {account_->password, {"", account_->name + "\n", 0}, kDelay},
  };
  for (const auto& c : cases) {
    LaunchAttempt killed = As(StrangerUid(), "wrong", {"id", "-un"});
    killed.kill_after_ms = 150;
    const LaunchOutcome first = Attempt(killed);
    EXPECT_EQ(first.Tuple(), Seen("", "", SIGKILL));
    const LaunchOutcome next =
        Attempt(As(StrangerUid(), c.password, {"id", "-un"}));
    EXPECT_EQ(next.Tuple(), c.want);
    EXPECT_GE(first.seconds + next.seconds, c.least_seconds) << c.password;
  }
}

// Tries of one caller started together take turns: the second answers a
// whole delay after the first. Timed from before either starts: a thread
// that starts late would time its own wait short.
TEST_F(LauncherAttackTest, ParallelTriesOfOneCallerTakeTurns) {
  LaunchOutcome outcomes[2];
  const auto start = std::chrono::steady_clock::now();
  {
    std::thread other([&] {
      outcomes[1] = Attempt(As(StrangerUid(), "wrong-1", {"id"}));
    });
    outcomes[0] = Attempt(As(StrangerUid(), "wrong-0", {"id"}));
    other.join();
  }
  const std::chrono::duration<double> both =
      std::chrono::steady_clock::now() - start;
  for (const LaunchOutcome& outcome : outcomes) {
    EXPECT_EQ(outcome.Tuple(), Seen(kFailed, "", Refused()));
  }
  EXPECT_GE(both.count(), 2 * kDelay);
}

// Only shells of /etc/shells, unless the settings allow the others.
TEST_F(LauncherAttackTest, LoginShellMustBeListedUnlessAllowed) {
  ASSERT_TRUE(Shell("usermod -s /usr/sbin/nologin " + account_->name));
  const std::string config = dir_ + "/launch.conf";
  const std::pair<std::string, std::string> cases[] = {
      {"", "Login shell not permitted|"},
      {"allow_nologin = no\n", "Login shell not permitted|"},
      {"allow_nologin = yes\n", "|" + account_->name + "\n"},
      {"allow_nologin = maybe\n", "Launcher configuration is not valid|"},
  };
  for (const auto& [settings, want] : cases) {
    std::ofstream(config) << settings;
    qvehost::SetLauncherConfig(config);
    EXPECT_EQ(HostRun({"id", "-un"}), want) << settings;
  }
  Shell("usermod -s /bin/sh " + account_->name);
}

// The session opens before the command, with the user's limits
// (pam_limits), and closes after it as root; a session PAM refuses runs
// nothing. A pam_exec line records each step.
TEST_F(LauncherAttackTest, SessionOpensAndClosesAroundTheCommand) {
  const std::string pam_dir = dir_ + "/pam";
  const std::string log = dir_ + "/session.log";
  std::filesystem::create_directory(pam_dir);
  std::filesystem::copy_file(LauncherShareFile("fetchlet-launch-other.pam"),
                             pam_dir + "/other");
  std::ofstream(dir_ + "/record")
      << "#!/bin/sh\necho \"$PAM_TYPE $PAM_USER $(id -u)\" >> " << log << "\n";
  chmod((dir_ + "/record").c_str(), 0755);
  std::ofstream(dir_ + "/limits.conf") << account_->name << " - nofile 77\n";
  std::ofstream(dir_ + "/launch.conf")
      << "service = session\npam_dir = " << pam_dir << "\n";
  const std::string checks =
      "auth required pam_unix.so\naccount required pam_unix.so\n";
  const std::string& name = account_->name;
  const struct {
    std::string session, want, log;
  } cases[] = {
      {"session required pam_limits.so conf=" + dir_ +
           "/limits.conf\nsession required pam_exec.so " + dir_ + "/record\n",
       "|77\nopen_session " + name + " 0\n",
       "open_session " + name + " 0\nclose_session " + name + " 0\n"},
      {"session required pam_deny.so\n",
       "Unable to open a session for the user|", ""},
  };
  qvehost::SetLauncherConfig(dir_ + "/launch.conf");
  for (const auto& c : cases) {
    std::ofstream(pam_dir + "/session") << checks << c.session;
    std::filesystem::remove(log);
    EXPECT_EQ(HostRun({"sh", "-c", "ulimit -n; cat " + log}), c.want);
    EXPECT_EQ(FileBytes(log), c.log);
  }
}

// The user's limits (limits.d, through pam_limits) apply to the command,
// not the caller's that the launcher puts back before the session; a hard
// limit the launcher cannot lift for itself (without CAP_SYS_RESOURCE, or
// with no new privileges) refuses the run before anything is recorded or
// PAM runs. The shell reports 512-byte blocks for a size in KiB.
TEST_F(LauncherAttackTest, UserLimitsApplyAndCallerLimitsFailTheRunFirst) {
  const std::string user_limits =
      "/etc/security/limits.d/qvel-" + std::to_string(getpid()) + ".conf";
  std::ofstream(user_limits) << account_->name << " - nofile 77\n"
                             << account_->name << " - fsize 4096\n";
  const rlim_t mib = rlim_t{1} << 20;
  const rlim_t stack = 64 << 10;
  const Seen refused{kLimitsRefused, "", Refused()};
  const struct {
    std::pair<int, rlimit> limit;
    bool no_new_privs;
    Seen want;
  } cases[] = {
      {{RLIMIT_FSIZE, {mib, RLIM_INFINITY}}, false,
       {"", "77\n8192\n", 0}},
      {{RLIMIT_STACK, {stack, stack}}, false,
       HasCapability(24) ? Seen{"", "77\n8192\n", 0}
                         : refused},
      {{RLIMIT_FSIZE, {mib, mib}}, true, refused},
  };
  for (const auto& c : cases) {
    LaunchAttempt a = As(StrangerUid(), account_->password,
                         {"sh", "-c", "ulimit -n; ulimit -f"});
    a.limits = {c.limit};
    a.no_new_privs = c.no_new_privs;
    unlink(RecordOf(StrangerUid()).c_str());
    EXPECT_EQ(Attempt(a).Tuple(), c.want) << c.limit.first;
    if (std::get<0>(c.want) == kLimitsRefused) {
      EXPECT_FALSE(std::filesystem::exists(RecordOf(StrangerUid())));
    }
  }
  unlink(user_limits.c_str());
}

}  // namespace
}  // namespace qvetest
