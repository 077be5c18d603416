// Metric results, value rows and metric values, and their JSON form.
//
// A table of a million rows must not cost a heap string per cell: a row keeps
// a small record per column and all its texts in one buffer.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "host_internal.h"
#include "qve/embedded.h"
#include "qve/host.h"

namespace {

void DeleteRow(qvedrvr_ValueRow* row);
void DeleteNestedRows(qveuv_Vector* rows);

// The cells of one row and their texts in one buffer: the cell records, then
// the texts back to back. Eight short fields fit in the inline part, so such
// a row costs the host one allocation.
class CellStore {
 public:
  struct Cell {
    uint32_t offset;  // of the text, or the index of the metric value
    uint32_t length;  // of the text, or one of the marks below
  };
  static constexpr uint32_t kUnset = UINT32_MAX;
  static constexpr uint32_t kNull = UINT32_MAX - 1;
  static constexpr uint32_t kValue = UINT32_MAX - 2;

  CellStore() = default;
  CellStore(const CellStore&) = delete;
  CellStore& operator=(const CellStore&) = delete;
  ~CellStore() {
    if (block_ != inline_) std::free(block_);
  }

  uint32_t count() const { return count_; }
  const Cell& cell(uint32_t index) const { return Cells()[index]; }
  Cell& cell(uint32_t index) { return Cells()[index]; }

  // The cell at index, with unset cells added up to it. Throws bad_alloc.
  Cell& Slot(uint32_t index) {
    if (index >= cell_capacity_) {
      Grow(std::max<size_t>({size_t{index} + 1, 2 * size_t{cell_capacity_},
                             kMinCells}),
           text_size_);
    }
    for (; count_ <= index; ++count_) Cells()[count_] = Cell{0, kUnset};
    return Cells()[index];
  }

  // Stores a text and gives its offset. Throws std::bad_alloc.
  uint32_t AppendText(const char* text, size_t length) {
    if (length >= kValue - text_size_) throw std::bad_alloc();
    if (text_size_ + length > TextCapacity()) {
      Grow(cell_capacity_, text_size_ + length);
    }
    std::memcpy(Texts() + text_size_, text, length);
    uint32_t offset = text_size_;
    text_size_ += static_cast<uint32_t>(length);
    return offset;
  }

  std::string_view Text(const Cell& of) const {
    return std::string_view(Texts() + of.offset, of.length);
  }

 private:
  static constexpr size_t kInlineBytes = 128;
  static constexpr size_t kMinCells = 8;

  Cell* Cells() { return reinterpret_cast<Cell*>(block_); }
  const Cell* Cells() const { return reinterpret_cast<const Cell*>(block_); }
  char* Texts() { return block_ + cell_capacity_ * sizeof(Cell); }
  const char* Texts() const { return block_ + cell_capacity_ * sizeof(Cell); }
  size_t TextCapacity() const {
    return capacity_ - cell_capacity_ * sizeof(Cell);
  }

  // Room for cells records and text bytes; the block at least doubles when
  // it has to be replaced, and the texts move behind the cell records.
  void Grow(size_t cells, size_t text) {
    size_t need = cells * sizeof(Cell) + text;
    char* block = block_;
    size_t capacity = capacity_;
    if (need > capacity_) {
      capacity = std::max(need, 2 * capacity_);
      block = static_cast<char*>(std::malloc(capacity));
      if (block == nullptr) throw std::bad_alloc();
      std::memcpy(block, block_, count_ * sizeof(Cell));
    }
    std::memmove(block + cells * sizeof(Cell), Texts(), text_size_);
    if (block != block_ && block_ != inline_) std::free(block_);
    block_ = block;
    capacity_ = capacity;
    cell_capacity_ = static_cast<uint32_t>(cells);
  }

  char* block_ = inline_;
  size_t capacity_ = kInlineBytes;
  uint32_t cell_capacity_ = 0;
  uint32_t count_ = 0;
  uint32_t text_size_ = 0;
  alignas(Cell) char inline_[kInlineBytes];
};

}  // namespace

