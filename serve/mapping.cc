#include "serve/mapping.h"

#include <re2/re2.h>

#include "serve/mapping_format.h"
#include "serve/mapping_row.h"

namespace fetchlet::serve {
namespace {

using qvehost::CellView;
using Rows = std::vector<const qvedrvr_ValueRow*>;

// Why an evaluation gave no result to map, or nullopt.
std::optional<Failure> FailureOf(const agent::Outcome& outcome) {
  if (outcome.timed_out) return Failure::kTimeout;
  if (outcome.Succeeded()) return std::nullopt;
  // A command the OOM killer ended or that was refused a fork failed for
  // its limits, whatever kind the fetchlet gave.
  if (outcome.resources.oom_kills != 0 || outcome.resources.forks_refused != 0) {
    return Failure::kResource;
  }
  return FailureOfException(outcome.ExceptionKind());
}

std::string FailureNote(const agent::Outcome& outcome) {
  if (outcome.timed_out) return "ended at its time limit";
  if (outcome.exception) {
    return "failed (kind " + std::to_string(outcome.ExceptionKind()) +
           "): " + std::string(outcome.ExceptionMessage());
  }
  return "failed with status " + std::to_string(outcome.status) +
         " and no result";
}

const std::string* Property(const CollectorConfig& collector,
                            const std::string& name) {
  const std::string* found = nullptr;
  for (const auto& [key, value] : collector.properties) {
    if (key == name) found = &value;
  }
  return found;
}

std::vector<CellView> RowCells(const qvedrvr_ValueRow* row) {
  return row != nullptr ? qvehost::RowView(*row) : std::vector<CellView>{};
}

Cells TextCells(const qvedrvr_ValueRow* row, bool drop_empty) {
  Cells cells;
  for (const CellView& cell : RowCells(row)) {
    const bool text = cell.kind == CellView::Kind::kText;
    if (drop_empty && (!text || cell.text.empty())) continue;
    cells.push_back(text ? std::optional<std::string_view>(cell.text)
                         : std::nullopt);
  }
  return cells;
}

// The rows to read: the result's own, or with tableSeparator set, those of
// the configured nested table (none when the output had fewer).
Rows TableRows(const CollectorConfig& collector,
               const qvedrmr_MetricResult* result) {
  Rows rows = qvehost::ResultRows(result);
  const std::string* separator = Property(collector, "tableSeparator");
  if (separator == nullptr || separator->empty()) return rows;
  const size_t index =
      static_cast<size_t>(collector.table.nested_table.value_or(0));
  if (rows.empty()) return {};
  std::vector<CellView> first = RowCells(rows[0]);
  if (first.size() <= index || first[index].kind != CellView::Kind::kTable) {
    return {};
  }
  return std::move(first[index].rows);
}

void MapTable(const CollectorConfig& collector,
              const qvedrmr_MetricResult* result, Mapped* mapped) {
  mapped->families = EmptyFamilies(collector.metrics);
  const Rows rows = TableRows(collector, result);
  for (size_t i = static_cast<size_t>(collector.table.skip_rows);
       i < rows.size(); ++i) {
    const Cells cells = TextCells(rows[i], collector.table.drop_empty_fields);
    const std::string error =
        MapRow(collector.metrics, cells, &mapped->families);
    if (error.empty()) continue;
    ++mapped->dropped_rows;
    mapped->notes.push_back("row " + std::to_string(i + 1) + " dropped: " +
                            error);
  }
}

// Column column of the first row, when it holds text.
std::optional<std::string_view> FirstRowText(
    const qvedrmr_MetricResult* result, size_t column) {
  const Rows rows = qvehost::ResultRows(result);
  if (rows.empty()) return std::nullopt;
  const std::vector<CellView> cells = RowCells(rows[0]);
  if (column >= cells.size() || cells[column].kind != CellView::Kind::kText) {
    return std::nullopt;
  }
  return cells[column].text;
}

void MapOs(const CollectorConfig& collector,
           const qvedrmr_MetricResult* result, Mapped* mapped) {
  const RE2& regex = *collector.compiled_regex;
  const std::string_view text = FirstRowText(result, 0).value_or("");
  std::vector<re2::StringPiece> groups(
      static_cast<size_t>(regex.NumberOfCapturingGroups()) + 1);
  if (!regex.Match(text, 0, text.size(), RE2::UNANCHORED, groups.data(),
                   static_cast<int>(groups.size()))) {
    mapped->failure = Failure::kParse;
    mapped->notes.push_back("output does not match the regex");
    return;
  }
  Cells cells;
  for (const re2::StringPiece& group : groups) {
    cells.push_back(group.data() != nullptr
                        ? std::optional<std::string_view>(group)
                        : std::nullopt);
  }
  mapped->families = EmptyFamilies(collector.metrics);
  const std::string error = MapRow(collector.metrics, cells, &mapped->families);
  if (error.empty()) return;
  mapped->families.clear();
  mapped->failure = Failure::kParse;
  mapped->notes.push_back("output dropped: " + error);
}

// A udm row: command ID, NUMBER value, STRING value, message.
void MapUdm(const CollectorConfig& collector,
            const qvedrmr_MetricResult* result, Mapped* mapped) {
  if (const auto message = FirstRowText(result, 3)) {
    mapped->message = std::string(*message);
  }
  auto value = FirstRowText(result, 1);
  if (!value) value = FirstRowText(result, 2);
  if (!value || !collector.udm_value) {
    mapped->failure = Failure::kNoValue;
    mapped->notes.push_back("no value");
    return;
  }
  const MetricDefinition& metric = *collector.udm_value;
  MetricDefinition as_row = metric;
  as_row.value.column = 0;
  as_row.labels.clear();
  if (metric.type == MetricType::kInfo) as_row.labels = {{metric.name, 0}};
  mapped->families = EmptyFamilies({as_row});
  const std::string error = MapRow({as_row}, {*value}, &mapped->families);
  if (error.empty()) return;
  mapped->families.clear();
  mapped->failure = Failure::kParse;
  mapped->notes.push_back("value dropped: " + error);
}

// A command's word is logged and shown on the status page: its first
// kilobyte, cut between characters.
void CapMessage(std::string* message) {
  constexpr size_t kMaxMessageBytes = 1024;
  if (message->size() <= kMaxMessageBytes) return;
  size_t cut = kMaxMessageBytes;
  while (cut > 0 && (static_cast<unsigned char>((*message)[cut]) & 0xC0) == 0x80) --cut;
  message->resize(cut);
  message->append("...");
}

}  // namespace

std::vector<std::string> NotesWithMessage(const Mapped& mapped) {
  std::vector<std::string> notes;
  if (mapped.message) notes.push_back("message: " + *mapped.message);
  notes.insert(notes.end(), mapped.notes.begin(), mapped.notes.end());
  return notes;
}

Mapped MapEvaluation(const CollectorConfig& collector,
                     const agent::Outcome& outcome) {
  Mapped mapped;
  mapped.failure = FailureOf(outcome);
  if (mapped.failure) {
    mapped.notes.push_back(FailureNote(outcome));
    return mapped;
  }
  const qvedrmr_MetricResult* result = outcome.result.get();
  switch (collector.kind) {
    case CollectorKind::kOs:
      if (collector.format.empty()) {
        MapOs(collector, result, &mapped);
      } else {
        MapFormat(collector, FirstRowText(result, 0).value_or(""), &mapped);
      }
      break;
    case CollectorKind::kOsLine:
    case CollectorKind::kOsLineToken:
      MapTable(collector, result, &mapped);
      break;
    case CollectorKind::kUdm:
      MapUdm(collector, result, &mapped);
      break;
  }
  if (mapped.message) CapMessage(&*mapped.message);
  return mapped;
}

}  // namespace fetchlet::serve
