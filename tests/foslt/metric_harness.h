// Expected tables as JSON, and a fetchlet's getMetric called through the host
// the way an agent calls it, for the line and token fetchlet tests.
#ifndef QVE_TESTS_FOSLT_METRIC_HARNESS_H_
#define QVE_TESTS_FOSLT_METRIC_HARNESS_H_

#include <string>
#include <utility>
#include <vector>

#include "qve/embedded.h"
#include "qve/host.h"

namespace qvetest {

using Json = nlohmann::json;
using Props = std::vector<std::pair<std::string, std::string>>;
using Table = std::vector<std::vector<std::string>>;

inline Json Rows(const Table& table) {
  Json rows = Json::array();
  for (const auto& row : table) rows.push_back(Json(row));
  return rows;
}

// A result of one row per table row, as qvehost::ResultToJson gives it.
inline Json Flat(const Table& table, Json warning = nullptr) {
  return Json{{"rows", Rows(table)}, {"warning", std::move(warning)}};
}

// A result of one row whose column k holds table k as nested rows.
inline Json Nested(const std::vector<Table>& tables, Json warning = nullptr) {
  Json cells = Json::array();
  for (const Table& table : tables)
    cells.push_back(Json{{"rows", Rows(table)}});
  return Json{{"rows", Json::array({cells})}, {"warning", std::move(warning)}};
}

// {"status", "result"} and, when an exception came back, "kind" and
// "message". Without an exception slot the call is made with null there.
inline Json Evaluate(qvefet_GetMetricFn getMetric, qvefet_Context* context,
                     const Props& props, bool exceptionSlot = true) {
  qvlnv_NVList* list = qvehost::NewPropertyList();
  for (const auto& [name, value] : props) {
    qvehost::SetProperty(list, name, value);
  }
  // Not null beforehand, so that a missed store shows.
  auto* result = reinterpret_cast<qvedrmr_MetricResult*>(&list);
  qveue_Exception* exception = nullptr;
  const int32_t status =
      getMetric(context, list, &result, exceptionSlot ? &exception : nullptr);
  qvehost::DeletePropertyList(list);
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

inline Json Succeeded(Json result) {
  return Json{{"status", 0}, {"result", std::move(result)}};
}

inline Json Failed(int32_t kind, const std::string& message) {
  return Json{{"status", -1},
              {"result", nullptr},
              {"kind", kind},
              {"message", message}};
}

}  // namespace qvetest

#endif  // QVE_TESTS_FOSLT_METRIC_HARNESS_H_