struct qvedrmv_MetricValue {
  qvedrmv_MetricValue() = default;
  qvedrmv_MetricValue(const qvedrmv_MetricValue&) = delete;
  qvedrmv_MetricValue& operator=(const qvedrmv_MetricValue&) = delete;
  ~qvedrmv_MetricValue() { DeleteNestedRows(rows); }

  qveuv_Vector* rows = nullptr;  // of qvedrvr_ValueRow, owned with its rows
};

struct qvedrvr_ValueRow {
  using Cell = CellStore::Cell;

  qvedrvr_ValueRow() = default;
  qvedrvr_ValueRow(const qvedrvr_ValueRow&) = delete;
  qvedrvr_ValueRow& operator=(const qvedrvr_ValueRow&) = delete;
  ~qvedrvr_ValueRow() {
    for (qvedrmv_MetricValue* value : values) {
      qvehost::internal::DeleteObject(value);
    }
  }

  // The cell of column, made room for and emptied of an earlier value.
  // Throws std::bad_alloc.
  Cell& Slot(int32_t column) {
    Cell& cell = cells.Slot(static_cast<uint32_t>(column));
    if (cell.length == CellStore::kValue) {
      qvehost::internal::DeleteObject(values[cell.offset]);
      values[cell.offset] = nullptr;
    }
    cell = Cell{0, CellStore::kUnset};
    return cell;
  }

  bool Holds(int32_t column, const qvedrmv_MetricValue* value) const {
    auto index = static_cast<uint32_t>(column);
    if (value == nullptr || index >= cells.count()) return false;
    const Cell& cell = cells.cell(index);
    return cell.length == CellStore::kValue && values[cell.offset] == value;
  }

  CellStore cells;
  std::vector<qvedrmv_MetricValue*> values;
};

struct qvedrmr_MetricResult {
  qvedrmr_MetricResult() = default;
  qvedrmr_MetricResult(const qvedrmr_MetricResult&) = delete;
  qvedrmr_MetricResult& operator=(const qvedrmr_MetricResult&) = delete;
  ~qvedrmr_MetricResult() {
    for (qvedrvr_ValueRow* row : rows) DeleteRow(row);
  }

  std::vector<qvedrvr_ValueRow*> rows;
  std::string warning;
  bool has_warning = false;
};

namespace {

void DeleteRow(qvedrvr_ValueRow* row) { qvehost::internal::DeleteObject(row); }

void DeleteNestedRows(qveuv_Vector* rows) {
  if (rows == nullptr) return;
  int32_t count = qveuv_Vector_size(rows);
  for (int32_t i = 0; i < count; ++i) {
    DeleteRow(static_cast<qvedrvr_ValueRow*>(qveuv_Vector_elementAt(rows, i)));
  }
  qveuv_Vector_delete(rows);
}

nlohmann::json RowToJson(const qvedrvr_ValueRow& row);

nlohmann::json RowsToJson(qveuv_Vector* rows) {
  nlohmann::json list = nlohmann::json::array();
  int32_t count = qveuv_Vector_size(rows);
  for (int32_t i = 0; i < count; ++i) {
    auto* row = static_cast<qvedrvr_ValueRow*>(qveuv_Vector_elementAt(rows, i));
    list.push_back(row != nullptr ? RowToJson(*row) : nlohmann::json());
  }
  return nlohmann::json{{"rows", std::move(list)}};
}

nlohmann::json RowToJson(const qvedrvr_ValueRow& row) {
  nlohmann::json cells = nlohmann::json::array();
  for (uint32_t i = 0; i < row.cells.count(); ++i) {
    const CellStore::Cell& cell = row.cells.cell(i);
    if (cell.length == CellStore::kValue) {
      cells.push_back(RowsToJson(row.values[cell.offset]->rows));
    } else if (cell.length == CellStore::kUnset ||
               cell.length == CellStore::kNull) {
      cells.push_back(nullptr);
    } else {
      cells.push_back(std::string(row.cells.Text(cell)));
    }
  }
  return cells;
}

}  // namespace

