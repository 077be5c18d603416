// Commands run under a throw-away account through the real launcher, as
// root (skipped elsewhere): the OS fetchlet with isSecureCommand, and the
// UDM fetchlet end to end.
#include <gtest/gtest.h>

#include "fos/qvefos_os.h"
#include "common/run_support.h"
#include "fosud/qvefosud_metric.h"

namespace qvetest {
namespace {

TEST(SecureRunTest, GivesTheResultOrTheFailureAndLeavesNothing) {
  BecomeSubreaper();
  std::string reason;
  const TestAccount* account = LauncherAccount(&reason);
  if (account == nullptr) GTEST_SKIP() << reason;
  const auto os = qvefos_getMetric;
  const auto udm = qvefosud_getMetric;
  const std::string failing = "/bin/sh -c 'echo out; echo err >&2; exit 1'";
  const Props separate = {{"separateErrorStream", "TRUE"}};
  const std::string value = "User Defined Metric id7 returned a value of ";
  const Json errOnly = {{"rows", {{nullptr, "err\n"}}}, {"warning", nullptr}};
  // clang-format off
  const struct {
    qvefet_GetMetricFn getMetric;
    std::string command;
    Props more;
    Json expected;
    int32_t version = QVE_SERVER_VERSION_CURRENT;
  } cases[] = {
      {os, "/bin/sh -c 'cat; echo $A $USER $(id -un)'",
       {{"ENVA", "1"}, {"STDINx", "1"}},
       Succeeded(Flat({{"x=1\n1 {user} {user}\n"}}))},
      {os, "/bin/sh -c 'echo err >&2'", separate, Succeeded(errOnly)},
      // The launcher's text, then one space, then the command's standard
      // error, which a refused start never has.
      {os, "cat", {{"STDINx", "1"}, {"password", "wrong"}},
       Failed(QVE_EXC_RUN_FAILED, "Authentication failed: wrong password ")},
      {os, failing, separate, Failed(QVE_EXC_RUN_FAILED, "err\n")},
      {os, "/bin/sh -c 'sleep 60 & sleep 60'", {{"KT_METRIC_TIMEOUT", "1"}},
       Failed(QVE_EXC_TIMEOUT, "Metric execution timed out in 1 seconds")},
      // cat ends at once: a UDM gets no standard input.
      {udm,
       "/bin/sh -c 'cat; echo kt_message=$G $(id -un); echo kt_result=$1' x",
       {{"args", "'a b'"}, {"ENVG", "hi"}, {"STDINx", "y"}},
       Succeeded(UdmRow("id7", nullptr, "a b", "hi {user}"))},
      {udm, "/bin/sh -c 'printf kt_result=caf\\\\351'",
       {{"needCharsetConvert", "true"}, {"ConvertFromCharset", "ISO-8859-1"}},
       Succeeded(UdmRow("id7", nullptr, "caf\xc3\xa9", value + "caf\xc3\xa9"))},
      {udm, failing, {{"valuetype", "NUMBER"}, {"scriptErrorValue", "-1"}},
       Succeeded(UdmRow("id7", "-1", nullptr, "out\nerr\n")), kOldServer},
      {udm, "/bin/true", {{"password", "wrong"}, {"scriptErrorValue", "n/a"}},
       Succeeded(UdmRow("id7", nullptr, "n/a",
                        "Authentication failed: wrong password ")),
       kOldServer},
  };
  // clang-format on
  qvehost::LogCapture capture;
  qvefet_Context* context = qvehost::NewContext();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.command);
    Props props = {{"isSecureCommand", "TRUE"},
                   {"username", account->name},
                   {"password", account->password},
                   {"ID", "id7"},
                   {"command", c.command}};
    props.insert(props.end(), c.more.begin(), c.more.end());
    const ServerVersion version(c.version);
    EXPECT_EQ(Evaluate(c.getMetric, context, props).dump(),
              WithUser(c.expected.dump(), account->name));
    // Nothing of a run, the user's or the host's, may outlive it.
    EXPECT_EQ(ChildPids(), std::vector<int>{});
    EXPECT_EQ(ProcessesOf(account->uid), std::vector<int>{});
  }
  qvehost::DeleteContext(context);
  EXPECT_FALSE(capture.Texts(qvehost::LogLevel::kError).empty());
  for (const qvehost::LogRecord& record : capture.Records()) {
    EXPECT_EQ(record.text.find(account->password), std::string::npos)
        << record.text;
  }
}

}  // namespace
}  // namespace qvetest
