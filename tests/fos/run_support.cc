#include "fos/run_support.h"

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "fos/qvefos_driver.h"
#include "fos/qvefos_runner.h"

namespace qvetest {
namespace {

// Host-allocated strings, as the runner takes argv; null for no strings.
char** NewStrings(const Strings& strings) {
  if (strings.empty()) return nullptr;
  auto** array = static_cast<char**>(
      qve_alloc0((strings.size() + 1) * sizeof(char*), "tests", __LINE__));
  for (size_t i = 0; i < strings.size(); ++i) {
    array[i] = qve_allocpy0(strings[i].c_str(), "tests", __LINE__);
  }
  return array;
}

void FreeStrings(char** strings) {
  if (strings == nullptr) return;
  for (char** s = strings; *s != nullptr; ++s) qve_free0(*s, "tests", 0);
  qve_free0(strings, "tests", 0);
}

RunOutcome Take(int32_t status, char* out, char* err,
                qveue_Exception* exception) {
  RunOutcome outcome{status, TakeText(out), TakeText(err), 0, ""};
  if (exception != nullptr) {
    outcome.kind = qveue_Exception_getKind(exception);
    outcome.message = qveue_Exception_getErrorMessage(exception);
    qveue_Exception_delete(exception);
  }
  return outcome;
}

Json Rows(const Table& table) {
  Json rows = Json::array();
  for (const auto& row : table) rows.push_back(Json(row));
  return rows;
}

}  // namespace

Text TakeText(char* text) {
  if (text == nullptr) return std::nullopt;
  std::string copy(text);
  qve_free0(text, "tests", 0);
  return copy;
}

PropertyList NewList(const Props& props) {
  PropertyList list(qvehost::NewPropertyList(), qvehost::DeletePropertyList);
  for (const auto& [name, value] : props) {
    qvehost::SetProperty(list.get(), name, value);
  }
  return list;
}

RunOutcome RunCommand(qvefet_Context* context, const Strings& args,
                      const RunOptions& o) {
  char** argv = NewStrings(args);
  char** envp = NewStrings(o.env);
  char *out = nullptr, *err = nullptr;
  qveue_Exception* exception = nullptr;
  const int32_t status = qvefos_executeCommand(
      context, argv, envp, o.stdinText ? o.stdinText->c_str() : nullptr,
      o.timeoutSeconds, o.requestId, o.separateErrorStream, &out, &err,
      o.withExceptionSlot ? &exception : nullptr,
      qveulm_getLogCtx(context->logSource, "fetchlets.os"));
  FreeStrings(argv);
  FreeStrings(envp);
  return Take(status, out, err, exception);
}

void PrintTo(const RunOutcome& o, std::ostream* os) {
  *os << "{" << o.status << ", " << testing::PrintToString(o.out) << ", "
      << testing::PrintToString(o.err) << ", " << o.kind << ", \"" << o.message
      << "\"}";
}

RunOutcome LocalMetric(qvefet_Context* context, qvlnv_NVList* list,
                       bool withExceptionSlot) {
  char *out = nullptr, *err = nullptr;
  qveue_Exception* exception = nullptr;
  const int32_t status = qvefos_getLocalMetric(
      context, list, 0, &out, &err, withExceptionSlot ? &exception : nullptr,
      qveulm_getLogCtx(context->logSource, "fetchlets.os"));
  return Take(status, out, err, exception);
}

Json Outcome(int32_t status, qvedrmr_MetricResult* result,
             qveue_Exception* exception) {
  Json outcome = {{"status", status}, {"result", nullptr}};
  if (result != nullptr) {
    outcome["result"] = qvehost::ResultToJson(result);
    qvedrmr_MetricResult_delete(result);
  }
  if (exception != nullptr) {
    outcome["kind"] = qveue_Exception_getKind(exception);
    outcome["message"] = qveue_Exception_getErrorMessage(exception);
    qveue_Exception_delete(exception);
  }
  return outcome;
}

Json Evaluate(qvefet_GetMetricFn getMetric, qvefet_Context* context,
              qvlnv_NVList* list, bool withExceptionSlot) {
  // Not null beforehand, so that a missed store shows.
  auto* result = reinterpret_cast<qvedrmr_MetricResult*>(context);
  qveue_Exception* exception = nullptr;
  const int32_t status = getMetric(context, list, &result,
                                   withExceptionSlot ? &exception : nullptr);
  return Outcome(status, result, exception);
}

Json Flat(const Table& table, Json warning) {
  return {{"rows", Rows(table)}, {"warning", std::move(warning)}};
}

Json Nested(const std::vector<Table>& tables, Json warning) {
  Json cells = Json::array();
  for (const Table& table : tables) cells.push_back({{"rows", Rows(table)}});
  return {{"rows", Json::array({cells})}, {"warning", std::move(warning)}};
}

Json UdmRow(Json id, Json number, Json string, Json message) {
  return {{"rows", Json::array({Json::array({id, number, string, message})})},
          {"warning", nullptr}};
}

const TestAccount* LauncherAccount(std::string* reason) {
  *reason = LauncherSkipReason();
  if (!reason->empty()) return nullptr;
  const TestAccount* account = AccountStore::Get().Shared();
  if (account == nullptr) *reason = "cannot make a test account";
  return account;
}

std::string WithUser(std::string text, const std::string& name) {
  for (size_t at = text.find("{user}"); at != std::string::npos;
       at = text.find("{user}", at + name.size())) {
    text.replace(at, 6, name);
  }
  return text;
}

std::set<int> OpenDescriptors() {
  // The listing's own descriptor is among them, the same one every time
  // while the others are the same.
  std::set<int> fds;
  for (const auto& fd : std::filesystem::directory_iterator("/proc/self/fd")) {
    fds.insert(std::stoi(fd.path().filename()));
  }
  return fds;
}

void BecomeSubreaper() { prctl(PR_SET_CHILD_SUBREAPER, 1); }

std::vector<int> ChildPids() {
  // Every thread's children, zombies included.
  std::vector<int> pids;
  for (const auto& task :
       std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream children(task.path() / "children");
    for (int pid = 0; children >> pid;) pids.push_back(pid);
  }
  return pids;
}

std::vector<int> SurvivingChildren() {
  // Grandchildren of a killed group are orphaned to this process; they die
  // of the group's SIGKILL and are reaped here. One still running after a
  // while was never killed.
  std::vector<int> alive;
  for (int attempt = 0; attempt < 100; ++attempt) {
    alive.clear();
    for (int pid : ChildPids()) {
      if (waitpid(pid, nullptr, WNOHANG) == 0) alive.push_back(pid);
    }
    if (alive.empty()) break;
    usleep(30000);
  }
  return alive;
}

}  // namespace qvetest
