// Ten thousand evaluations through the four fetchlets, in a fixed shuffled
// mix of successes, failed exits, missing programs, wrong passwords,
// time-outs and aborts: every one gives its outcome, and the host keeps no
// descriptor, child or block of them.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <iostream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "fosud/udm_support.h"
#include "long/long_support.h"

namespace qvetest {
namespace {

constexpr int kEvaluations = 10000;
constexpr char kRequestIdName[] = "KTDCLIENT_REQUEST_ID";

// One kind of evaluation in the mix.
struct Mix {
  const char* name;
  const Fetchlet* fetchlet;
  int count;  // 0: whatever the other kinds leave of kEvaluations
  Props props;
  Json expected;
  bool asUser = false;         // with the account's credentials (as root)
  bool wrongPassword = false;  // ... but not its password
  bool aborted = false;        // aborted from another thread once registered
};

const Props kFailingExit = {
    {"command", "/bin/sh -c 'echo out; echo err >&2; exit 1'"}};
const Props kNotFound = {{"command", "/no/such/program"}};
const Props kSleeps = {{"command", "sleep 30"}};
const Props kSleepsOneSecond = {{"command", "sleep 30"},
                                {"KT_METRIC_TIMEOUT", "1"}};
const Props kUdmSleeps = {
    {"command", "/bin/sleep"}, {"args", "30"}, {"ID", "soak"}};
const Props kUdmSleepsOneSecond = {{"command", "/bin/sleep"},
                                   {"args", "30"},
                                   {"ID", "soak"},
                                   {"KT_METRIC_TIMEOUT", "1"}};
const Props kUdmValue = {{"command", "/bin/sh"},
                         {"args", "-c 'echo kt_message=m; echo kt_result=1'"},
                         {"ID", "soak"},
                         {"valuetype", "NUMBER"}};
const Props kSecure = {{"isSecureCommand", "TRUE"}, {"command", "id -un"}};

Props Plus(Props props, const Props& more) {
  props.insert(props.end(), more.begin(), more.end());
  return props;
}

const Json kExit1 = Failed(QVE_EXC_RUN_FAILED, "out\nerr\n");
const Json kNoProgram =
    Failed(QVE_EXC_RUN_FAILED, "/no/such/program: not found");
const Json kTimedOut =
    Failed(QVE_EXC_TIMEOUT, "Metric execution timed out in 1 seconds");
const Json kAborted = Failed(QVE_EXC_TIMEOUT, "Metric execution aborted");
const Json kWrongPassword =
    Failed(QVE_EXC_RUN_FAILED, "Authentication failed: wrong password ");

const Mix kMix[] = {
    {"OsEcho", &kOs, 0, {{"command", "echo ok"}}, Succeeded(Flat({{"ok\n"}}))},
    {"OsExit1", &kOs, 500, kFailingExit, kExit1},
    {"OsNotFound", &kOs, 300, kNotFound, kNoProgram},
    {"OsTimeOut", &kOs, 5, kSleepsOneSecond, kTimedOut},
    {"OsAbort", &kOs, 5, kSleeps, kAborted, false, false, true},
    {"OsAsUser", &kOs, 100, kSecure, Succeeded(Flat({{"{user}\n"}})), true},
    {"OsWrongPassword", &kOs, 5, kSecure, kWrongPassword, true, true},
    {"LineStdin",
     &kOsLine,
     2000,
     {{"command", "cat"}, {"STDINa", "1\n2"}},
     Succeeded(Flat({{"a=__BeginProp__"}, {"1"}, {"2"}, {"__EndProp__"}}))},
    {"LineExit1", &kOsLine, 300, kFailingExit, kExit1},
    {"LineNotFound", &kOsLine, 300, kNotFound, kNoProgram},
    {"LineTimeOut", &kOsLine, 5, kSleepsOneSecond, kTimedOut},
    {"LineAbort", &kOsLine, 5, kSleeps, kAborted, false, false, true},
    {"TokenTable",
     &kOsLineToken,
     2000,
     {{"command", "printf 'a b\\nW:w\\nc d\\n'"},
      {"delimiter", " "},
      {"warningStartsWith", "W:"}},
     Succeeded(Flat({{"a", "b"}, {"c", "d"}}, "w\n"))},
    {"TokenExit1", &kOsLineToken, 300, kFailingExit, kExit1},
    {"TokenNotFound", &kOsLineToken, 300, kNotFound, kNoProgram},
    {"TokenTimeOut", &kOsLineToken, 5, kSleepsOneSecond, kTimedOut},
    {"TokenAbort", &kOsLineToken, 5, kSleeps, kAborted, false, false, true},
    {"UdmValue", &kUdm, 300, kUdmValue,
     udm::Succeeded(udm::Row("soak", "1", nullptr, "m")), true},
    {"UdmExit1", &kUdm, 30, Plus(kFailingExit, {{"ID", "soak"}}),
     udm::Failed(-1, QVE_EXC_RUN_FAILED, "out\nerr\n"), true},
    {"UdmNotFound", &kUdm, 30, Plus(kNotFound, {{"ID", "soak"}}),
     udm::Failed(-1, QVE_EXC_RUN_FAILED, "Unable to run the process"), true},
    {"UdmWrongPassword", &kUdm, 5, kUdmValue, kWrongPassword, true, true},
    {"UdmTimeOut", &kUdm, 5, kUdmSleepsOneSecond, kTimedOut, true},
    {"UdmAbort", &kUdm, 5, kUdmSleeps, kAborted, true, false, true},
};

// Aborts requestId as soon as its run has registered, until stopped.
class Aborter {
 public:
  explicit Aborter(std::string requestId)
      : thread_([this, id = std::move(requestId)] {
          while (!stop_ && !qvehost::AbortRequest(id)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
          }
        }) {}
  ~Aborter() {
    stop_ = true;
    thread_.join();
  }
  Aborter(const Aborter&) = delete;
  Aborter& operator=(const Aborter&) = delete;

