// Metric results and metric values, and their borrowed views; the rows
// they hold are in value_row.cc.
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "guard.h"
#include "host_internal.h"
#include "qve/embedded.h"
#include "qve/host.h"

namespace {

void DeleteNestedRows(qveuv_Vector* rows);

}  // namespace

struct qvedrmv_MetricValue {
  qvedrmv_MetricValue() = default;
  qvedrmv_MetricValue(const qvedrmv_MetricValue&) = delete;
  qvedrmv_MetricValue& operator=(const qvedrmv_MetricValue&) = delete;
  ~qvedrmv_MetricValue() { DeleteNestedRows(rows); }

  qveuv_Vector* rows = nullptr;  // of qvedrvr_ValueRow, owned with its rows
};

struct qvedrmr_MetricResult {
  qvedrmr_MetricResult() = default;
  qvedrmr_MetricResult(const qvedrmr_MetricResult&) = delete;
  qvedrmr_MetricResult& operator=(const qvedrmr_MetricResult&) = delete;
  ~qvedrmr_MetricResult() {
    for (qvedrvr_ValueRow* row : rows) qvehost::internal::DeleteRow(row);
  }

  std::vector<qvedrvr_ValueRow*> rows;
  std::string warning;
  bool has_warning = false;
};

namespace {

using qvehost::internal::DeleteRow;
using qvehost::internal::RowCell;

void DeleteNestedRows(qveuv_Vector* rows) {
  if (rows == nullptr) return;
  int32_t count = qveuv_Vector_size(rows);
  for (int32_t i = 0; i < count; ++i) {
    DeleteRow(static_cast<qvedrvr_ValueRow*>(qveuv_Vector_elementAt(rows, i)));
  }
  qveuv_Vector_delete(rows);
}

}  // namespace

using qvehost::internal::Guarded;

extern "C" {

qvedrmr_MetricResult* qvedrmr_MetricResult_new(void) {
  return Guarded<qvedrmr_MetricResult*>(
      __func__, nullptr, [&]() -> qvedrmr_MetricResult* {
    if (qvehost::internal::MetricResultRefused()) return nullptr;
    return qvehost::internal::NewObject<qvedrmr_MetricResult>();
  });
}

void qvedrmr_MetricResult_addValueRow(qvedrmr_MetricResult* result,
                                      qvedrvr_ValueRow* row) {
  Guarded(__func__, [&] {
    if (row == nullptr) return;
    try {
      if (result != nullptr) {
        result->rows.push_back(row);
        qvehost::internal::CompactRow(row);
        return;
      }
    } catch (...) {
    }
    DeleteRow(row);  // the row was handed over: it must not leak
  });
}

void qvedrmr_MetricResult_setWarning(qvedrmr_MetricResult* result,
                                     const char* text) {
  Guarded(__func__, [&] {
    if (result == nullptr) return;
    result->warning = text != nullptr ? text : "";
    result->has_warning = text != nullptr;
  });
}

void qvedrmr_MetricResult_delete(qvedrmr_MetricResult* result) {
  Guarded(__func__, [&] {
    qvehost::internal::DeleteObject(result);
  });
}

qvedrmv_MetricValue* qvedrmv_MetricValue_new(void) {
  return Guarded<qvedrmv_MetricValue*>(
      __func__, nullptr, [&]() -> qvedrmv_MetricValue* {
    return qvehost::internal::NewObject<qvedrmv_MetricValue>();
  });
}

void qvedrmv_setNestedRows(qvedrmv_MetricValue* value, qveuv_Vector* rows) {
  Guarded(__func__, [&] {
    if (value == nullptr) {
      DeleteNestedRows(rows);
      return;
    }
    if (value->rows != rows) DeleteNestedRows(value->rows);
    value->rows = rows;
    int32_t count = qveuv_Vector_size(rows);
    for (int32_t i = 0; i < count; ++i) {
      qvehost::internal::CompactRow(
          static_cast<qvedrvr_ValueRow*>(qveuv_Vector_elementAt(rows, i)));
    }
  });
}

}  // extern "C"

namespace qvehost {

namespace internal {

void DeleteMetricValue(qvedrmv_MetricValue* value) { DeleteObject(value); }

}  // namespace internal

std::vector<const qvedrvr_ValueRow*> ResultRows(
    const qvedrmr_MetricResult* result) {
  if (result == nullptr) return {};
  return {result->rows.begin(), result->rows.end()};
}

const std::string* ResultWarning(const qvedrmr_MetricResult* result) {
  return result != nullptr && result->has_warning ? &result->warning : nullptr;
}

std::vector<CellView> RowView(const qvedrvr_ValueRow& row) {
  std::vector<CellView> cells;
  for (const RowCell& cell : internal::RowCells(row)) {
    CellView view;
    if (cell.kind == RowCell::Kind::kString) {
      view.kind = CellView::Kind::kText;
      view.text = cell.text;
    } else if (cell.kind == RowCell::Kind::kValue) {
      view.kind = CellView::Kind::kTable;
      qveuv_Vector* rows = cell.value->rows;
      const int32_t count = qveuv_Vector_size(rows);
      for (int32_t i = 0; i < count; ++i) {
        view.rows.push_back(
            static_cast<qvedrvr_ValueRow*>(qveuv_Vector_elementAt(rows, i)));
      }
    }
    cells.push_back(std::move(view));
  }
  return cells;
}

}  // namespace qvehost
