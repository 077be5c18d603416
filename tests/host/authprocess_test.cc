// The authenticated process family with the real launcher, as root with a
// throw-away account.
#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/test_account.h"
#include "qve/embedded.h"
#include "qve/host.h"

namespace qvetest {
namespace {

constexpr char kWrongPassword[] = "Authentication failed: wrong password";
constexpr char kUnknownUser[] = "Authentication failed: unknown user";

// Everything a started command gave back, read to its end.
struct Finished {
  int32_t run = -1;
  std::string text;  // the launcher's
  std::string out;
  std::string err;
  int32_t exit = -1;
};

std::vector<char*> Pointers(std::vector<std::string>& strings) {
  std::vector<char*> pointers;
  pointers.reserve(strings.size() + 1);
  for (std::string& s : strings) pointers.push_back(s.data());
  pointers.push_back(nullptr);
  return pointers;
}

std::string ReadToEnd(qvejcap_Process* process, bool errors) {
  std::string text;
  char buffer[8208];
  for (;;) {
    const int32_t n =
        errors ? qvejcap_Process_command_stderr_read(process, buffer, 8207)
               : qvejcap_Process_stdout_read(process, buffer, 8207);
    if (n <= 0) return text;
    text.append(buffer, static_cast<size_t>(n));
  }
}

class AuthProcessTest : public testing::Test {
 protected:
  void SetUp() override {
    const std::string reason = LauncherSkipReason();
    if (!reason.empty()) GTEST_SKIP() << reason;
    account_ = AccountStore::Get().Shared();
    if (account_ == nullptr) GTEST_SKIP() << "cannot make a test account";
  }
  ~AuthProcessTest() override {
    qvehost::SetLauncherPath("");
    qvehost::DeleteContext(context_);
  }

  qvejcap_Process* New(std::vector<std::string> argv,
                       const std::string& user, const std::string& password,
                       std::vector<std::string>* env = nullptr) {
    std::vector<char*> args = Pointers(argv);
    std::vector<char*> envs;
    if (env != nullptr) envs = Pointers(*env);
    return qvejcap_Process_new(
        context_, args.data(), static_cast<int32_t>(argv.size()),
        env != nullptr ? envs.data() : nullptr,
        env != nullptr ? static_cast<int32_t>(env->size()) : 0, 0,
        user.c_str(), password.c_str(), nullptr);
  }

  Finished RunToEnd(std::vector<std::string> argv, const std::string& user,
                    const std::string& password, const std::string& input = {},
                    std::vector<std::string>* env = nullptr) {
    qvejcap_Process* process = New(std::move(argv), user, password, env);
    Finished f;
    f.run = qvejcap_Process_run(process);
    char text[8208] = {'?'};
    qvejcap_Process_qvo_stderr_read(process, text, 0, 0);
    f.text = text;
    if (!input.empty()) {
      qvejcap_Process_stdin_write(process, input.data(),
                                  static_cast<uint32_t>(input.size()));
    }
    qvejcap_Process_stdin_close(process);
    if (f.run == 0) {
      f.out = ReadToEnd(process, false);
      f.err = ReadToEnd(process, true);
      qvejcap_Process_blocking_wait(process);
      qvejcap_Process_getExitValue(process, &f.exit);
    }
    qvejcap_Process_delete(process);
    return f;
  }