 private:
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

// The indices of the mix, each as often as its count, in a fixed shuffle;
// kinds that need the account are left out without one.
std::vector<size_t> Schedule(bool withAccount) {
  std::vector<size_t> order;
  size_t rest = 0;
  for (size_t i = 0; i < std::size(kMix); ++i) {
    if (kMix[i].count == 0) rest = i;
    if (kMix[i].asUser && !withAccount) continue;
    order.insert(order.end(), static_cast<size_t>(kMix[i].count), i);
  }
  order.resize(kEvaluations, rest);
  std::shuffle(order.begin(), order.end(), std::mt19937(20240607));
  return order;
}

// Outcomes of one kind of the mix that differed from the expected one.
struct Tally {
  int runs = 0;
  int wrong = 0;
  Json first;
};

class SoakTest : public testing::Test {
 protected:
  ~SoakTest() override { qvehost::DeleteContext(context_); }

  Json Run(const Mix& mix, size_t serial) {
    Props props = mix.props;
    const std::string requestId = "soak-" + std::to_string(serial);
    if (mix.aborted) props.emplace_back(kRequestIdName, requestId);
    if (mix.asUser) {
      props = WithCredentials(*account_, props, !mix.wrongPassword);
    }
    if (!mix.aborted) return Evaluate(mix.fetchlet->getMetric, context_, props);
    const Aborter aborter(requestId);
    return Evaluate(mix.fetchlet->getMetric, context_, props);
  }

  // The expected outcomes, {user} standing for the account's name.
  std::vector<Json> ExpectedOutcomes() const {
    std::vector<Json> expected;
    for (const Mix& mix : kMix) {
      std::string text = mix.expected.dump();
      const std::string user = "{user}";
      const size_t at = text.find(user);
      if (at != std::string::npos && account_ != nullptr) {
        text.replace(at, user.size(), account_->name);
      }
      expected.push_back(Json::parse(text));
    }
    return expected;
  }

  qvefet_Context* context_ = qvehost::NewContext();
  HostBaseline baseline_{context_};
  const TestAccount* account_ = nullptr;
};

TEST_F(SoakTest, TenThousandMixedEvaluationsLeaveTheHostAsItWas) {
  std::string noAccount;
  account_ = UdmAccount(&noAccount);
  if (account_ == nullptr) {
    std::cout << "evaluations under the account left out: " << noAccount
              << "\n";
  }
  std::vector<Tally> tallies(std::size(kMix));
  {
    const FetchletHandles handles(context_);
    const std::vector<Json> expected = ExpectedOutcomes();
    const std::vector<size_t> order = Schedule(account_ != nullptr);
    for (size_t serial = 0; serial < order.size(); ++serial) {
      const size_t kind = order[serial];
      const Json outcome = Run(kMix[kind], serial);
      Tally& tally = tallies[kind];
      ++tally.runs;
      if (outcome != expected[kind] && tally.wrong++ == 0) {
        tally.first = outcome;
      }
    }
  }
  for (size_t i = 0; i < std::size(kMix); ++i) {
    EXPECT_EQ(tallies[i].wrong, 0)
        << kMix[i].name << " of " << tallies[i].runs << " runs, first "
        << tallies[i].first.dump() << "\nexpected " << kMix[i].expected.dump();
  }
  baseline_.ExpectUnchanged();
  if (account_ != nullptr) {
    EXPECT_EQ(ProcessesOf(account_->uid), std::vector<int>{});
  }
}

}  // namespace
}  // namespace qvetest
