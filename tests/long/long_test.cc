// The long runs: eight threads evaluating a mix of outcomes with aborts,
// and allocation fault sweeps over every exported entry point. Both leave
// the host's ledger, descriptors and children as they found them.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <functional>
#include <iostream>
#include <random>
#include <set>

#include "fos/qvefos_os.h"
#include "common/run_support.h"
#include "fosl/qvefosl_lines.h"
#include "fosl/qvefosl_os_line.h"
#include "foslt/qvefoslt_os_line_token.h"
#include "fosud/qvefosud_metric.h"
#include "qve/embedded.h"

namespace qvetest {
namespace {

// One family's three entry points.
struct Fetchlet {
  qvefet_GetFetchletFn getFetchlet;
  void (*freeFetchlet)(qvefet_Fetchlet*);
  qvefet_GetMetricFn getMetric;
};

constexpr Fetchlet kOs{qvefos_getFetchlet, qvefos_freeFetchlet,
                       qvefos_getMetric};
constexpr Fetchlet kOsLine{qvefosl_getFetchlet, qvefosl_freeFetchlet,
                           qvefosl_getMetric};
constexpr Fetchlet kOsLineToken{qvefoslt_getFetchlet, qvefoslt_freeFetchlet,
                                qvefoslt_getMetric};
constexpr Fetchlet kUdm{qvefosud_getFetchlet, qvefosud_freeFetchlet,
                        qvefosud_getMetric};

// props with the account's credentials in front; props of the same names
// that come later win.
Props WithCredentials(const TestAccount& account, const Props& props) {
  Props all = {{"username", account.name}, {"password", account.password}};
  all.insert(all.end(), props.begin(), props.end());
  return all;
}

// The fixture of the long tests: a context, and the host's state after a
// first run has opened whatever the host keeps open for good.
class LongTest : public testing::Test {
 protected:
  LongTest() {
    BecomeSubreaper();
    RunShell(context_, "true");
    qvehost::RemoveIdleRunCgroups();  // the pool keeps its descriptors
    descriptors_ = OpenDescriptors();
  }
  ~LongTest() override { qvehost::DeleteContext(context_); }

  // The account, or null with noAccount_ telling why.
  const TestAccount* UseAccount() {
    return account_ = LauncherAccount(&noAccount_);
  }

