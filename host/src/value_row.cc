// Value rows: columns of strings, nulls and nested metric values.
//
// A table of a million rows must cost little more than its text. A row is
// one heap block: a 16-byte header, then its entries back to back, each a tag
// byte, the column when it is not the next one, and the NUL-terminated text
// or the address of a metric value. A later entry for a column replaces an
// earlier one. The block is sized after the rows this thread filled just
// before, so that the rows of a table fit at the first try; a row that
// outgrows it moves its entries to a block of their own, since the handle
// the caller holds cannot move.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>
#include <vector>

#include "guard.h"
#include "host_internal.h"
#include "qve/host.h"

struct qvedrvr_ValueRow {
  uint32_t used;      // entry bytes written
  uint32_t capacity;  // entry bytes the entries' block holds
  uint32_t columns;   // highest set column + 1
  uint32_t flags;

  char* Inline() { return reinterpret_cast<char*>(this + 1); }
  const char* Inline() const { return reinterpret_cast<const char*>(this + 1); }
};

namespace {

using qvehost::internal::CountOf;
using qvehost::internal::DeleteMetricValue;
using qvehost::internal::RowCell;
using Row = qvedrvr_ValueRow;

static_assert(sizeof(Row) == 16, "the entries start 16-byte aligned");

// Kinds of entry, in the low bits of the tag byte.
constexpr uint8_t kString = 1;
constexpr uint8_t kNull = 2;
constexpr uint8_t kValue = 3;     // a metric value's address follows
constexpr uint8_t kReplaced = 4;  // a value entry whose value is released
constexpr uint8_t kKindMask = 0x7f;
constexpr uint8_t kColumnFollows = 0x80;

// Row flags.
constexpr uint32_t kExternal = 1;   // the entries live in a block of their own
constexpr uint32_t kHasValues = 2;  // some entry holds a metric value

constexpr size_t kAddress = sizeof(void*);
// The inline room: at least the address of an external block, at most what
// a typical row of a wide table needs.
constexpr uint32_t kMinInline = kAddress;
constexpr uint32_t kMaxInline = 240;
// Slack worth giving back when a row gets its owner.
constexpr uint32_t kCompactSlack = 16;

// Entry bytes of the row this thread wrote to last, and the room new rows
// start with: it follows the rows of a table, and falls back slowly after a
// row longer than the usual, quickly after one too long to be kept inline.
// Written for every cell, so kept where a thread reaches it without a call
// (the host library is linked, not loaded late).
[[gnu::tls_model("initial-exec")]] thread_local uint32_t t_last_used = 0;
[[gnu::tls_model("initial-exec")]] thread_local uint32_t t_hint = 0;

uint32_t InlineCapacity() {
  t_hint =
      std::max(std::min(t_last_used, kMaxInline + 1), t_hint - t_hint / 16);
  if (t_hint > kMaxInline) return kMinInline;  // external from the start
  // malloc hands out blocks in steps of 16 bytes, 8 of which it keeps.
  size_t block = (sizeof(Row) + t_hint + 8 + 15) / 16 * 16 - 8;
  return std::max(kMinInline, static_cast<uint32_t>(block - sizeof(Row)));
}

const char* Entries(const Row& row) {
  if ((row.flags & kExternal) == 0) return row.Inline();
  const char* external = nullptr;
  std::memcpy(&external, row.Inline(), kAddress);
  return external;
}

char* Entries(Row* row) { return const_cast<char*>(Entries(*row)); }

void SetExternal(Row* row, char* block, size_t capacity) {
  std::memcpy(row->Inline(), &block, kAddress);
  row->flags |= kExternal;
  row->capacity = static_cast<uint32_t>(capacity);
}

// Bytes of an entry with body bytes after its tag and column.
size_t EntrySize(const Row& row, uint32_t column, size_t body) {
  return 1 + (column == row.columns ? 0 : sizeof column) + body;
}

// Room for extra more entry bytes; false when memory runs out.
bool Reserve(Row* row, size_t extra) {
  if (extra <= row->capacity - row->used) return true;
  size_t need = size_t{row->used} + extra;
  if (need > UINT32_MAX) return false;
  size_t grown = std::clamp<size_t>(size_t{row->capacity} + row->capacity / 2,
                                    need, UINT32_MAX);
  char* block = nullptr;
  if ((row->flags & kExternal) != 0) {
    block = static_cast<char*>(std::realloc(Entries(row), grown));
  } else {
    block = static_cast<char*>(std::malloc(grown));
    if (block != nullptr) std::memcpy(block, row->Inline(), row->used);
  }
  if (block == nullptr) return false;
  SetExternal(row, block, grown);
  return true;
}

// Writes the tag and column of an entry whose room is reserved; gives where
// its body goes.
char* StartEntry(Row* row, uint8_t kind, uint32_t column, size_t body) {
  char* at = Entries(row) + row->used;
  row->used += static_cast<uint32_t>(EntrySize(*row, column, body));
  if (column == row->columns) {
    *at++ = static_cast<char>(kind);
  } else {
    *at++ = static_cast<char>(kind | kColumnFollows);
    std::memcpy(at, &column, sizeof column);
    at += sizeof column;
  }
  row->columns = std::max(row->columns, column + 1);
  t_last_used = row->used;
  return at;
}

struct Entry {
  uint8_t kind;
  uint32_t column;
  uint32_t offset;  // of the tag byte
  const char* body;
};

// The entries of a row in the order they were written.
class EntryReader {
 public:
  explicit EntryReader(const Row& row)
      : begin_(Entries(row)), at_(begin_), end_(begin_ + row.used) {}

