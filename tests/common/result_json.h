// Host results as JSON and back, for tables of expected rows: a result is
// {"rows":[ROW,...],"warning":W}; a row is an array of cells up to its
// highest set column; a cell is a string, null, or {"rows":[...]}.
#ifndef QVE_TESTS_COMMON_RESULT_JSON_H_
#define QVE_TESTS_COMMON_RESULT_JSON_H_

#include <string>

#include <nlohmann/json.hpp>

#include "qve/embedded.h"

namespace qvetest {

inline nlohmann::json RowJson(const qvedrvr_ValueRow* row) {
  if (row == nullptr) return nullptr;
  nlohmann::json cells = nlohmann::json::array();
  for (const qvehost::CellView& cell : qvehost::RowView(*row)) {
    if (cell.kind == qvehost::CellView::Kind::kTable) {
      nlohmann::json nested = nlohmann::json::array();
      for (const qvedrvr_ValueRow* r : cell.rows) nested.push_back(RowJson(r));
      cells.push_back(nlohmann::json{{"rows", std::move(nested)}});
    } else if (cell.kind == qvehost::CellView::Kind::kText) {
      cells.push_back(std::string(cell.text));
    } else {
      cells.push_back(nullptr);
    }
  }
  return cells;
}

// Strings are kept byte for byte: dump with the replace error handler.
inline nlohmann::json ResultJson(const qvedrmr_MetricResult* result) {
  if (result == nullptr) return nullptr;
  nlohmann::json rows = nlohmann::json::array();
  for (const qvedrvr_ValueRow* row : qvehost::ResultRows(result)) {
    rows.push_back(RowJson(row));
  }
  const std::string* warning = qvehost::ResultWarning(result);
  return {{"rows", std::move(rows)},
          {"warning", warning != nullptr ? nlohmann::json(*warning) : nullptr}};
}

// A row made by the host from its JSON form.
inline qvedrvr_ValueRow* NewRow(const nlohmann::json& cells) {
  qvedrvr_ValueRow* row = qvedrvr_ValueRow_new();
  int32_t column = 0;
  for (const nlohmann::json& cell : cells) {
    if (cell.is_object()) {
      qveuv_Vector* rows = qveuv_Vector_new();
      for (const nlohmann::json& nested : cell["rows"]) {
        qveuv_Vector_addElement(rows, NewRow(nested));
      }
      qvedrmv_MetricValue* value = qvedrmv_MetricValue_new();
      qvedrmv_setNestedRows(value, rows);
      qvedrvr_ValueRow_setMetricValue(row, column, value);
    } else {
      qvedrvr_ValueRow_setStringValue(
          row, column,
          cell.is_string() ? cell.get_ref<const std::string&>().c_str()
                           : nullptr);
    }
    ++column;
  }
  return row;
}

// A result of rows; the caller releases it.
inline qvedrmr_MetricResult* NewResult(const nlohmann::json& rows) {
  qvedrmr_MetricResult* result = qvedrmr_MetricResult_new();
  for (const nlohmann::json& row : rows) {
    qvedrmr_MetricResult_addValueRow(result, NewRow(row));
  }
  return result;
}

}  // namespace qvetest

#endif  // QVE_TESTS_COMMON_RESULT_JSON_H_
