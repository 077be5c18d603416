// Running commands and metrics through the plug-in from tests, with the
// outcomes as values that compare whole.
#ifndef QVE_TESTS_FOS_RUN_SUPPORT_H_
#define QVE_TESTS_FOS_RUN_SUPPORT_H_

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "common/test_account.h"
#include "qve/embedded.h"

namespace qvetest {

using Json = nlohmann::json;
using Props = std::vector<std::pair<std::string, std::string>>;
using Strings = std::vector<std::string>;
using Table = std::vector<Strings>;
using Text = std::optional<std::string>;  // nullopt: a null text

// A host property list holding props in order.
using PropertyList = std::unique_ptr<qvlnv_NVList, void (*)(qvlnv_NVList*)>;
PropertyList NewList(const Props& props);

// A context and a capture of every log line, for most tests.
class PluginTest : public testing::Test {
 protected:
  ~PluginTest() override { qvehost::DeleteContext(context_); }
  Strings Logged(qvehost::LogLevel level, std::string_view logger = {}) const {
    return capture_.Texts(level, logger);
  }
  qvefet_Context* context_ = qvehost::NewContext();
  qvehost::LogCapture capture_;
};

// A host-allocated text, released; nullopt for null.
Text TakeText(char* text);

// What the plain runner or the local metric driver handed back.
struct RunOutcome {
  int32_t status = 0;
  Text out = {}, err = {};
  int32_t kind = 0;  // 0: no exception
  std::string message = {};
  bool operator==(const RunOutcome&) const = default;
};
void PrintTo(const RunOutcome& outcome, std::ostream* os);

struct RunOptions {
  Strings env = {};  // empty: a null environment
  Text stdinText = {};
  int32_t timeoutSeconds = -1;
  const char* requestId = nullptr;
  int32_t separateErrorStream = 0;
  bool withExceptionSlot = true;
};

// qvefos_executeCommand on args, or on "/bin/sh -c script".
RunOutcome RunCommand(qvefet_Context* context, const Strings& args,
                      const RunOptions& options = {});
inline RunOutcome RunShell(qvefet_Context* context, const std::string& script,
                           const RunOptions& options = {}) {
  return RunCommand(context, {"/bin/sh", "-c", script}, options);
}
// qvefos_getLocalMetric on list (null allowed).
RunOutcome LocalMetric(qvefet_Context* context, qvlnv_NVList* list,
                       bool withExceptionSlot = true);

// getMetric called as an agent calls it (without a slot: with null there):
// {"status", "result"}, plus "kind" and "message" of an exception.
Json Evaluate(qvefet_GetMetricFn getMetric, qvefet_Context* context,
              qvlnv_NVList* list, bool withExceptionSlot = true);
inline Json Evaluate(qvefet_GetMetricFn getMetric, qvefet_Context* context,
                     const Props& props, bool withExceptionSlot = true) {
  return Evaluate(getMetric, context, NewList(props).get(), withExceptionSlot);
}
// The same of a status, a result and an exception, which are released.
Json Outcome(int32_t status, qvedrmr_MetricResult* result,
             qveue_Exception* exception);

// Results as qvehost::ResultToJson gives them: a row per table row, or one
// row whose column k holds table k; the UDM's row of ID, number value,
// string value and message.
Json Flat(const Table& table, Json warning = nullptr);
Json Nested(const std::vector<Table>& tables, Json warning = nullptr);
Json UdmRow(Json id, Json number, Json string, Json message);
inline Json Succeeded(Json result) {
  return {{"status", 0}, {"result", std::move(result)}};
}
inline Json Failed(int32_t kind, const std::string& message,
                   int32_t status = -1) {
  return {{"status", status},
          {"result", nullptr},
          {"kind", kind},
          {"message", message}};
}
inline const Json kFailedQuietly = {{"status", -1}, {"result", nullptr}};

// The server version the host reports while the object lives.
struct ServerVersion {
  explicit ServerVersion(int32_t version) {
    qvehost::SetServerVersion(version);
  }
  ~ServerVersion() { qvehost::SetServerVersion(kCurrentServer); }
  static constexpr int32_t kCurrentServer = QVE_SERVER_VERSION_CURRENT;
  static constexpr int32_t kOldServer = QVE_SERVER_VERSION_CURRENT - 1;
};

// Aborts requestId from another thread as soon as a run has registered it.
class Aborter {
 public:
  explicit Aborter(std::string requestId)
      : thread_([this, id = std::move(requestId)] {
          while (!stop_ && !qvehost::AbortRequest(id)) usleep(1000);
        }) {}
  ~Aborter() {
    stop_ = true;
    thread_.join();
  }

 private:
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

// The launcher's account, or null with *reason set when this process cannot
// make one or run the launcher.
const TestAccount* LauncherAccount(std::string* reason);
// text with every "{user}" replaced by name.
std::string WithUser(std::string text, const std::string& name);

std::set<int> OpenDescriptors();
// Makes this process the reaper of orphaned descendants, so tests can see
// that none is left.
void BecomeSubreaper();
// This process's children, zombies included.
std::vector<int> ChildPids();
// Reaps the orphans a killed run left here and returns the children still
// running after a few seconds: none, if nothing leaked.
std::vector<int> SurvivingChildren();

}  // namespace qvetest

#endif  // QVE_TESTS_FOS_RUN_SUPPORT_H_