  bool Next(Entry* entry) {
    if (at_ == end_) return false;
    auto tag = static_cast<uint8_t>(*at_);
    entry->offset = static_cast<uint32_t>(at_ - begin_);
    entry->kind = tag & kKindMask;
    ++at_;
    entry->column = columns_;
    if ((tag & kColumnFollows) != 0) {
      std::memcpy(&entry->column, at_, sizeof entry->column);
      at_ += sizeof entry->column;
    }
    columns_ = std::max(columns_, entry->column + 1);
    entry->body = at_;
    at_ += entry->kind == kString ? std::strlen(at_) + 1
           : entry->kind == kNull ? 0
                                  : kAddress;
    return true;
  }

 private:
  const char* begin_;
  const char* at_;
  const char* end_;
  uint32_t columns_ = 0;
};

qvedrmv_MetricValue* ValueOf(const Entry& entry) {
  qvedrmv_MetricValue* value = nullptr;
  if (entry.kind == kValue) std::memcpy(&value, entry.body, kAddress);
  return value;
}

// Whether column holds a metric value, and its entry.
bool FindValue(const Row& row, uint32_t column, Entry* found) {
  if ((row.flags & kHasValues) == 0 || column >= row.columns) return false;
  bool any = false;
  EntryReader reader(row);
  for (Entry entry; reader.Next(&entry);) {
    if (entry.column == column) {
      *found = entry;
      any = true;
    }
  }
  return any && found->kind == kValue;
}

// The value a column held goes when the column is set anew.
void ReleaseValue(Row* row, uint32_t column) {
  Entry entry;
  if ((row->flags & kHasValues) == 0 || !FindValue(*row, column, &entry)) {
    return;
  }
  DeleteMetricValue(ValueOf(entry));
  char& tag = Entries(row)[entry.offset];
  tag = static_cast<char>((static_cast<uint8_t>(tag) & kColumnFollows) |
                          kReplaced);
}

}  // namespace

namespace qvehost::internal {

std::vector<RowCell> RowCells(const qvedrvr_ValueRow& row) {
  std::vector<RowCell> cells(row.columns);
  EntryReader reader(row);
  for (Entry entry; reader.Next(&entry);) {
    RowCell& cell = cells[entry.column];
    if (entry.kind == kString) {
      cell = RowCell{RowCell::Kind::kString, entry.body, nullptr};
    } else if (entry.kind == kNull) {
      cell = RowCell{RowCell::Kind::kNull, {}, nullptr};
    } else if (entry.kind == kValue) {
      cell = RowCell{RowCell::Kind::kValue, {}, ValueOf(entry)};
    }
  }
  return cells;
}

void CompactRow(qvedrvr_ValueRow* row) {
  if (row == nullptr || (row->flags & kExternal) == 0 ||
      row->capacity - row->used < kCompactSlack) {
    return;
  }
  size_t size = std::max<size_t>(row->used, 1);
  auto* block = static_cast<char*>(std::realloc(Entries(row), size));
  if (block != nullptr) SetExternal(row, block, size);
}

void DeleteRow(qvedrvr_ValueRow* row) {
  if (row == nullptr) return;
  if ((row->flags & kHasValues) != 0) {
    EntryReader reader(*row);
    for (Entry entry; reader.Next(&entry);) {
      if (entry.kind == kValue) DeleteMetricValue(ValueOf(entry));
    }
  }
  if ((row->flags & kExternal) != 0) std::free(Entries(row));
  std::free(row);
  CountOf<qvedrvr_ValueRow>().Remove();
}

}  // namespace qvehost::internal

using qvehost::internal::Guarded;

extern "C" {

qvedrvr_ValueRow* qvedrvr_ValueRow_new(void) {
  return Guarded<qvedrvr_ValueRow*>(
      __func__, nullptr, [&]() -> qvedrvr_ValueRow* {
    qvehost::internal::ObjectCount* count = nullptr;
    try {
      count = &CountOf<qvedrvr_ValueRow>();
    } catch (...) {
      return nullptr;  // the first row's counter could not be made
    }
    uint32_t capacity = InlineCapacity();
    void* block = std::malloc(sizeof(Row) + capacity);
    if (block == nullptr) return nullptr;
    count->Add();
    return new (block) Row{0, capacity, 0, 0};
  });
}

void qvedrvr_ValueRow_setStringValue(qvedrvr_ValueRow* row, int32_t column,
                                     const char* text) {
  Guarded(__func__, [&] {
    if (row == nullptr || column < 0) return;
    auto at = static_cast<uint32_t>(column);
    size_t body = text != nullptr ? std::strlen(text) + 1 : 0;
    if (!Reserve(row, EntrySize(*row, at, body))) return;
    ReleaseValue(row, at);
    char* out = StartEntry(row, text != nullptr ? kString : kNull, at, body);
    if (text != nullptr) std::memcpy(out, text, body);
  });
}

void qvedrvr_ValueRow_setMetricValue(qvedrvr_ValueRow* row, int32_t column,
                                     qvedrmv_MetricValue* value) {
  Guarded(__func__, [&] {
    if (row != nullptr && column >= 0) {
      auto at = static_cast<uint32_t>(column);
      Entry held;
      if (value != nullptr && FindValue(*row, at, &held) &&
          ValueOf(held) == value) {
        return;
      }
      size_t body = value != nullptr ? kAddress : 0;
      if (Reserve(row, EntrySize(*row, at, body))) {
        ReleaseValue(row, at);
        char* out = StartEntry(row, value != nullptr ? kValue : kNull, at, body);
        if (value != nullptr) {
          std::memcpy(out, &value, kAddress);
          row->flags |= kHasValues;
        }
        return;
      }
    }
    DeleteMetricValue(value);  // handed over: it must not leak
  });
}

}  // extern "C"
