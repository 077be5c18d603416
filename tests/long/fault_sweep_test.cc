// Allocation fault sweeps over every exported entry point: allocation k of a
// module fails (once, or from k on) for k = 1, 2, ... until a run meets no
// fault. Each run ends in success or in the documented failure and leaves
// the host's ledger, descriptors and children as they were.
#include <cstdint>
#include <functional>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fos/qvefos_driver.h"
#include "fosl/qvefosl_lines.h"
#include "fosud/udm_support.h"
#include "long/long_support.h"

namespace qvetest {
namespace {

// An entry point called once, its outcome as {"status", "result"} with
// "kind" and "message" when an exception came back.
using Call = std::function<Json(qvefet_Context*, const TestAccount*)>;

struct EntryPoint {
  const char* name;
  Call call;
  Json expected;  // when no allocation failed
  bool needsAccount = false;
};

void PrintTo(const EntryPoint& entryPoint, std::ostream* out) {
  *out << entryPoint.name;
}

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

Json TakeText(char* text) {
  if (text == nullptr) return nullptr;
  Json copy = text;
  qve_free0(text, "tests", __LINE__);
  return copy;
}

// The texts as "result" {"out", "err"}; null when both slots stayed null.
Json LocalMetric(qvefet_Context* context, const Props& props) {
  qvlnv_NVList* list = qvehost::NewPropertyList();
  for (const auto& [name, value] : props) {
    qvehost::SetProperty(list, name, value);
  }
  char* out = nullptr;
  char* err = nullptr;
  qveue_Exception* exception = nullptr;
  const int32_t status = qvefos_getLocalMetric(
      context, list, 0, &out, &err, &exception,
      qveulm_getLogCtx(context->logSource, "fetchlets.os"));
  qvehost::DeletePropertyList(list);
  Json outcome = {{"status", status}, {"result", nullptr}};
  if (out != nullptr || err != nullptr) {
    outcome["result"] = {{"out", TakeText(out)}, {"err", TakeText(err)}};
  }
  if (exception != nullptr) {
    outcome["kind"] = qveue_Exception_getKind(exception);
    outcome["message"] = qveue_Exception_getErrorMessage(exception);
    qveue_Exception_delete(exception);
  }
  return outcome;
}

// The lines as "result"; a null array is a failure and must count 0 lines.
Json Lines(const std::string& text) {
  std::string writable = text;
  char** lines = nullptr;
  const uint32_t count = qvefosl_getLines(writable.data(), &lines);
  if (lines == nullptr) {
    EXPECT_EQ(count, 0U);
    return {{"status", -1}, {"result", nullptr}};
  }
  Json result = Json::array();
  for (uint32_t i = 0; i < count; ++i) result.push_back(lines[i]);
  qve_free0(lines, "tests", __LINE__);
  return {{"status", 0}, {"result", result}};
}

// Standard input from two entries (one of two lines), an environment from
// a property and the ENV_ARRAY block, output on both streams.
const Props kOsProps = {{"command", " /bin/sh -c 'cat; echo \"$V$W\" >&2' "},
                        {"ENVV", "v"},
                        {"ENV_ARRAY", "{W=w}{X=1}"},
                        {"STDINa", "1"},
                        {"STDINb", "2\n3"},
                        {"needCharsetConvert", "TRUE"},
                        {"KTDCLIENT_REQUEST_ID", "sweep"},
                        {"KT_METRIC_TIMEOUT", "30"}};
constexpr char kOsStdout[] = "a=1\nb=__BeginProp__\n2\n3\n__EndProp__\n";

Props WithWarningFromStderr(Props props) {
  props.emplace_back("useStdErrForWarning", "TRUE");
  return props;
}

// Two tables around a separator, warning lines, standard input, the
// environment block, and standard error that the tables leave out.
const Props kTableProps = {
    {"command",
     "/bin/sh -c 'echo $A; echo W:low; echo W:high; echo --; cat; "
     "echo err >&2'"},
    {"ENV_ARRAY", "{A=a,b}{B=1}"},
    {"STDINz", "1,2"},
    {"warningStartsWith", "W:"},
    {"tableSeparator", "--"},
    {"delimiter", ","},
    {"needCharsetConvert", "TRUE"},
    {"KTDCLIENT_REQUEST_ID", "sweep"}};

const Props kUdmProps = {
    {"command", "/bin/sh"},
    {"args",
     "-c 'echo noise; echo \"kt_message=$M\"; echo kt_result=$W; "
     "echo e >&2'"},
    {"ENVM", "m"},
    {"ENV_ARRAY", "{W=7}"},
    {"ID", "sweep"},
    {"valuetype", "NUMBER"},
    {"needCharsetConvert", "TRUE"},
    {"KTDCLIENT_REQUEST_ID", "sweep"}};

// getFetchlet and freeFetchlet of each family run around its getMetric.
const EntryPoint kEntryPoints[] = {
    {"os", ThroughFetchlet(kOs, WithWarningFromStderr(kOsProps)),
     Succeeded(Flat({{kOsStdout}}, "vw\n"))},
    {"osline", ThroughFetchlet(kOsLine, kTableProps),
     Succeeded(Nested({{{"a,b"}}, {{"z=1,2"}}}, "low\nhigh\n"))},
    {"oslinetoken", ThroughFetchlet(kOsLineToken, kTableProps),
     Succeeded(Nested({{{"a", "b"}}, {{"z=1", "2"}}}, "low\nhigh\n"))},
    {"udm", ThroughFetchlet(kUdm, kUdmProps),
     udm::Succeeded(udm::Row("sweep", "7", nullptr, "m")), true},
    {"getLocalMetric",
     [](qvefet_Context* context, const TestAccount*) {
       return LocalMetric(context, kOsProps);
     },
     Succeeded(Json{{"out", kOsStdout}, {"err", "vw\n"}})},
    {"getLines",
     [](qvefet_Context*, const TestAccount*) { return Lines("a\r\nb\n\nc"); },
     Succeeded(Json{"a", "b", "", "c"})},
};

// The modules of the plug-in; "" counts the allocations of every module,
// the host's own conversions and string buffers among them.
constexpr const char* kModules[] = {"",         "qvefos",   "qvefosl",
                                    "qvefoslt", "qvefosud", "sqvefos"};

// Success with a result, or -1 with none and either no exception or one of
// the kinds the failure tables name for a refused object, a bad request or
// a failed run (memory running out among its reasons).
void ExpectSuccessOrDocumentedFailure(const Json& outcome) {
  if (outcome["status"] == 0) {
    EXPECT_FALSE(outcome["result"].is_null()) << outcome.dump();
    return;
  }
  EXPECT_EQ(outcome["status"], -1) << outcome.dump();
  EXPECT_TRUE(outcome["result"].is_null()) << outcome.dump();
  if (!outcome.contains("kind")) return;
  const std::set<int32_t> documented = {QVE_EXC_NO_RESULT, QVE_EXC_BAD_REQUEST,
                                        QVE_EXC_RUN_FAILED};
  EXPECT_TRUE(documented.contains(outcome["kind"].get<int32_t>()))
      << outcome.dump();
}

class FaultSweepTest : public testing::TestWithParam<EntryPoint> {
 protected:
  void SetUp() override {
    if (GetParam().needsAccount) {
      std::string reason;
      account_ = UdmAccount(&reason);
      if (account_ == nullptr) GTEST_SKIP() << reason;
    }
  }
  ~FaultSweepTest() override { qvehost::DeleteContext(context_); }

