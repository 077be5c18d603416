// Running commands and metrics through the plug-in from tests, with every
// outcome as one JSON value that compares and prints whole.
#ifndef QVE_TESTS_COMMON_RUN_SUPPORT_H_
#define QVE_TESTS_COMMON_RUN_SUPPORT_H_

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <optional>
#include <thread>

#include "common/result_json.h"
#include "common/host_argv.h"
#include "common/processes.h"
#include "common/test_account.h"
#include "fos/qvefos_driver.h"
#include "fos/qvefos_runner.h"
#include "qve/embedded.h"

namespace qvetest {

using Json = nlohmann::json;
using Props = std::vector<std::pair<std::string, std::string>>;
using Strings = std::vector<std::string>;
using Table = std::vector<Strings>;
using Text = std::optional<std::string>;  // nullopt: a null text

// A host property list holding props in order.
inline auto NewList(const Props& props) {
  std::unique_ptr<qvlnv_NVList, void (*)(qvlnv_NVList*)> list(
      qvehost::NewPropertyList(), qvehost::DeletePropertyList);
  for (const auto& [name, value] : props) {
    qvehost::SetProperty(list.get(), name, value);
  }
  return list;
}

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
inline Text TakeText(char* text) {
  if (text == nullptr) return std::nullopt;
  std::string copy(text);
  qve_free0(text, "tests", 0);
  return copy;
}

// {"status", "result"}, plus "kind" and "message" of an exception; the
// result and the exception are released.
inline Json Outcome(int32_t status, qvedrmr_MetricResult* result,
                    qveue_Exception* exception) {
  Json outcome = {{"status", status}, {"result", nullptr}};
  if (result != nullptr) {
    outcome["result"] = qvetest::ResultJson(result);
    qvedrmr_MetricResult_delete(result);
  }
  if (exception != nullptr) {
    outcome["kind"] = qveue_Exception_getKind(exception);
    outcome["message"] = qveue_Exception_getErrorMessage(exception);
    qveue_Exception_delete(exception);
  }
  return outcome;
}

// The result of the runner and the local driver: {"out", "err"}, or null
// when both texts are null.
inline Json Texts(const Text& out, const Text& err) {
  if (!out && !err) return nullptr;
  auto text = [](const Text& t) { return t ? Json(*t) : Json(); };
  return {{"out", text(out)}, {"err", text(err)}};
}
inline Json TextsOutcome(int32_t status, char* out, char* err,
                         qveue_Exception* exception) {
  Json outcome = Outcome(status, nullptr, exception);
  outcome["result"] = Texts(TakeText(out), TakeText(err));
  return outcome;
}

// Host-allocated strings, as the runner takes argv (it replaces argv[0]);
// null for none. Released by the deleter.
inline auto NewStrings(const Strings& strings) {
  auto release = [](char** array) { FreeHostArgv(array, "tests"); };
  return std::unique_ptr<char*, decltype(release)>(
      strings.empty() ? nullptr : NewHostArgv(strings, "tests"), release);
}

struct RunOptions {
  Strings env = {};  // empty: a null environment
  Text stdinText = {};
  int32_t timeoutSeconds = -1;
  const char* requestId = nullptr;
  int32_t separateErrorStream = 0;
  bool withExceptionSlot = true;
};
// qvefos_executeCommand on args, or on "/bin/sh -c script".
inline Json RunCommand(qvefet_Context* context, const Strings& args,
                       const RunOptions& o = {}) {
  char *out = nullptr, *err = nullptr;
  qveue_Exception* exception = nullptr;
  const int32_t status = qvefos_executeCommand(
      context, NewStrings(args).get(), NewStrings(o.env).get(),
      o.stdinText ? o.stdinText->c_str() : nullptr, o.timeoutSeconds,
      o.requestId, o.separateErrorStream, &out, &err,
      o.withExceptionSlot ? &exception : nullptr,
      qveulm_getLogCtx(context->logSource, "fetchlets.os"));
  return TextsOutcome(status, out, err, exception);
}
inline Json RunShell(qvefet_Context* context, const std::string& script,
                     const RunOptions& options = {}) {
  return RunCommand(context, {"/bin/sh", "-c", script}, options);
}
// qvefos_getLocalMetric on list (null allowed).
inline Json LocalMetric(qvefet_Context* context, qvlnv_NVList* list,
                        bool withExceptionSlot = true) {
  char *out = nullptr, *err = nullptr;
  qveue_Exception* exception = nullptr;
  const int32_t status = qvefos_getLocalMetric(
      context, list, 0, &out, &err, withExceptionSlot ? &exception : nullptr,
      qveulm_getLogCtx(context->logSource, "fetchlets.os"));
  return TextsOutcome(status, out, err, exception);
}

// getMetric called as an agent calls it (without a slot: with null there).
inline Json Evaluate(qvefet_GetMetricFn getMetric, qvefet_Context* context,
                     qvlnv_NVList* list, bool withExceptionSlot = true) {
  // Not null beforehand, so that a missed store shows.
  auto* result = reinterpret_cast<qvedrmr_MetricResult*>(context);
  qveue_Exception* exception = nullptr;
  const int32_t status = getMetric(context, list, &result,
                                   withExceptionSlot ? &exception : nullptr);
  return Outcome(status, result, exception);
}
inline Json Evaluate(qvefet_GetMetricFn getMetric, qvefet_Context* context,
                     const Props& props, bool withExceptionSlot = true) {
  return Evaluate(getMetric, context, NewList(props).get(), withExceptionSlot);
}

// Results as qvetest::ResultJson gives them: a row per table row, or one
// row whose column k holds table k; the UDM's row of ID, number value,
// string value and message.
inline Json Flat(const Table& table, Json warning = nullptr) {
  return {{"rows", table}, {"warning", std::move(warning)}};
}
inline Json Nested(const std::vector<Table>& tables, Json warning = nullptr) {
  Json cells = Json::array();
  for (const Table& table : tables) cells.push_back({{"rows", table}});
  return {{"rows", Json::array({cells})}, {"warning", std::move(warning)}};
}
inline Json UdmRow(Json id, Json number, Json string, Json message) {
  return {{"rows", Json::array({Json::array({id, number, string, message})})},
          {"warning", nullptr}};
}
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
  explicit ServerVersion(int32_t v) { qvehost::SetServerVersion(v); }
  ~ServerVersion() { qvehost::SetServerVersion(QVE_SERVER_VERSION_CURRENT); }
};
inline constexpr int32_t kOldServer = QVE_SERVER_VERSION_CURRENT - 1;

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

// text with every "{user}" replaced by name.
inline std::string WithUser(std::string text, const std::string& name) {
  for (size_t at = text.find("{user}"); at != std::string::npos;
       at = text.find("{user}", at + name.size())) {
    text.replace(at, 6, name);
  }
  return text;
}

}  // namespace qvetest

#endif  // QVE_TESTS_COMMON_RUN_SUPPORT_H_
