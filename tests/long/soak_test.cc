// Ten thousand evaluations through the four fetchlets, in a fixed shuffled
// mix of successes, failed exits, missing programs, wrong passwords,
// time-outs and aborts: every one gives its outcome, and the host keeps no
// descriptor, child or block of them.
#include <gtest/gtest.h>

#include <algorithm>
#include <iostream>
#include <random>

#include "long/long_support.h"

namespace qvetest {
namespace {

constexpr int kEvaluations = 10000;

// One kind of evaluation in the mix.
struct Mix {
  const Fetchlet* fetchlet;
  int count;  // the first kind: whatever the others leave of kEvaluations
  Props props;
  Json expected;        // an abort is aimed at every run expected to be aborted
  bool asUser = false;  // with the account's credentials (as root)
};

const Props kFailingExit = {
    {"command", "/bin/sh -c 'echo out; echo err >&2; exit 1'"}, {"ID", "soak"}};
const Props kNotFound = {{"command", "/no/such/program"}, {"ID", "soak"}};
const Props kSleeps = {{"command", "/bin/sleep 30"}, {"ID", "soak"}};
const Props kSleepsOneSecond = {
    {"command", "/bin/sleep 30"}, {"ID", "soak"}, {"KT_METRIC_TIMEOUT", "1"}};
const Props kUdmValue = {{"command", "/bin/sh"},
                         {"args", "-c 'echo kt_message=m; echo kt_result=1'"},
                         {"ID", "soak"},
                         {"valuetype", "NUMBER"}};
const Props kUdmWrongPassword = {
    {"command", "/bin/true"}, {"ID", "soak"}, {"password", "wrong"}};

const Json kExit1 = Failed(QVE_EXC_RUN_FAILED, "out\nerr\n");
const Json kTimedOut =
    Failed(QVE_EXC_TIMEOUT, "Metric execution timed out in 1 seconds");
const Json kAborted = Failed(QVE_EXC_TIMEOUT, "Metric execution aborted");

// clang-format off
const Mix kMix[] = {
    {&kOs, 0, {{"command", "echo ok"}}, Succeeded(Flat({{"ok\n"}}))},
    {&kOs, 500, kFailingExit, kExit1},
    {&kOs, 300, kNotFound,
     Failed(QVE_EXC_RUN_FAILED, "/no/such/program: not found")},
    {&kOs, 5, kSleepsOneSecond, kTimedOut},
    {&kOs, 100, {{"isSecureCommand", "TRUE"}, {"command", "id -un"}},
     Succeeded(Flat({{"{user}\n"}})), true},
    {&kOsLine, 2000, {{"command", "cat"}, {"STDINa", "1\n2"}},
     Succeeded(Flat({{"a=__BeginProp__"}, {"1"}, {"2"}, {"__EndProp__"}}))},
    {&kOsLine, 300, kFailingExit, kExit1},
    {&kOsLine, 5, kSleeps, kAborted},
    {&kOsLineToken, 2000,
     {{"command", "printf 'a b\\nW:w\\nc d\\n'"}, {"delimiter", " "},
      {"warningStartsWith", "W:"}},
     Succeeded(Flat({{"a", "b"}, {"c", "d"}}, "w\n"))},
    {&kOsLineToken, 5, kSleepsOneSecond, kTimedOut},
    {&kUdm, 300, kUdmValue, Succeeded(UdmRow("soak", "1", nullptr, "m")), true},
    {&kUdm, 30, kFailingExit, kExit1, true},
    {&kUdm, 30, kNotFound,
     Failed(QVE_EXC_RUN_FAILED, "Unable to run the process"), true},
    {&kUdm, 5, kUdmWrongPassword,
     Failed(QVE_EXC_RUN_FAILED, "Authentication failed: wrong password "),
     true},
    {&kUdm, 5, kSleepsOneSecond, kTimedOut, true},
    {&kUdm, 5, kSleeps, kAborted, true},
};
// clang-format on

// The indices of the mix, each as often as its count, in a fixed shuffle;
// kinds that need the account are left out without one.
std::vector<size_t> Schedule(bool withAccount) {
  std::vector<size_t> order;
  for (size_t i = 1; i < std::size(kMix); ++i) {
    if (kMix[i].asUser && !withAccount) continue;
    order.insert(order.end(), static_cast<size_t>(kMix[i].count), i);
  }
  order.resize(kEvaluations, 0);
  std::shuffle(order.begin(), order.end(), std::mt19937(20240607));
  return order;
}

class SoakTest : public LongTest {};

TEST_F(SoakTest, TenThousandMixedEvaluationsLeaveTheHostAsItWas) {
  if (UseAccount() == nullptr) {
    std::cout << "evaluations under the account left out: " << noAccount_
              << "\n";
  }
  const std::string user = account_ != nullptr ? account_->name : "";
  OpenHandles();
  // Per kind of the mix: the wrong outcomes and the first of them.
  std::vector<int> wrong(std::size(kMix));
  std::vector<Json> first(std::size(kMix));
  const std::vector<size_t> order = Schedule(account_ != nullptr);
  for (size_t serial = 0; serial < order.size(); ++serial) {
    const Mix& mix = kMix[order[serial]];
    Props props = mix.props;
    const std::string requestId = "soak-" + std::to_string(serial);
    props.emplace_back("KTDCLIENT_REQUEST_ID", requestId);
    if (mix.asUser) props = WithCredentials(*account_, props);
    std::optional<Aborter> aborter;
    if (mix.expected == kAborted) aborter.emplace(requestId);
    const Json outcome = Evaluate(mix.fetchlet->getMetric, context_, props);
    if (outcome.dump() != WithUser(mix.expected.dump(), user) &&
        wrong[order[serial]]++ == 0) {
      first[order[serial]] = outcome;
    }
  }
  for (size_t i = 0; i < std::size(kMix); ++i) {
    EXPECT_EQ(wrong[i], 0) << "kind " << i << " gave " << first[i].dump()
                           << "\nexpected " << kMix[i].expected.dump();
  }
  ExpectHostUnchanged();
}

}  // namespace
}  // namespace qvetest