  // Descriptors as before, no child or process of the account left, and
  // nothing in the ledger.
  void ExpectHostUnchanged() {
    qvehost::RemoveIdleRunCgroups();  // the pool keeps its descriptors
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
};

// ---- Concurrency ----------------------------------------------------------

// Eight threads evaluate through the four fetchlets at once, each in a fixed
// shuffled mix of successes, failed exits, missing programs, wrong
// passwords, time-outs and aborts. Every run ends with its own outcome, or
// with the abort's for the one short run in eight that also meets an abort.

// ThreadSanitizer slows every run about tenfold; a quarter of the runs
// still meets every kind in every thread at once.
#if defined(__SANITIZE_THREAD__)
constexpr int kScale = 4;
#else
constexpr int kScale = 1;
#endif
constexpr int kThreads = 8;
constexpr int kPerThread = 1000 / kScale;
constexpr int kShortAimedAt = 8;  // one short run in eight meets an abort

// One kind of evaluation in the mix.
struct Kind {
  const Fetchlet* fetchlet;
  int count;  // per thread; the first kind: whatever the others leave
  Props props;
  Json expected;        // an abort is aimed at every run expected to be aborted
  bool asUser = false;  // with the account's credentials (as root)
};

const Props kFailingExit = {
    {"command", "/bin/sh -c 'echo out; echo err >&2; exit 1'"}, {"ID", "c"}};
const Props kNotFound = {{"command", "/no/such/program"}, {"ID", "c"}};
// No time limit: only an abort ends them before their half minute is up.
const Props kSleeps = {{"command", "/bin/sleep"}, {"args", "30"}, {"ID", "c"}};
const Props kSleepsOneSecond = {
    {"command", "/bin/sleep 30"}, {"ID", "c"}, {"KT_METRIC_TIMEOUT", "1"}};

const Json kExit1 = Failed(QVE_EXC_RUN_FAILED, "out\nerr\n");
const Json kTimedOut =
    Failed(QVE_EXC_TIMEOUT, "Metric execution timed out in 1 seconds");
const Json kAborted = Failed(QVE_EXC_TIMEOUT, "Metric execution aborted");

// clang-format off
const Kind kMix[] = {
    {&kOs, 0, {{"command", "echo ok"}}, Succeeded(Flat({{"ok\n"}}))},
    {&kOs, 50, kFailingExit, kExit1},
    {&kOs, 30, kNotFound,
     Failed(QVE_EXC_RUN_FAILED, "/no/such/program: not found")},
    {&kOs, 1, kSleepsOneSecond, kTimedOut},
    {&kOs, 2, kSleeps, kAborted},
    {&kOs, 10, {{"isSecureCommand", "TRUE"}, {"command", "id -un"}},
     Succeeded(Flat({{"{user}\n"}})), true},
    {&kOsLine, 200, {{"command", "cat"}, {"STDINa", "1\n2"}},
     Succeeded(Flat({{"a=__BeginProp__"}, {"1"}, {"2"}, {"__EndProp__"}}))},
    {&kOsLine, 2, kSleeps, kAborted},
    {&kOsLineToken, 200,
     {{"command", "printf 'a b\\nW:w\\nc d\\n'"}, {"delimiter", " "},
      {"warningStartsWith", "W:"}},
     Succeeded(Flat({{"a", "b"}, {"c", "d"}}, "w\n"))},
    {&kUdm, 100,
     {{"command", "/bin/sh"},
      {"args", "-c 'echo kt_message=m; echo kt_result=1'"},
      {"ID", "c"}, {"valuetype", "NUMBER"}},
     Succeeded(UdmRow("c", "1", nullptr, "m")), true},
    {&kUdm, 10, kFailingExit, kExit1, true},
    {&kUdm, 10, kNotFound,
     Failed(QVE_EXC_RUN_FAILED, "Unable to run the process"), true},
    {&kUdm, 2, {{"command", "/bin/true"}, {"ID", "c"}, {"password", "wrong"}},
     Failed(QVE_EXC_RUN_FAILED, "Authentication failed: wrong password "),
     true},
    {&kUdm, 2, kSleeps, kAborted, true},
};
// clang-format on

class ConcurrencyTest : public LongTest {
 protected:
  // The number of unexpected outcomes, the first of them in *first.
  int Work(int t, Json* first) {
    // The indices of the mix, each as often as its count, in a shuffle of
    // this thread's; kinds that need the account are left out without one.
    std::vector<size_t> order;
    for (size_t k = 1; k < std::size(kMix); ++k) {
      if (kMix[k].asUser && account_ == nullptr) continue;
      const int count = std::max(1, kMix[k].count / kScale);
      order.insert(order.end(), static_cast<size_t>(count), k);
    }
    order.resize(kPerThread, 0);
    std::shuffle(order.begin(), order.end(), std::mt19937(20240607 + t));
    const std::string user = account_ != nullptr ? account_->name : "";
    int wrong = 0;
    for (int i = 0; i < kPerThread; ++i) {
      const Kind& kind = kMix[order[static_cast<size_t>(i)]];
      const std::string id = "c" + std::to_string(t) + "-" + std::to_string(i);
      Props props = kind.props;
      props.emplace_back("KTDCLIENT_REQUEST_ID", id);
      if (kind.asUser) props = WithCredentials(*account_, props);
      const bool aimedAt = kind.expected == kAborted || i % kShortAimedAt == 0;
      std::optional<Aborter> aborter;
      if (aimedAt) aborter.emplace(id);
      const Json outcome = Evaluate(kind.fetchlet->getMetric, context_, props);
      if (outcome.dump() == WithUser(kind.expected.dump(), user) ||
          (aimedAt && outcome == kAborted)) {
        continue;
      }
      if (wrong++ == 0) {
        *first = {{"props", kind.props},
                  {"outcome", outcome},
                  {"expected", kind.expected}};
      }
    }
    return wrong;
  }
};

TEST_F(ConcurrencyTest, EveryRunEndsRightAndTheHostIsLeftAsItWas) {
  if (UseAccount() == nullptr) {
    std::cout << "evaluations under the account left out: " << noAccount_
              << "\n";
  }
  std::array<int, kThreads> wrong{};
  std::array<Json, kThreads> first;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back(
        [this, t, &wrong, &first] { wrong[t] = Work(t, &first[t]); });
  }
  for (std::thread& thread : threads) thread.join();
  for (int t = 0; t < kThreads; ++t) EXPECT_EQ(wrong[t], 0) << first[t].dump();
  ExpectHostUnchanged();
}

// ---- Fault sweeps ---------------------------------------------------------

// Allocation k of a module fails (once, or from k on) for k = 1, 2, ...
// until a run meets no fault. Each run ends in success or in the documented
// failure.

// An entry point called once: its outcome as {"status", "result"} with
// "kind" and "message" when an exception came back.
using Call = std::function<Json(qvefet_Context*, const TestAccount*)>;

struct EntryPoint {
  const char* name;
  Call call;
  Json expected;  // when no allocation failed
  bool needsAccount = false;
};

// An agent's sequence: handle, one evaluation, release of the handle.
Call ThroughFetchlet(const Fetchlet& fetchlet, const Props& props) {
  return [&fetchlet, props](qvefet_Context* context,
                            const TestAccount* account) {
    qvefet_Fetchlet* handle = nullptr;
    EXPECT_EQ(fetchlet.getFetchlet(context, &handle), 0);
    const Json outcome =
        Evaluate(fetchlet.getMetric, context,
                 account != nullptr ? WithCredentials(*account, props) : props);
    fetchlet.freeFetchlet(handle);
    return outcome;
  };
}

// The lines as "result"; a null array is a failure and must count 0 lines.
Json Lines(std::string text) {
  char** lines = nullptr;
  const uint32_t count = qvefosl_getLines(text.data(), &lines);
  if (lines == nullptr) {
    EXPECT_EQ(count, 0U);
    return kFailedQuietly;
  }
  const Json result(std::vector<std::string>(lines, lines + count));
  qve_free0(lines, "tests", __LINE__);
  return Succeeded(result);
}

// clang-format off
// Standard input from two entries (one of two lines), an environment from
// a property and the ENV_ARRAY block, output on both streams (the local
// driver ignores the warning property).
const Props kOsProps = {
    {"command", " /bin/sh -c 'cat; echo \"$V$W\" >&2' "}, {"ENVV", "v"},
    {"ENV_ARRAY", "{W=w}{X=1}"}, {"STDINa", "1"}, {"STDINb", "2\n3"},
    {"needCharsetConvert", "TRUE"}, {"KTDCLIENT_REQUEST_ID", "sweep"},
    {"KT_METRIC_TIMEOUT", "30"}, {"useStdErrForWarning", "TRUE"}};
constexpr char kOsStdout[] = "a=1\nb=__BeginProp__\n2\n3\n__EndProp__\n";

// Two tables around a separator, warning lines, standard input, the
// environment block, and standard error that the tables leave out.
const Props kTableProps = {
    {"command", "/bin/sh -c 'echo $A; echo W:low; echo W:high; echo --; cat; "
                "echo err >&2'"},
    {"ENV_ARRAY", "{A=a,b}{B=1}"}, {"STDINz", "1,2"},
    {"warningStartsWith", "W:"},
    {"tableSeparator", "--"}, {"delimiter", ","},
    {"needCharsetConvert", "TRUE"},
    {"KTDCLIENT_REQUEST_ID", "sweep"}};

const Props kUdmProps = {
    {"command", "/bin/sh"},
    {"args", "-c 'echo noise; echo \"kt_message=$M\"; echo kt_result=$W; "
             "echo e >&2'"},
    {"ENVM", "m"}, {"ENV_ARRAY", "{W=7}"}, {"ID", "sweep"},
    {"valuetype", "NUMBER"}, {"needCharsetConvert", "TRUE"},
    {"KTDCLIENT_REQUEST_ID", "sweep"}};
// clang-format on

const EntryPoint kEntryPoints[] = {
    {"os", ThroughFetchlet(kOs, kOsProps),
     Succeeded(Flat({{kOsStdout}}, "vw\n"))},
    {"osline", ThroughFetchlet(kOsLine, kTableProps),
     Succeeded(Nested({{{"a,b"}}, {{"z=1,2"}}}, "low\nhigh\n"))},
    {"oslinetoken", ThroughFetchlet(kOsLineToken, kTableProps),
     Succeeded(Nested({{{"a", "b"}}, {{"z=1", "2"}}}, "low\nhigh\n"))},
    {"udm", ThroughFetchlet(kUdm, kUdmProps),
     Succeeded(UdmRow("sweep", "7", nullptr, "m")), true},
    {"getLocalMetric",
     [](qvefet_Context* context, const TestAccount*) {
       return LocalMetric(context, NewList(kOsProps).get());
     },
     Succeeded(Texts(kOsStdout, "vw\n"))},
    {"getLines",
     [](qvefet_Context*, const TestAccount*) { return Lines("a\r\nb\n\nc"); },
     Succeeded(Json{"a", "b", "", "c"})},
};

class FaultSweepTest : public LongTest,
                       public testing::WithParamInterface<EntryPoint> {
 protected:
  // Moves the failing allocation of module forward until a run meets none;
  // stops at the first run that breaks a rule. Returns the runs made.
  int Sweep(const char* module, bool persistent) {
    for (uint64_t k = 1;; ++k) {
      SCOPED_TRACE(testing::Message() << "module \"" << module << "\" k=" << k
                                      << (persistent ? " and on" : ""));
      qvehost::ResetFaults();
      qvehost::FailAllocation(module, k, persistent);
      const Json o = GetParam().call(context_, account_);
      const bool faulted = qvehost::AllocationCount(module) >= k;
      qvehost::ResetFaults();
      // Success with a result and no exception, or -1 with no result and
      // either no exception or one of the kinds for a refused object, a bad
      // request or a failed run (memory running out among its reasons).
      const bool succeeded =
          o["status"] == 0 && !o["result"].is_null() && !o.contains("kind");
      const bool failed =
          o["status"] == -1 && o["result"].is_null() &&
          (!o.contains("kind") || o["kind"] == QVE_EXC_NO_RESULT ||
           o["kind"] == QVE_EXC_BAD_REQUEST || o["kind"] == QVE_EXC_RUN_FAILED);
      if (faulted) {
        EXPECT_TRUE(succeeded || failed) << o.dump();
      } else {
        EXPECT_EQ(o, GetParam().expected);
      }
      ExpectHostUnchanged();
      if (HasFailure() || !faulted) return static_cast<int>(k);
    }
  }
};

TEST_P(FaultSweepTest, EveryRunEndsInSuccessOrTheDocumentedFailure) {
  if (GetParam().needsAccount && UseAccount() == nullptr) {
    GTEST_SKIP() << noAccount_;
  }
  int runs = 0;
  // "" counts the allocations of every module, the host's own conversions
  // and string buffers among them.
  for (const char* module :
       {"", "qvefos", "qvefosl", "qvefoslt", "qvefosud", "sqvefos"}) {
    for (const bool persistent : {false, true}) {
      runs += Sweep(module, persistent);
      if (HasFailure()) return;
    }
  }
  RecordProperty("runs", runs);
}

INSTANTIATE_TEST_SUITE_P(EntryPoints, FaultSweepTest,
                         testing::ValuesIn(kEntryPoints),
                         [](const testing::TestParamInfo<EntryPoint>& p) {
                           return p.param.name;
                         });

}  // namespace
}  // namespace qvetest
