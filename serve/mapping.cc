#include "serve/mapping.h"

#include <re2/re2.h>

#include "serve/mapping_format.h"
#include "serve/mapping_row.h"

namespace fetchlet::serve {
namespace {

using Json = nlohmann::json;

struct KindName {
  int32_t kind;
  const char* name;
};

constexpr KindName kFailureKinds[] = {{7, "timeout"},
                                      {12, "run"},
                                      {11, "invalid_request"},
                                      {15, "process_limit"}};

// The failure kind of an evaluation that gave no result to map, or "".
std::string FailureKind(const Evaluation& evaluation) {
  if (evaluation.timed_out) return "timeout";
  if (evaluation.status == 0 && evaluation.result.is_object()) return "";
  for (const KindName& kind : kFailureKinds) {
    if (kind.kind == evaluation.exception_kind) return kind.name;
  }
  return "no_result";
}

std::string FailureNote(const Evaluation& evaluation) {
  if (evaluation.timed_out) return "ended at its time limit";
  if (evaluation.exception_kind != 0) {
    return "failed (kind " + std::to_string(evaluation.exception_kind) +
           "): " + evaluation.exception_message;
  }
  return "failed with status " + std::to_string(evaluation.status) +
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

Cells RowCells(const Json& row, bool drop_empty) {
  Cells cells;
  for (const Json& cell : row) {
    const bool text = cell.is_string();
    if (drop_empty && (!text || cell.get_ref<const std::string&>().empty())) {
      continue;
    }
    cells.push_back(text ? std::optional<std::string>(cell.get<std::string>())
                         : std::nullopt);
  }
  return cells;
}

// The rows to read: the result's own, or with tableSeparator set, those of
// the configured nested table (none when the output had fewer).
const Json kNoRows = Json::array();

const Json& Rows(const Json& table) {
  const auto rows = table.find("rows");
  return rows != table.end() && rows->is_array() ? *rows : kNoRows;
}

const Json& TableRows(const CollectorConfig& collector, const Json& result) {
  const Json& rows = Rows(result);
  const std::string* separator = Property(collector, "tableSeparator");
  if (separator == nullptr || separator->empty()) return rows;
  const size_t index =
      static_cast<size_t>(collector.table.nested_table.value_or(0));
  if (rows.empty() || rows[0].size() <= index || !rows[0][index].is_object()) {
    return kNoRows;
  }
  return Rows(rows[0][index]);
}

void MapTable(const CollectorConfig& collector, const Json& result,
              Mapped* mapped) {
  mapped->families = EmptyFamilies(collector.metrics);
  const Json& rows = TableRows(collector, result);
  for (size_t i = static_cast<size_t>(collector.table.skip_rows);
       i < rows.size(); ++i) {
    const Cells cells = RowCells(rows[i], collector.table.drop_empty_fields);
    const std::string error =
        MapRow(collector.metrics, cells, &mapped->families);
    if (error.empty()) continue;
    ++mapped->dropped_rows;
    mapped->notes.push_back("row " + std::to_string(i + 1) + " dropped: " +
                            error);
  }
}

std::string OsText(const Json& result) {
  const Json& rows = Rows(result);
  if (rows.empty() || rows[0].empty() || !rows[0][0].is_string()) return "";
  return rows[0][0].get<std::string>();
}

void MapOs(const CollectorConfig& collector, const Json& result,
           Mapped* mapped) {
  const RE2& regex = *collector.compiled_regex;
  const std::string text = OsText(result);
  std::vector<re2::StringPiece> groups(
      static_cast<size_t>(regex.NumberOfCapturingGroups()) + 1);
  if (!regex.Match(text, 0, text.size(), RE2::UNANCHORED, groups.data(),
                   static_cast<int>(groups.size()))) {
    mapped->failure = "parse";
    mapped->notes.push_back("output does not match the regex");
    return;
  }
  Cells cells;
  for (const re2::StringPiece& group : groups) {
    cells.push_back(group.data() != nullptr
                        ? std::optional<std::string>(std::string(group))
                        : std::nullopt);
  }
  mapped->families = EmptyFamilies(collector.metrics);
  const std::string error = MapRow(collector.metrics, cells, &mapped->families);
  if (error.empty()) return;
  mapped->families.clear();
  mapped->failure = "parse";
  mapped->notes.push_back("output dropped: " + error);
}

// A udm row: command ID, NUMBER value, STRING value, message.
void MapUdm(const CollectorConfig& collector, const Json& result,
            Mapped* mapped) {
  const Json& rows = Rows(result);
  const Json& row = rows.empty() ? kNoRows : rows[0];
  const auto text = [&row](size_t i) -> const Json* {
    return i < row.size() && row[i].is_string() ? &row[i] : nullptr;
  };
  if (const Json* message = text(3)) {
    mapped->notes.push_back("message: " + message->get<std::string>());
  }
  const Json* value = text(1) != nullptr ? text(1) : text(2);
  if (value == nullptr || !collector.udm_value) {
    mapped->failure = "no_value";
    mapped->notes.push_back("no value");
    return;
  }
  const MetricDefinition& metric = *collector.udm_value;
  MetricDefinition as_row = metric;
  as_row.value.column = 0;
  as_row.labels.clear();
  if (metric.type == MetricType::kInfo) as_row.labels = {{metric.name, 0}};
  mapped->families = EmptyFamilies({as_row});
  const std::string error =
      MapRow({as_row}, {value->get<std::string>()}, &mapped->families);
  if (error.empty()) return;
  mapped->families.clear();
  mapped->failure = "parse";
  mapped->notes.push_back("value dropped: " + error);
}

}  // namespace

Mapped MapEvaluation(const CollectorConfig& collector,
                     const Evaluation& evaluation) {
  Mapped mapped;
  mapped.failure = FailureKind(evaluation);
  if (!mapped.failure.empty()) {
    mapped.notes.push_back(FailureNote(evaluation));
    return mapped;
  }
  switch (collector.kind) {
    case CollectorKind::kOs:
      if (collector.format.empty()) {
        MapOs(collector, evaluation.result, &mapped);
      } else {
        MapFormat(collector, OsText(evaluation.result), &mapped);
      }
      break;
    case CollectorKind::kOsLine:
    case CollectorKind::kOsLineToken:
      MapTable(collector, evaluation.result, &mapped);
      break;
    case CollectorKind::kUdm:
      MapUdm(collector, evaluation.result, &mapped);
      break;
  }
  return mapped;
}

}  // namespace fetchlet::serve
