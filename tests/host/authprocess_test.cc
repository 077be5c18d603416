// The authenticated process family with the real launcher, as root with a
// throw-away account: what the plug-in's runner does not check.
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <tuple>
#include <vector>

#include "common/test_account.h"
#include "host/launcher_support.h"
#include "qve/embedded.h"
#include "qve/host.h"

namespace qvetest {
namespace {

constexpr char kWrongPassword[] = "Authentication failed: wrong password";
constexpr char kBadConfig[] = "Launcher configuration is not valid";

class AuthProcessTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string reason;
    account_ = LauncherAccount(&reason);
    if (account_ == nullptr) GTEST_SKIP() << reason;
  }
  ~AuthProcessTest() override {
    qvehost::SetLauncherPath("");
    qvehost::DeleteContext(context_);
  }

  // user empty: the test account.
  Finished RunToEnd(Strings argv, const std::string& password,
                    Strings* env = nullptr, const std::string& user = {}) {
    return qvetest::RunToEnd(context_, std::move(argv),
                             user.empty() ? account_->name : user, password,
                             env);
  }

  const TestAccount* account_ = nullptr;
  qvefet_Context* context_ = qvehost::NewContext();
};

// A refusal is the launcher's exact text and its status 125, and runs
// nothing (its other refusals: LauncherAttackTest); a command it could not
// execute fails the start.
TEST_F(AuthProcessTest, StartsTheCommandOrSaysWhyNot) {
  const std::string right = account_->password;
  const std::tuple<Strings, std::string, Finished> cases[] = {
      {{"sh", "-c", "exit 3"}, right, {true, "", "", 3}},
      {{"/bin/true"}, "not-" + right, {true, kWrongPassword, "", 125}},
      {{"/no/such/command"}, right, {false, "Command not found", "", -1}},
      {{"/etc/passwd"}, right, {false, "Command not executable", "", -1}},
  };
  for (const auto& [argv, password, want] : cases) {
    EXPECT_EQ(RunToEnd(argv, password).Tuple(), want.Tuple()) << want.text;
  }
  EXPECT_EQ(ProcessesOf(account_->uid), std::vector<int>{});
}

// The script has no "#!": it runs through the shell. Its files belong to the
// user, and nothing of the host's signal state or descriptors reaches it.
TEST_F(AuthProcessTest, ScriptRunsAsTheUserInItsHome) {
  const std::string dir = "/tmp/qvel-files-" + std::to_string(getpid());
  std::filesystem::create_directory(dir);
  chmod(dir.c_str(), 01777);
  std::ofstream(dir + "/script")
      << "id -un; pwd; touch " + dir +
             "/made; exec sh -c 'ls /proc/$$/fd; "
             "exec grep -E \"^Sig(Blk|Ign)\" /proc/$$/status'\n";
  chmod((dir + "/script").c_str(), 0755);
  EXPECT_EQ(RunToEnd({dir + "/script"}, account_->password).out,
            account_->name + "\n" + account_->home +
                "\n0\n1\n2\nSigBlk:\t0000000000000000\n"
                "SigIgn:\t0000000000000000\n");
  struct stat made;
  ASSERT_EQ(stat((dir + "/made").c_str(), &made), 0);
  EXPECT_EQ(made.st_uid, account_->uid);
  EXPECT_EQ(made.st_gid, account_->gid);
  std::filesystem::remove_all(dir);
}

// Nothing of the host's environment: the given one, or a default PATH and
// HOME, completed by the login variables.
TEST_F(AuthProcessTest, EnvironmentIsTheGivenOneCompletedByLoginVariables) {
  setenv("QVEL_HOST_ONLY", "1", 1);
  const std::string login = "USER=" + account_->name +
                            "\nLOGNAME=" + account_->name + "\nSHELL=/bin/sh\n";
  EXPECT_EQ(RunToEnd({"/usr/bin/env"}, account_->password).out,
            "HOME=" + account_->home + "\n" + login +
                "PATH=/usr/local/bin:/usr/bin:/bin\n");
  Strings env{"A=1", "HOME=/elsewhere", "PATH=/bin"};
  EXPECT_EQ(RunToEnd({"env"}, account_->password, &env).out,
            "A=1\nHOME=/elsewhere\nPATH=/bin\n" + login);
  unsetenv("QVEL_HOST_ONLY");
}