extern "C" {

qvedrmr_MetricResult* qvedrmr_MetricResult_new(void) {
  if (qvehost::internal::MetricResultRefused()) return nullptr;
  return qvehost::internal::NewObject<qvedrmr_MetricResult>(__LINE__);
}

void qvedrmr_MetricResult_addValueRow(qvedrmr_MetricResult* result,
                                      qvedrvr_ValueRow* row) {
  if (row == nullptr) return;
  try {
    if (result != nullptr) {
      result->rows.push_back(row);
      return;
    }
  } catch (...) {
  }
  DeleteRow(row);  // the row was handed over: it must not leak
}

void qvedrmr_MetricResult_setWarning(qvedrmr_MetricResult* result,
                                     const char* text) {
  if (result == nullptr) return;
  try {
    result->warning = text != nullptr ? text : "";
    result->has_warning = text != nullptr;
  } catch (...) {
  }
}

void qvedrmr_MetricResult_delete(qvedrmr_MetricResult* result) {
  qvehost::internal::DeleteObject(result);
}

qvedrvr_ValueRow* qvedrvr_ValueRow_new(void) {
  return qvehost::internal::NewObject<qvedrvr_ValueRow>(__LINE__);
}

void qvedrvr_ValueRow_setStringValue(qvedrvr_ValueRow* row, int32_t column,
                                     const char* text) {
  if (row == nullptr || column < 0) return;
  try {
    qvedrvr_ValueRow::Cell& cell = row->Slot(column);
    if (text == nullptr) {
      cell.length = CellStore::kNull;
      return;
    }
    size_t length = std::strlen(text);
    uint32_t offset = row->cells.AppendText(text, length);
    // Storing the text may have moved the cell records.
    row->cells.cell(static_cast<uint32_t>(column)) =
        CellStore::Cell{offset, static_cast<uint32_t>(length)};
  } catch (...) {
  }
}

void qvedrvr_ValueRow_setMetricValue(qvedrvr_ValueRow* row, int32_t column,
                                     qvedrmv_MetricValue* value) {
  if (row != nullptr && column >= 0) {
    if (row->Holds(column, value)) return;
    try {
      row->values.reserve(row->values.size() + 1);
      qvedrvr_ValueRow::Cell& cell = row->Slot(column);
      if (value == nullptr) {
        cell.length = CellStore::kNull;
        return;
      }
      cell.offset = static_cast<uint32_t>(row->values.size());
      row->values.push_back(value);  // cannot throw after the reserve
      cell.length = CellStore::kValue;
      return;
    } catch (...) {
    }
  }
  qvehost::internal::DeleteObject(value);  // handed over: must not leak
}

qvedrmv_MetricValue* qvedrmv_MetricValue_new(void) {
  return qvehost::internal::NewObject<qvedrmv_MetricValue>(__LINE__);
}

void qvedrmv_setNestedRows(qvedrmv_MetricValue* value, qveuv_Vector* rows) {
  if (value == nullptr) {
    DeleteNestedRows(rows);
    return;
  }
  if (value->rows != rows) DeleteNestedRows(value->rows);
  value->rows = rows;
}

}  // extern "C"

namespace qvehost {

nlohmann::json ResultToJson(const qvedrmr_MetricResult* result) {
  if (result == nullptr) return nullptr;
  nlohmann::json rows = nlohmann::json::array();
  for (const qvedrvr_ValueRow* row : result->rows) {
    rows.push_back(RowToJson(*row));
  }
  nlohmann::json warning =
      result->has_warning ? nlohmann::json(result->warning) : nlohmann::json();
  return nlohmann::json{{"rows", std::move(rows)},
                        {"warning", std::move(warning)}};
}

}  // namespace qvehost