  // Moves the failing allocation of module forward until a run meets none;
  // stops at the first run that breaks a rule. Returns the runs made.
  int Sweep(const char* module, bool persistent) {
    for (uint64_t k = 1;; ++k) {
      SCOPED_TRACE(testing::Message() << "module \"" << module << "\" k=" << k
                                      << (persistent ? " and on" : ""));
      qvehost::ResetFaults();
      qvehost::FailAllocation(module, k, persistent);
      const Json outcome = GetParam().call(context_, account_);
      const bool faulted = qvehost::AllocationCount(module) >= k;
      qvehost::ResetFaults();
      if (faulted) {
        ExpectSuccessOrDocumentedFailure(outcome);
      } else {
        EXPECT_EQ(outcome, GetParam().expected);
      }
      baseline_.ExpectUnchanged();
      if (account_ != nullptr) {
        EXPECT_EQ(ProcessesOf(account_->uid), std::vector<int>{});
      }
      if (HasFailure() || !faulted) return static_cast<int>(k);
    }
  }

  qvefet_Context* context_ = qvehost::NewContext();
  HostBaseline baseline_{context_};
  const TestAccount* account_ = nullptr;
};

TEST_P(FaultSweepTest, EveryRunEndsInSuccessOrTheDocumentedFailure) {
  int runs = 0;
  for (const char* module : kModules) {
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