// The launcher waits for the command: both are alive while the password is
// looked for. Deleting the running process ends everything it started.
TEST_F(AuthProcessTest, PasswordShowsInNoProcessAndDeleteEndsEverything) {
  qvejcap_Process* process = New(context_, {"sh", "-c", "sleep 60 & sleep 60"},
                                 account_->name, account_->password);
  ASSERT_EQ(qvejcap_Process_run(process), 0);
  EXPECT_EQ(ProcessesShowing(account_->password), std::vector<int>{});
  qvejcap_Process_delete(process);
  EXPECT_EQ(ProcessesOf(account_->uid), std::vector<int>{});
}

bool HasSleep(uid_t uid) {
  for (const int pid : ProcessesOf(uid)) {
    std::ifstream comm("/proc/" + std::to_string(pid) + "/comm");
    std::string name;
    if (std::getline(comm, name) && name == "sleep") return true;
  }
  return false;
}

// A descendant that left the command's session runs as the other user, out
// of the host's reach but for the run's cgroup, which the launcher starts in.
TEST_F(AuthProcessTest, EscapedDescendantOfTheUserEndsWithTheRun) {
  if (!qvehost::CgroupContainment()) {
    GTEST_SKIP() << "no writable cgroup v2 hierarchy: process groups only";
  }
  const std::string escape =
      "setsid sh -c 'exec sleep 100' </dev/null >/dev/null 2>&1 &";
  // At a normal end the command itself waits (boundedly) until the escaped
  // sleep runs, and says by its exit value whether it saw it.
  const std::string sleep_up = "pgrep -u \"$(id -u)\" -x sleep >/dev/null";
  const std::pair<const char*, std::string> endings[] = {
      {"time limit", escape + " exec sleep 100"},
      {"emergency stop", escape + " exec sleep 100"},
      {"normal end", escape + " i=0; until " + sleep_up +
                         " || [ $((i+=1)) -gt 2000 ]; do :; done; " + sleep_up},
  };
  for (const auto& [name, script] : endings) {
    qvejcap_Process* process = New(context_, {"sh", "-c", script},
                                   account_->name, account_->password);
    ASSERT_EQ(qvejcap_Process_run(process), 0) << name;
    if (std::string(name) != "normal end") {
      // The escaped sleep is up once the user has a process named so.
      for (int i = 0; i < 300 && !HasSleep(account_->uid); ++i) usleep(10000);
      ASSERT_TRUE(HasSleep(account_->uid)) << name;
    }
    if (std::string(name) == "time limit") qvejcap_Process_kill(process);
    if (std::string(name) == "emergency stop") qvehost::KillRunningCommands();
    qvejcap_Process_blocking_wait(process);
    if (std::string(name) == "normal end") {
      int32_t exit_value = -1;
      qvejcap_Process_getExitValue(process, &exit_value);
      EXPECT_EQ(exit_value, 0) << "the escaped sleep never ran";
    }
    qvejcap_Process_delete(process);
    // Bounded: the killed processes' new parent reaps them shortly.
    for (int i = 0; i < 500 && !ProcessesOf(account_->uid).empty(); ++i) {
      usleep(10000);
    }
    EXPECT_EQ(ProcessesOf(account_->uid), std::vector<int>{}) << name;
    EXPECT_EQ(qvehost::LiveRunCgroups(), 0u) << name;
  }
}

// An unprivileged launcher takes the settings file it is pointed at; its
// pam_dir must be an absolute directory.
TEST_F(AuthProcessTest, UnprivilegedLauncherTakesTheSettingsItIsGiven) {
  const std::string config = "/tmp/qvel-conf-" + std::to_string(getpid());
  const std::string pam_dir = "/tmp/qvel-pam-" + std::to_string(getpid());
  std::filesystem::create_directory(pam_dir);
  for (const char* service : {"permit", "other"}) {
    std::filesystem::copy_file(
        LauncherShareFile("fetchlet-launch-" + std::string(service) + ".pam"),
        pam_dir + "/" + service);
  }
  const std::string permit = "service = permit\npam_dir = ";
  const std::tuple<std::string, std::string, std::string> cases[] = {
      {"allow_root = yes\n", "root", kWrongPassword},  // not root's password
      {"allow_root = maybe\n", "root", kBadConfig},
      {permit + pam_dir + "\n", "", ""},  // any password
      {permit + "relative/dir\n", "", kBadConfig},
      {permit + pam_dir + "/permit\n", "", kBadConfig}};
  for (const auto& [settings, user, text] : cases) {
    std::ofstream(config) << settings;
    qvehost::SetLauncherConfig(config);
    EXPECT_EQ(RunToEnd({"/bin/true"}, "not-it", nullptr, user).text, text)
        << settings;
    qvehost::SetLauncherConfig("");
  }
  std::filesystem::remove_all(pam_dir);
  std::filesystem::remove(config);
}

