// The UDM fetchlet end to end: scripts run under a throw-away account
// through the real launcher (as root; skipped elsewhere).
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/test_account.h"
#include "fos/run_support.h"
#include "fosud/qvefosud_metric.h"
#include "fosud/udm_support.h"

namespace qvetest::udm {
namespace {

constexpr char kUser[] = "{user}";
constexpr char kId[] = "cpu_check";

class UdmRunTest : public testing::Test {
 protected:
  void SetUp() override {
    BecomeSubreaper();
    const std::string reason = LauncherSkipReason();
    if (!reason.empty()) GTEST_SKIP() << reason;
    account_ = AccountStore::Get().Shared();
    if (account_ == nullptr) GTEST_SKIP() << "cannot make a test account";
    char pattern[] = "/tmp/qveudm.XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
    chmod(dir_.c_str(), 0755);
  }
  ~UdmRunTest() override {
    if (!dir_.empty()) std::filesystem::remove_all(dir_);
    qvehost::DeleteContext(context_);
  }

  // A script the account can run; its path.
  std::string Script(const std::string& body) const {
    const std::string path = dir_ + "/check.sh";
    std::ofstream(path) << "#!/bin/sh\n" << body << "\n";
    chmod(path.c_str(), 0755);
    return path;
  }

  Json Evaluate(const std::string& body, const Properties& extra,
                const std::string& password) {
    Properties props = {{"command", Script(body)},
                        {"username", account_->name},
                        {"password", password},
                        {"ID", kId}};
    props.insert(props.end(), extra.begin(), extra.end());
    PropertyList list(props);
    qvefet_Fetchlet* fetchlet = nullptr;
    EXPECT_EQ(qvefosud_getFetchlet(context_, &fetchlet), 0);
    qvedrmr_MetricResult* result = nullptr;
    qveue_Exception* exception = nullptr;
    const int32_t status =
        qvefosud_getMetric(context_, list.get(), &result, &exception);
    qvefosud_freeFetchlet(fetchlet);
    return Outcome(status, result, exception);
  }

  // expected with {user} standing for the account's name.
  Json Named(const Json& expected) const {
    std::string text = expected.dump();
    for (size_t at = text.find(kUser); at != std::string::npos;
         at = text.find(kUser)) {
      text.replace(at, sizeof kUser - 1, account_->name);
    }
    return Json::parse(text);
  }

  // Nothing of a run, the user's or the host's, may outlive it.
  void ExpectNothingLeft() const {
    EXPECT_EQ(ChildPids(), std::vector<int>{});
    EXPECT_EQ(ProcessesOf(account_->uid), std::vector<int>{});
  }

  const TestAccount* account_ = nullptr;
  std::string dir_;
  qvefet_Context* context_ = qvehost::NewContext();
};

struct RunCase {
  const char* name;
  const char* body;
  Properties extra;
  bool rightPassword;
  int32_t version;
  Json expected;
};

class UdmRunCaseTest : public UdmRunTest,
                       public testing::WithParamInterface<RunCase> {};

TEST_P(UdmRunCaseTest, GivesTheRowOrTheFailure) {
  const RunCase& c = GetParam();
  const ServerVersion version(c.version);
  const std::string password =
      c.rightPassword ? account_->password : "x" + account_->password;
  EXPECT_EQ(Evaluate(c.body, c.extra, password), Named(c.expected));
  ExpectNothingLeft();
}

constexpr int32_t kCurrent = QVE_SERVER_VERSION_CURRENT;
constexpr char kFailing[] = "echo out; echo err >&2; exit 3";
const Properties kNumberOnError = {{"valuetype", "NUMBER"},
                                   {"scriptErrorValue", "-1"}};

std::string ValueMessage(const std::string& value) {
  return "User Defined Metric cpu_check returned a value of " + value;
}

INSTANTIATE_TEST_SUITE_P(
    Scripts, UdmRunCaseTest,
    testing::Values(
        RunCase{"NumberValue", "echo kt_result=42", {{"valuetype", "NUMBER"}},
                true, kCurrent,
                Succeeded(Row(kId, "42", nullptr, ValueMessage("42")))},
        // cat ends at once: the script gets no standard input.
        RunCase{"RunsAsTheUserWithArgsAndEnvironment",
                "cat; echo checking; echo \"kt_message=$GREETING $(id -un)\";"
                " echo \"kt_result=$1\"; echo noise >&2",
                {{"args", "'a b'"}, {"ENVGREETING", "hi"},
                 {"STDINx", "y"}, {"KT_METRIC_TIMEOUT", "30"}},
                true, kCurrent,
                Succeeded(Row(kId, nullptr, "a b", "hi {user}"))},
        RunCase{"ConvertsTheOutput", "printf 'kt_result=caf\\351\\n'",
                {{"needCharsetConvert", "true"},
                 {"ConvertFromCharset", "ISO-8859-1"}},
                true, kCurrent,
                Succeeded(Row(kId, nullptr, "caf\xc3\xa9",
                              ValueMessage("caf\xc3\xa9")))},
        RunCase{"FailedScriptOnCurrentServer", kFailing, kNumberOnError, true,
                kCurrent, Failed(-1, QVE_EXC_RUN_FAILED, "out\nerr\n")},
        RunCase{"FailedScriptOnOldServer", kFailing, kNumberOnError, true,
                kOldServer, Succeeded(Row(kId, "-1", nullptr, "out\nerr\n"))},
        RunCase{"WrongPasswordOnCurrentServer", "echo kt_result=1",
                kNumberOnError, false, kCurrent,
                Failed(-1, QVE_EXC_RUN_FAILED,
                       "Authentication failed: wrong password ")},
        RunCase{"WrongPasswordOnOldServer", "echo kt_result=1",
                {{"scriptErrorValue", "n/a"}}, false, kOldServer,
                Succeeded(Row(kId, nullptr, "n/a",
                              "Authentication failed: wrong password "))},
        RunCase{"TimeLimit", "sleep 30", {{"KT_METRIC_TIMEOUT", "1"}}, true,
                kCurrent,
                Failed(-1, QVE_EXC_TIMEOUT,
                       "Metric execution timed out in 1 seconds")}),
    [](const testing::TestParamInfo<RunCase>& p) { return p.param.name; });

}  // namespace
}  // namespace qvetest::udm
