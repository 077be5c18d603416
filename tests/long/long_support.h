// Shared pieces of the long tests: the four fetchlets as an agent holds them,
// a UDM request under the throw-away account, and the host state that many
// evaluations must leave as they found it.
#ifndef QVE_TESTS_LONG_LONG_SUPPORT_H_
#define QVE_TESTS_LONG_LONG_SUPPORT_H_

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/test_account.h"
#include "fos/qvefos_os.h"
#include "fos/run_support.h"
#include "fosl/qvefosl_os_line.h"
#include "foslt/metric_harness.h"
#include "foslt/qvefoslt_os_line_token.h"
#include "fosud/qvefosud_metric.h"
#include "qve/embedded.h"

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

// The four handles an agent gets once and evaluates through many times.
class FetchletHandles {
 public:
  explicit FetchletHandles(qvefet_Context* context) {
    for (const Fetchlet* f : {&kOs, &kOsLine, &kOsLineToken, &kUdm}) {
      qvefet_Fetchlet* handle = nullptr;
      EXPECT_EQ(f->getFetchlet(context, &handle), 0) << f->name;
      EXPECT_NE(handle, nullptr) << f->name;
      handles_.push_back({f, handle});
    }
  }
  ~FetchletHandles() {
    for (const auto& [f, handle] : handles_) {
      if (handle != nullptr) f->freeFetchlet(handle);
    }
  }
  FetchletHandles(const FetchletHandles&) = delete;
  FetchletHandles& operator=(const FetchletHandles&) = delete;

 private:
  std::vector<std::pair<const Fetchlet*, qvefet_Fetchlet*>> handles_;
};

// The account UDM requests run under; null, with *reason set, when this
// process cannot make one or run the launcher.
inline const TestAccount* UdmAccount(std::string* reason) {
  *reason = LauncherSkipReason();
  if (!reason->empty()) return nullptr;
  const TestAccount* account = AccountStore::Get().Shared();
  if (account == nullptr) *reason = "cannot make a test account";
  return account;
}

// props with the account's credentials in front; a wrong password on request.
inline Props WithCredentials(const TestAccount& account, const Props& props,
                             bool rightPassword = true) {
  Props all = {
      {"username", account.name},
      {"password", rightPassword ? account.password : "x" + account.password}};
  all.insert(all.end(), props.begin(), props.end());
  return all;
}

// The host as a run must leave it: its descriptors, after a first run has
// opened whatever the host keeps open for good.
class HostBaseline {
 public:
  explicit HostBaseline(qvefet_Context* context) {
    BecomeSubreaper();
    RunShell(context, "true");
    descriptors_ = OpenDescriptors();
  }

  // Descriptors as before, no child left, nothing in the ledger.
  void ExpectUnchanged() const {
    EXPECT_EQ(OpenDescriptors(), descriptors_);
    EXPECT_EQ(SurvivingChildren(), std::vector<int>{});
    EXPECT_TRUE(qvehost::LiveBlocks().empty()) << qvehost::DescribeLiveBlocks();
  }

 private:
  std::set<int> descriptors_;
};

}  // namespace qvetest

#endif  // QVE_TESTS_LONG_LONG_SUPPORT_H_
