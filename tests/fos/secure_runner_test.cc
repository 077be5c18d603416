// The authenticated runner with the real launcher, as root with a
// throw-away account.
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/test_account.h"
#include "fos/run_support.h"
#include "qve/embedded.h"

namespace qvetest {
namespace {

using Text = std::optional<std::string>;

constexpr char kUser[] = "{user}";

class SecureRunnerTest : public testing::Test {
 protected:
  void SetUp() override {
    BecomeSubreaper();
    const std::string reason = LauncherSkipReason();
    if (!reason.empty()) GTEST_SKIP() << reason;
    account_ = AccountStore::Get().Shared();
    if (account_ == nullptr) GTEST_SKIP() << "cannot make a test account";
  }
  ~SecureRunnerTest() override { qvehost::DeleteContext(context_); }

  // Nothing of a run, the user's or the host's, may outlive it.
  void ExpectNothingLeft() const {
    EXPECT_EQ(ChildPids(), std::vector<int>{});
    EXPECT_EQ(ProcessesOf(account_->uid), std::vector<int>{});
  }

  // The text with {user} standing for the account's name.
  std::string Named(const std::string& text) const {
    std::string named = text;
    if (const size_t at = named.find(kUser); at != std::string::npos) {
      named.replace(at, sizeof kUser - 1, account_->name);
    }
    return named;
  }

  const TestAccount* account_ = nullptr;
  qvefet_Context* context_ = qvehost::NewContext();
};

struct SecureCase {
  const char* name;
  const char* user;  // null: the test account
  bool right_password;
  std::vector<std::string> args;
  RunOptions options;
  int32_t status;
  Text out;
  Text err;
  int32_t kind;
  const char* message;
};

class SecureOutcomeTest : public SecureRunnerTest,
                          public testing::WithParamInterface<SecureCase> {};

TEST_P(SecureOutcomeTest, HandsBackTextsOrTheException) {
  const SecureCase& c = GetParam();
  const std::string user = c.user != nullptr ? c.user : account_->name;
  const std::string password =
      c.right_password ? account_->password : "x" + account_->password;
  const RunOutcome r = RunSecure(context_, c.args, user, password, c.options);
  EXPECT_EQ(r.status, c.status);
  EXPECT_EQ(r.out, c.out ? Text(Named(*c.out)) : std::nullopt);
  EXPECT_EQ(r.err, c.err);
  EXPECT_EQ(r.kind, c.kind);
  EXPECT_EQ(r.message, c.message);
  ExpectNothingLeft();
}

RunOptions Input(std::string text) {
  RunOptions o;
  o.stdinText = std::move(text);
  return o;
}
RunOptions Separate() {
  RunOptions o;
  o.separateErrorStream = 1;
  return o;
}
RunOptions Env(std::vector<std::string> env) {
  RunOptions o;
  o.env = std::move(env);
  return o;
}

const std::vector<std::string> kFailing = {
    "sh", "-c", "echo out; echo err >&2; exit 1"};

INSTANTIATE_TEST_SUITE_P(
    Launcher, SecureOutcomeTest,
    testing::Values(
        SecureCase{"RunsAsTheUser", nullptr, true, {"id", "-un"}, {}, 0,
                   "{user}\n", std::nullopt, 0, ""},
        SecureCase{"FeedsStandardInput", nullptr, true, {"cat"},
                   Input("STDIN=1\n"), 0, "STDIN=1\n", std::nullopt, 0, ""},
        SecureCase{"GivesTheEnvironment", nullptr, true,
                   {"sh", "-c", "echo $A $USER"}, Env({"A=1"}), 0,
                   "1 {user}\n", std::nullopt, 0, ""},
        SecureCase{"StandardErrorAloneSucceeds", nullptr, true,
                   {"sh", "-c", "echo err >&2"}, {}, 0, std::nullopt, "err\n",
                   0, ""},
        // The launcher's text, then one space, then the command's standard
        // error, which a refused start never has.
        SecureCase{"WrongPassword", nullptr, false, {"cat"}, Input("STDIN=1\n"),
                   -1, std::nullopt, std::nullopt, QVE_EXC_RUN_FAILED,
                   "Authentication failed: wrong password "},
        SecureCase{"UnknownUser", "qvel-nobody-here", true, {"/bin/true"}, {},
                   -1, std::nullopt, std::nullopt, QVE_EXC_RUN_FAILED,
                   "Authentication failed: unknown user "},
        SecureCase{"CommandNotExecutable", nullptr, true, {"/no/such/command"},
                   Input("STDIN=1\n"), -1, std::nullopt, std::nullopt,
                   QVE_EXC_RUN_FAILED, "Unable to run the process"},
        SecureCase{"FailedExitJoinsTheTexts", nullptr, true, kFailing, {}, -1,
                   std::nullopt, std::nullopt, QVE_EXC_RUN_FAILED,
                   "out\nerr\n"},
        SecureCase{"FailedExitKeepsErrorsApart", nullptr, true, kFailing,
                   Separate(), -1, std::nullopt, std::nullopt,
                   QVE_EXC_RUN_FAILED, "err\n"}),
    [](const testing::TestParamInfo<SecureCase>& param) {
      return std::string(param.param.name);
    });

TEST_F(SecureRunnerTest, TimeOutKillsAndReapsEverythingOfTheUser) {
  RunOptions options;
  options.timeoutSeconds = 1;
  const RunOutcome r =
      RunSecure(context_, {"sh", "-c", "sleep 60 & sleep 60"}, account_->name,
                account_->password, options);
  EXPECT_EQ(r.status, -1);
  EXPECT_EQ(r.kind, QVE_EXC_TIMEOUT);
  EXPECT_EQ(r.message, "Metric execution timed out in 1 seconds");
  ExpectNothingLeft();
}

TEST_F(SecureRunnerTest, PasswordIsInNoLogLine) {
  qvehost::LogCapture capture;
  RunSecure(context_, kFailing, account_->name, account_->password);
  RunSecure(context_, {"/bin/true"}, account_->name, "x" + account_->password);
  RunSecure(context_, {"/no/such/command"}, account_->name,
            account_->password);
  const std::vector<qvehost::LogRecord> records = capture.Records();
  // The failed runs wrote their texts at error level.
  EXPECT_GE(capture.Texts(qvehost::LogLevel::kError).size(), 2u);
  for (const qvehost::LogRecord& record : records) {
    EXPECT_EQ(record.text.find(account_->password), std::string::npos)
        << record.text;
  }
}

}  // namespace
}  // namespace qvetest