// A set-user-ID launcher serves a host that has become nobody, and takes no
// settings from its caller, nor from root. The child reports a mismatch on
// its stderr.
TEST_F(AuthProcessTest, SetuidLauncherServesNobodyAndIgnoresGivenSettings) {
  const std::string dir = "/tmp/qvel-setuid-" + std::to_string(getpid());
  const std::string launcher = SetuidLauncherCopy(dir);
  ASSERT_NE(launcher, "");
  std::ofstream(dir + "/ignored.conf") << "allow_root = maybe\n";
  qvehost::SetLauncherConfig(dir + "/ignored.conf");
  qvehost::SetLauncherPath(launcher);
  EXPECT_EQ(RunToEnd({"id", "-un"}, account_->password).out,
            account_->name + "\n");
  const std::string report = AsNobody([&] {
    qvejcap_Process* sleeper =
        New(context_, {"sleep", "60"}, account_->name, account_->password);
    int32_t killed = -1;
    if (qvejcap_Process_run(sleeper) == 0) {
      qvejcap_Process_kill(sleeper);
      qvejcap_Process_getExitValue(sleeper, &killed);
    }
    qvejcap_Process_delete(sleeper);
    return RunToEnd({"id", "-un"}, account_->password).out + "|" +
           std::to_string(killed);
  });
  EXPECT_EQ(report, account_->name + "\n|" + std::to_string(128 + SIGKILL));
  qvehost::SetLauncherConfig("");
  EXPECT_EQ(ProcessesOf(account_->uid), std::vector<int>{});
  std::filesystem::remove_all(dir);
}

// The program's emergency stop signals the launcher and exits at once; the
// launcher must end the command on its own, SIGKILL coming after the grace
// for one that ignores SIGTERM. A launcher killed outright takes its command
// with it. The host runs in a child that leaves at once, its parent (a
// subreaper, as init would be) reaps what is orphaned.
TEST_F(AuthProcessTest, EmergencyStopLeavesNothingOfTheCommand) {
  // Each says when it is ready to be stopped.
  const struct {
    std::string script;
    bool kill_launcher;
  } cases[] = {
      {"echo; exec sleep 60", false},
      {"trap '' TERM; sleep 60 & echo; sleep 60", false},
      {"echo; exec sleep 60", true},
  };
  for (const auto& c : cases) {
    const std::string left = InChild([&] {
      prctl(PR_SET_CHILD_SUBREAPER, 1);
      const pid_t host = fork();
      if (host == 0) {
        qvejcap_Process* process = New(context_, {"sh", "-c", c.script},
                                       account_->name, account_->password);
        char ready[8];
        if (qvejcap_Process_run(process) != 0 ||
            qvejcap_Process_stdout_read(process, ready, sizeof ready) <= 0) {
          _exit(1);
        }
        if (c.kill_launcher) {
          // The launcher is the host's only child.
          const std::string self = std::to_string(getpid());
          kill(std::atoi(FileBytes("/proc/" + self + "/task/" + self +
                                   "/children").c_str()),
               SIGKILL);
        } else {
          qvehost::KillRunningCommands();
        }
        _exit(0);
      }
      return WaitUntilNoneLeft(host, account_->uid);
    });
    EXPECT_EQ(left, "") << c.script;
  }
  EXPECT_EQ(ProcessesOf(account_->uid), std::vector<int>{});
}

TEST(AuthProcessStartTest, MissingLauncherFailsTheStartWithoutText) {
  qvefet_Context* context = qvehost::NewContext();
  qvehost::SetLauncherPath("/no/such/fetchlet-launch");
  qvejcap_Process* process = New(context, {"/bin/true"}, "user", "pw");
  EXPECT_NE(qvejcap_Process_run(process), 0);
  char text[QVE_LAUNCHER_TEXT_BUFFER] = {'?'};
  EXPECT_EQ(qvejcap_Process_qvo_stderr_read(process, text, 0, 0), 0);
  EXPECT_STREQ(text, "");
  qvejcap_Process_delete(process);
  qvehost::SetLauncherPath("");
  qvehost::DeleteContext(context);
}

}  // namespace
}  // namespace qvetest