  const TestAccount* account_ = nullptr;
  qvefet_Context* context_ = qvehost::NewContext();
};

struct VerdictCase {
  const char* name;
  const char* user;  // null: the test account
  bool right_password;
  std::vector<std::string> argv;
  int32_t run;
  const char* text;
  int32_t exit;
};

class AuthVerdictTest : public AuthProcessTest,
                        public testing::WithParamInterface<VerdictCase> {};

TEST_P(AuthVerdictTest, StartsTheCommandOrSaysWhyNot) {
  const VerdictCase& c = GetParam();
  const std::string user = c.user != nullptr ? c.user : account_->name;
  const std::string password =
      c.right_password ? account_->password : "not-" + account_->password;
  const Finished f = RunToEnd(c.argv, user, password, "input\n");
  EXPECT_EQ(f.run == 0, c.run == 0);
  EXPECT_EQ(f.text, c.text);
  if (c.run == 0) {
    EXPECT_EQ(f.exit, c.exit);
  }
  // A refused start runs nothing: no output at all.
  if (*c.text != '\0') {
    EXPECT_EQ(f.out + f.err, "");
  }
  EXPECT_EQ(ProcessesOf(account_->uid), std::vector<int>{});
}

INSTANTIATE_TEST_SUITE_P(
    Launcher, AuthVerdictTest,
    testing::Values(
        VerdictCase{"Executed", nullptr, true, {"/bin/cat"}, 0, "", 0},
        VerdictCase{"ExitStatusPassedOn", nullptr, true,
                    {"sh", "-c", "exit 3"}, 0, "", 3},
        VerdictCase{"WrongPassword", nullptr, false, {"/bin/true"}, 0,
                    kWrongPassword, 125},
        VerdictCase{"UnknownUser", "qvel-nobody-here", true, {"/bin/true"}, 0,
                    kUnknownUser, 125},
        VerdictCase{"RootRefused", "root", true, {"/bin/true"}, 0,
                    "Running commands as root is not permitted", 125},
        VerdictCase{"CommandMissing", nullptr, true, {"/no/such/command"}, -1,
                    "Command not found", 0},
        VerdictCase{"CommandNotExecutable", nullptr, true, {"/etc/passwd"}, -1,
                    "Command not executable", 0}),
    [](const auto& param) { return std::string(param.param.name); });

TEST_F(AuthProcessTest, CommandRunsAsTheUserInItsHome) {
  const std::string dir = "/tmp/qvel-files-" + std::to_string(getpid());
  std::filesystem::create_directory(dir);
  chmod(dir.c_str(), 01777);
  // exec: the shell blocks signals for a moment whenever it forks.
  const Finished f = RunToEnd(
      {"sh", "-c", "id -un; pwd; touch " + dir + "/made; ls /proc/$$/fd; "
                   "exec grep -E '^Sig(Blk|Ign)' /proc/$$/status"},
      account_->name, account_->password);
  EXPECT_EQ(f.out, account_->name + "\n" + account_->home +
                       "\n0\n1\n2\nSigBlk:\t0000000000000000\n"
                       "SigIgn:\t0000000000000000\n");
  struct stat made;
  ASSERT_EQ(stat((dir + "/made").c_str(), &made), 0);
  EXPECT_EQ(made.st_uid, account_->uid);
  EXPECT_EQ(made.st_gid, account_->gid);
  std::filesystem::remove_all(dir);
}

TEST_F(AuthProcessTest, ScriptWithoutInterpreterLineRunsThroughTheShell) {
  const std::string script = "/tmp/qvel-script-" + std::to_string(getpid());
  std::ofstream(script) << "echo \"$0 ran\"\n";
  chmod(script.c_str(), 0755);
  const Finished f = RunToEnd({script}, account_->name, account_->password);
  EXPECT_EQ(f.out, script + " ran\n");
  std::filesystem::remove(script);
}

TEST_F(AuthProcessTest, EnvironmentIsTheGivenOneCompletedByLoginVariables) {
  setenv("QVEL_HOST_ONLY", "1", 1);
  const std::string login = "USER=" + account_->name + "\nLOGNAME=" +
                            account_->name + "\nSHELL=/bin/sh\n";
  Finished f = RunToEnd({"/usr/bin/env"}, account_->name, account_->password);
  EXPECT_EQ(f.out, "HOME=" + account_->home + "\n" + login +
                       "PATH=/usr/local/bin:/usr/bin:/bin\n");
  std::vector<std::string> env{"A=1", "HOME=/elsewhere", "PATH=/bin"};
  f = RunToEnd({"env"}, account_->name, account_->password, {}, &env);
  EXPECT_EQ(f.out, "A=1\nHOME=/elsewhere\nPATH=/bin\n" + login);
  unsetenv("QVEL_HOST_ONLY");
}

TEST_F(AuthProcessTest, KillEndsTheCommandAndEverythingItStarted) {
  for (const bool kill : {true, false}) {
    SCOPED_TRACE(kill ? "kill" : "delete");
    qvejcap_Process* process =
        New({"sh", "-c", "sleep 60 & sleep 60; echo never"}, account_->name,
            account_->password);
    ASSERT_EQ(qvejcap_Process_run(process), 0);
    qvejcap_Process_stdin_close(process);
    if (kill) {
      qvejcap_Process_kill(process);
      int32_t exit = 0;
      qvejcap_Process_getExitValue(process, &exit);
      EXPECT_EQ(exit, 128 + SIGKILL);
    }
    qvejcap_Process_delete(process);
    EXPECT_EQ(ProcessesOf(account_->uid), std::vector<int>{});
  }
}

TEST_F(AuthProcessTest, PasswordShowsInNoProcess) {
  qvejcap_Process* process =
      New({"sleep", "60"}, account_->name, account_->password);
  ASSERT_EQ(qvejcap_Process_run(process), 0);
  // The launcher waits for the command, which sleeps: both are alive.
  EXPECT_EQ(ProcessesShowing(account_->password), std::vector<int>{});
  qvejcap_Process_kill(process);
  qvejcap_Process_delete(process);
}

TEST_F(AuthProcessTest, ExpiredAccountIsRefused) {
  ASSERT_TRUE(Shell("chage -E 0 " + account_->name));
  const Finished f =
      RunToEnd({"/bin/true"}, account_->name, account_->password);
  Shell("chage -E -1 " + account_->name);
  EXPECT_EQ(f.run, 0);
  EXPECT_EQ(f.text, "Account expired or not permitted");
  EXPECT_NE(f.exit, 0);
}

TEST_F(AuthProcessTest, UnprivilegedLauncherTakesTheSettingsItIsGiven) {
  const std::string pid = std::to_string(getpid());
  const std::string config = "/tmp/qvel-conf-" + pid;
  // A PAM directory of the test's own: its service permits any password,
  // and its fallback service denies everything.
  const std::string pam_dir = "/tmp/qvel-pam-" + pid;
  std::filesystem::create_directory(pam_dir);
  std::filesystem::copy_file(LauncherShareFile("fetchlet-launch-permit.pam"),
                             pam_dir + "/permit");
  std::ofstream(pam_dir + "/other") << "auth required pam_deny.so\n"
                                       "account required pam_deny.so\n";
  struct Case {
    std::string settings;
    std::string user;
    const char* text;
  } cases[] = {
      {"allow_root = yes\n", "root", kWrongPassword},
      {"allow_root = maybe\n", "root", "Launcher configuration is not valid"},
      {"# any password\nservice = permit\npam_dir = " + pam_dir + "\n",
       account_->name, ""},
      {"service = permit\npam_dir = relative/dir\n", account_->name,
       "Launcher configuration is not valid"},
      {"service = permit\npam_dir = " + pam_dir + "/permit\n",
       account_->name, "Launcher configuration is not valid"}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.settings);
    std::ofstream(config) << c.settings;
    setenv("FETCHLET_LAUNCH_CONFIG", config.c_str(), 1);
    const Finished f = RunToEnd({"/bin/true"}, c.user, "not-the-password");
    unsetenv("FETCHLET_LAUNCH_CONFIG");
    EXPECT_EQ(f.text, c.text);
  }
  std::filesystem::remove_all(pam_dir);
  std::filesystem::remove(config);
}

// Runs work in a child process that has become nobody; returns its report.
std::string RunAsNobody(const std::function<std::string()>& work) {
  int result[2];
  if (pipe(result) != 0) return "no pipe";
  const pid_t pid = fork();
  if (pid == 0) {
    close(result[0]);
    constexpr uid_t kNobody = 65534;
    std::string report = "cannot become nobody";
    if (setgroups(0, nullptr) == 0 &&
        setresgid(kNobody, kNobody, kNobody) == 0 &&
        setresuid(kNobody, kNobody, kNobody) == 0) {
      report = work();
    }
    const ssize_t written = write(result[1], report.data(), report.size());
    _exit(written == static_cast<ssize_t>(report.size()) ? 0 : 1);
  }
  close(result[1]);
  std::string report;
  char chunk[256];
  ssize_t n;
  while ((n = read(result[0], chunk, sizeof chunk)) > 0) {
    report.append(chunk, static_cast<size_t>(n));
  }
  close(result[0]);
  waitpid(pid, nullptr, 0);
  return report;
}

TEST_F(AuthProcessTest, UnprivilegedHostUsesASetuidLauncher) {
  const std::string dir = "/tmp/qvel-setuid-" + std::to_string(getpid());
  const std::string launcher = dir + "/fetchlet-launch";
  const std::string ignored = dir + "/ignored.conf";
  std::filesystem::create_directory(dir);
  chmod(dir.c_str(), 0755);
  std::filesystem::copy_file(qvehost::LauncherPath(), launcher);
  ASSERT_EQ(chown(launcher.c_str(), 0, 0), 0);
  ASSERT_EQ(chmod(launcher.c_str(), 04755), 0);
  // A privileged launcher must not take settings from its caller.
  std::ofstream(ignored) << "allow_root = maybe\n";
  const std::string report = RunAsNobody([&] {
    qvehost::SetLauncherPath(launcher);
    setenv("FETCHLET_LAUNCH_CONFIG", ignored.c_str(), 1);
    const Finished f =
        RunToEnd({"id", "-un"}, account_->name, account_->password);
    const Finished refused = RunToEnd({"id"}, account_->name, "wrong");
    qvejcap_Process* sleeper =
        New({"sleep", "60"}, account_->name, account_->password);
    int32_t killed = -1;
    if (qvejcap_Process_run(sleeper) == 0) {
      qvejcap_Process_kill(sleeper);
      qvejcap_Process_getExitValue(sleeper, &killed);
    }
    qvejcap_Process_delete(sleeper);
    return f.out + "|" + f.text + "|" + refused.text + "|" +
           std::to_string(killed);
  });
  EXPECT_EQ(report, account_->name + "\n||" + kWrongPassword + "|" +
                        std::to_string(128 + SIGKILL));
  EXPECT_EQ(ProcessesOf(account_->uid), std::vector<int>{});
  std::filesystem::remove_all(dir);
}

TEST(AuthProcessStartTest, MissingLauncherFailsTheStart) {
  qvefet_Context* context = qvehost::NewContext();
  qvehost::SetLauncherPath("/no/such/fetchlet-launch");
  char program[] = "/bin/true";
  char* argv[] = {program, nullptr};
  qvejcap_Process* process = qvejcap_Process_new(context, argv, 1, nullptr, 0,
                                                 0, "user", "pw", nullptr);
  EXPECT_NE(qvejcap_Process_run(process), 0);
  char text[8208] = {'?'};
  EXPECT_EQ(qvejcap_Process_qvo_stderr_read(process, text, 0, 0), 0);
  EXPECT_STREQ(text, "");
  qvejcap_Process_delete(process);
  qvehost::SetLauncherPath("");
  qvehost::DeleteContext(context);
}

}  // namespace
}  // namespace qvetest
