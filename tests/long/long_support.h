// Shared pieces of the long tests: the four fetchlets as an agent holds them,
// requests under the throw-away account, and the host state that many
// evaluations must leave as they found it.
#ifndef QVE_TESTS_LONG_LONG_SUPPORT_H_
#define QVE_TESTS_LONG_LONG_SUPPORT_H_

#include <gtest/gtest.h>

#include "fos/qvefos_os.h"
#include "fos/run_support.h"
#include "fosl/qvefosl_os_line.h"
#include "foslt/qvefoslt_os_line_token.h"
#include "fosud/qvefosud_metric.h"

namespace qvetest {

// One family's three entry points.
struct Fetchlet {
  const char* name;
  int32_t (*getFetchlet)(qvefet_Context*, qvefet_Fetchlet**);
  void (*freeFetchlet)(qvefet_Fetchlet*);
  qvefet_GetMetricFn getMetric;
};

inline constexpr Fetchlet kOs{"os", qvefos_getFetchlet, qvefos_freeFetchlet,
                              qvefos_getMetric};
inline constexpr Fetchlet kOsLine{"osline", qvefosl_getFetchlet,
                                  qvefosl_freeFetchlet, qvefosl_getMetric};
inline constexpr Fetchlet kOsLineToken{"oslinetoken", qvefoslt_getFetchlet,
                                       qvefoslt_freeFetchlet,
                                       qvefoslt_getMetric};
inline constexpr Fetchlet kUdm{"udm", qvefosud_getFetchlet,
                               qvefosud_freeFetchlet, qvefosud_getMetric};

// props with the account's credentials in front; a wrong password on request.
inline Props WithCredentials(const TestAccount& account, const Props& props,
                             bool rightPassword = true) {
  Props all = {{"username", account.name},
               {"password", (rightPassword ? "" : "x") + account.password}};
  all.insert(all.end(), props.begin(), props.end());
  return all;
}

// The fixture of the long tests: a context, the host's state after a first
// run has opened whatever the host keeps open for good, and, on request,
// the account and the four handles an agent gets once.
class LongTest : public testing::Test {
 protected:
  LongTest() {
    BecomeSubreaper();
    RunShell(context_, "true");
    descriptors_ = OpenDescriptors();
  }
  ~LongTest() override {
    CloseHandles();
    qvehost::DeleteContext(context_);
  }

  // The account, or null with noAccount_ telling why.
  const TestAccount* UseAccount() {
    return account_ = LauncherAccount(&noAccount_);
  }
  void OpenHandles() {
    for (const Fetchlet* f : {&kOs, &kOsLine, &kOsLineToken, &kUdm}) {
      qvefet_Fetchlet* handle = nullptr;
      EXPECT_EQ(f->getFetchlet(context_, &handle), 0) << f->name;
      handles_.emplace_back(f, handle);
    }
  }
  void CloseHandles() {
    for (const auto& [f, handle] : handles_) f->freeFetchlet(handle);
    handles_.clear();
  }

  // Descriptors as before, no child or process of the account left, and,
  // once the handles are closed, nothing in the ledger.
  void ExpectHostUnchanged() {
    CloseHandles();
    EXPECT_EQ(OpenDescriptors(), descriptors_);
    EXPECT_EQ(SurvivingChildren(), std::vector<int>{});
    if (account_ != nullptr) {
      EXPECT_EQ(ProcessesOf(account_->uid), std::vector<int>{});
    }
    EXPECT_TRUE(qvehost::LiveBlocks().empty()) << qvehost::DescribeLiveBlocks();
  }

  qvefet_Context* context_ = qvehost::NewContext();
  std::set<int> descriptors_;
  const TestAccount* account_ = nullptr;
  std::string noAccount_;
  std::vector<std::pair<const Fetchlet*, qvefet_Fetchlet*>> handles_;
};

}  // namespace qvetest

#endif  // QVE_TESTS_LONG_LONG_SUPPORT_H_
