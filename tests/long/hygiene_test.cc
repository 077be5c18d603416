// Many runs leave the host as they found it: descriptors, children, ledger.
#include <gtest/gtest.h>

#include "fos/run_support.h"
#include "qve/embedded.h"

namespace qvetest {
namespace {

TEST(HygieneTest, ThousandsOfRunsLeaveNothingBehind) {
  BecomeSubreaper();
  qvefet_Context* context = qvehost::NewContext();
  RunShell(context, "true");  // let the host open what it keeps open
  const std::set<int> descriptors = OpenDescriptors();
  RunOptions timed;
  timed.timeoutSeconds = 1;
  int failures = 0;
  for (int i = 0; i < 2000; ++i) {
    RunOutcome r;
    switch (i % 4) {
      case 0: r = RunShell(context, "echo ok"); break;
      case 1: r = RunShell(context, "echo no >&2; exit 1"); break;
      case 2: r = RunPlain(context, {"/no/such/program"}); break;
      default: r = RunShell(context, "cat", [] {
        RunOptions o;
        o.stdinText = "in\n";
        return o;
      }()); break;
    }
    failures += r.status != 0;
    if (i % 200 == 0) RunShell(context, "sleep 5", timed);
  }
  EXPECT_EQ(failures, 1000);
  EXPECT_EQ(OpenDescriptors(), descriptors);
  EXPECT_EQ(SurvivingChildren(), std::vector<int>{});
  EXPECT_TRUE(qvehost::LiveBlocks().empty()) << qvehost::DescribeLiveBlocks();
  qvehost::DeleteContext(context);
}

}  // namespace
}  // namespace qvetest
