// Allocation fault sweeps over every exported entry point: allocation k of a
// module fails (once, or from k on) for k = 1, 2, ... until a run meets no
// fault. Each run ends in success or in the documented failure and leaves
// the host's ledger, descriptors and children as they were.
#include <gtest/gtest.h>

#include <functional>

#include "fosl/qvefosl_lines.h"
#include "long/long_support.h"

namespace qvetest {
namespace {

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

// The texts as "result" {"out", "err"}; null when both slots stayed null.
Json LocalMetricOutcome(qvefet_Context* context, const Props& props) {
  const RunOutcome r = LocalMetric(context, NewList(props).get());
  auto text = [](const Text& t) { return t ? Json(*t) : Json(); };
  Json outcome = Outcome(r.status, nullptr, nullptr);
  if (r.out || r.err)
    outcome["result"] = {{"out", text(r.out)}, {"err", text(r.err)}};
  if (r.kind != 0) outcome.update({{"kind", r.kind}, {"message", r.message}});
  return outcome;
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
// a property and the ENV_ARRAY block, output on both streams.
const Props kOsProps = {
    {"command", " /bin/sh -c 'cat; echo \"$V$W\" >&2' "}, {"ENVV", "v"},
    {"ENV_ARRAY", "{W=w}{X=1}"}, {"STDINa", "1"}, {"STDINb", "2\n3"},
    {"needCharsetConvert", "TRUE"}, {"KTDCLIENT_REQUEST_ID", "sweep"},
    {"KT_METRIC_TIMEOUT", "30"}};
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

Props WithWarningFromStderr(Props props) {
  props.emplace_back("useStdErrForWarning", "TRUE");
  return props;
}

const EntryPoint kEntryPoints[] = {
    {"os", ThroughFetchlet(kOs, WithWarningFromStderr(kOsProps)),
     Succeeded(Flat({{kOsStdout}}, "vw\n"))},
    {"osline", ThroughFetchlet(kOsLine, kTableProps),
     Succeeded(Nested({{{"a,b"}}, {{"z=1,2"}}}, "low\nhigh\n"))},
    {"oslinetoken", ThroughFetchlet(kOsLineToken, kTableProps),
     Succeeded(Nested({{{"a", "b"}}, {{"z=1", "2"}}}, "low\nhigh\n"))},
    {"udm", ThroughFetchlet(kUdm, kUdmProps),
     Succeeded(UdmRow("sweep", "7", nullptr, "m")), true},
    {"getLocalMetric",
     [](qvefet_Context* context, const TestAccount*) {
       return LocalMetricOutcome(context, kOsProps);
     },
     Succeeded(Json{{"out", kOsStdout}, {"err", "vw\n"}})},
    {"getLines",
     [](qvefet_Context*, const TestAccount*) { return Lines("a\r\nb\n\nc"); },
     Succeeded(Json{"a", "b", "", "c"})},
};

// Success with a result, or -1 with none and either no exception or one of
// the kinds for a refused object, a bad request or a failed run (memory
// running out among its reasons).
void ExpectSuccessOrDocumentedFailure(const Json& outcome) {
  if (outcome["status"] == 0) {
    EXPECT_FALSE(outcome["result"].is_null()) << outcome.dump();
    return;
  }
  EXPECT_EQ(outcome["status"], -1) << outcome.dump();
  EXPECT_TRUE(outcome["result"].is_null()) << outcome.dump();
  if (!outcome.contains("kind")) return;
  const int32_t kind = outcome["kind"];
  EXPECT_TRUE(kind == QVE_EXC_NO_RESULT || kind == QVE_EXC_BAD_REQUEST ||
              kind == QVE_EXC_RUN_FAILED)
      << outcome.dump();
}

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
      const Json outcome = GetParam().call(context_, account_);
      const bool faulted = qvehost::AllocationCount(module) >= k;
      qvehost::ResetFaults();
      if (faulted) {
        ExpectSuccessOrDocumentedFailure(outcome);
      } else {
        EXPECT_EQ(outcome, GetParam().expected);
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
