#include "serve/format_json.h"

#include <algorithm>

#include <nlohmann/json.hpp>

#include "serve/mapping_row.h"

namespace fetchlet::serve {
namespace {

using Json = nlohmann::json;
using Pointer = Json::json_pointer;

// Why text is over bounds (nesting deeper than max_depth, more values than
// max_values), or ""; read before parsing, so that a hostile document never
// reaches the parser.
std::string OverBounds(std::string_view text, const JsonBounds& bounds) {
  int depth = 0;
  uint64_t values = 1;
  bool quoted = false;
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (quoted) {
      if (c == '\\') ++i;
      else if (c == '"') quoted = false;
    } else if (c == '"') {
      quoted = true;
    } else if (c == '[' || c == '{' || c == ',') {
      if (c != ',' && ++depth > bounds.max_depth) {
        return "output nests deeper than " + std::to_string(bounds.max_depth);
      }
      if (++values > bounds.max_values) {
        return "output holds more than " + std::to_string(bounds.max_values) +
               " values";
      }
    } else if (c == ']' || c == '}') {
      --depth;
    }
  }
  return "";
}

const Json* Find(const Json& json, const Pointer& pointer) {
  try {
    return json.contains(pointer) ? &json.at(pointer) : nullptr;
  } catch (const Json::exception&) {
    return nullptr;
  }
}

// A cell as text: a string as it stands, a number or a boolean as JSON
// writes it; nullopt for null, an array or an object.
std::optional<std::string> CellText(const Json& value) {
  if (value.is_string()) return value.get<std::string>();
  if (value.is_number() || value.is_boolean()) return value.dump();
  return std::nullopt;
}

class RowReader {
 public:
  RowReader(const JsonSpec& layout, const std::vector<MetricDefinition>& metrics,
            Parsed* parsed)
      : metrics_(metrics), names_(layout.cells), parsed_(*parsed) {
    for (const std::string& cell : layout.cells) columns_.emplace_back(cell);
    if (!layout.children.empty()) children_ = Pointer(layout.children);
  }

  void Rows(const Json& rows, const Cells& parent, const std::string& where);

 private:
  void Row(const Json& row, const Cells& parent, const std::string& where);

  const std::vector<MetricDefinition>& metrics_;
  const std::vector<std::string>& names_;
  Parsed& parsed_;
  std::vector<Pointer> columns_;
  std::optional<Pointer> children_;
};

void RowReader::Rows(const Json& rows, const Cells& parent,
                     const std::string& where) {
  if (!rows.is_array()) return Row(rows, parent, where);
  for (size_t i = 0; i < rows.size(); ++i) {
    Row(rows[i], parent, where + std::to_string(i + 1));
  }
}

void RowReader::Row(const Json& row, const Cells& parent,
                    const std::string& where) {
  // The cells are views: of this row's texts, which live until its
  // children are read, or of its parent's. A cell absent or null here (a
  // partition's model in lsblk's) is its parent's.
  std::vector<std::optional<std::string>> texts(columns_.size());
  Cells cells(columns_.size());
  for (size_t i = 0; i < columns_.size(); ++i) {
    std::optional<std::string>& text = texts[i];
    if (const Json* cell = Find(row, columns_[i])) text = CellText(*cell);
    if (text.has_value()) {
      cells[i] = *text;
    } else if (i < parent.size()) {
      cells[i] = parent[i];
    }
  }
  const std::string error = MapRow(metrics_, cells, &parsed_.families, &names_);
  if (!error.empty()) {
    ++parsed_.parse;
    parsed_.Note("row " + where + " dropped: " + error);
  }
  if (!children_) return;
  if (const Json* children = Find(row, *children_); children && children->is_array()) {
    Rows(*children, cells, where + ".");
  }
}

Parsed Fail(std::string note) {
  Parsed parsed;
  parsed.failure = "parse";
  parsed.Note(std::move(note));
  return parsed;
}

}  // namespace

int JsonColumn(JsonSpec* layout, const std::string& pointer) {
  auto& cells = layout->cells;
  const auto found = std::find(cells.begin(), cells.end(), pointer);
  if (found != cells.end()) return static_cast<int>(found - cells.begin());
  cells.push_back(pointer);
  return static_cast<int>(cells.size() - 1);
}

std::string CheckJsonPointer(const std::string& text) {
  try {
    Pointer pointer(text);
    return "";
  } catch (const Json::exception&) {
    return "'" + text + "' is not a JSON Pointer";
  }
}

Parsed ParseJson(std::string_view text, const JsonSpec& layout,
                 const std::vector<MetricDefinition>& metrics,
                 const JsonBounds& bounds) {
  if (text.size() > bounds.max_bytes) {
    return Fail("output of " + std::to_string(text.size()) +
                " bytes is over the limit of " + std::to_string(bounds.max_bytes));
  }
  if (std::string over = OverBounds(text, bounds); !over.empty()) {
    return Fail(std::move(over));
  }
  for (const std::string& pointer : layout.cells) {
    if (!CheckJsonPointer(pointer).empty()) return Fail(CheckJsonPointer(pointer));
  }
  for (const std::string& pointer : {layout.rows, layout.children}) {
    if (!CheckJsonPointer(pointer).empty()) return Fail(CheckJsonPointer(pointer));
  }
  const Json document = Json::parse(text, nullptr, false);
  if (document.is_discarded()) return Fail("output is not JSON");
  const Json* rows = Find(document, Pointer(layout.rows));
  if (rows == nullptr || !(rows->is_array() || rows->is_object())) {
    return Fail("no rows at '" + layout.rows + "'");
  }
  Parsed parsed;
  parsed.families = EmptyFamilies(metrics);
  RowReader(layout, metrics, &parsed).Rows(*rows, {}, "");
  parsed.FinishNotes();
  return parsed;
}

}  // namespace fetchlet::serve
