#include "serve/format_json.h"

#include <algorithm>

#include <nlohmann/json.hpp>

#include "serve/mapping_row.h"

namespace fetchlet::serve {
namespace {

using Json = nlohmann::json;
using Pointer = Json::json_pointer;

// Whether arrays and objects in text nest deeper than max_depth; read
// before parsing, so that a hostile document never reaches the parser.
bool TooDeep(std::string_view text, int max_depth) {
  int depth = 0;
  bool quoted = false;
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (quoted) {
      if (c == '\\') ++i;
      else if (c == '"') quoted = false;
    } else if (c == '"') {
      quoted = true;
    } else if (c == '[' || c == '{') {
      if (++depth > max_depth) return true;
    } else if (c == ']' || c == '}') {
      --depth;
    }
  }
  return false;
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
  RowReader(const JsonFormat& format, Parsed* parsed)
      : format_(format), parsed_(*parsed) {
    for (const std::string& column : format.columns) columns_.emplace_back(column);
    if (!format.children.empty()) children_ = Pointer(format.children);
  }

  void Rows(const Json& rows, const Cells& parent, const std::string& where);

 private:
  void Row(const Json& row, const Cells& parent, const std::string& where);

  const JsonFormat& format_;
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
  // children are read, or of its parent's.
  std::vector<std::optional<std::string>> texts(columns_.size());
  Cells cells(columns_.size());
  for (size_t i = 0; i < columns_.size(); ++i) {
    const Json* cell = Find(row, columns_[i]);
    if (cell != nullptr) {
      const std::optional<std::string>& text = texts[i] = CellText(*cell);
      if (text.has_value()) cells[i] = *text;
    } else if (i < parent.size()) {
      cells[i] = parent[i];
    }
  }
  const std::string error = MapRow(format_.metrics, cells, &parsed_.families);
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

int JsonColumn(JsonFormat* format, const std::string& pointer) {
  auto& columns = format->columns;
  const auto found = std::find(columns.begin(), columns.end(), pointer);
  if (found != columns.end()) return static_cast<int>(found - columns.begin());
  columns.push_back(pointer);
  return static_cast<int>(columns.size() - 1);
}

std::string CheckJsonPointer(const std::string& text) {
  try {
    Pointer pointer(text);
    return "";
  } catch (const Json::exception&) {
    return "'" + text + "' is not a JSON Pointer";
  }
}

Parsed ParseJson(std::string_view text, const JsonFormat& format) {
  if (text.size() > format.max_bytes) {
    return Fail("output of " + std::to_string(text.size()) +
                " bytes is over the limit of " + std::to_string(format.max_bytes));
  }
  if (TooDeep(text, format.max_depth)) {
    return Fail("output nests deeper than " + std::to_string(format.max_depth));
  }
  const Json document = Json::parse(text, nullptr, false);
  if (document.is_discarded()) return Fail("output is not JSON");
  for (const std::string& pointer : format.columns) {
    if (!CheckJsonPointer(pointer).empty()) return Fail(CheckJsonPointer(pointer));
  }
  for (const std::string& pointer : {format.rows, format.children}) {
    if (!CheckJsonPointer(pointer).empty()) return Fail(CheckJsonPointer(pointer));
  }
  const Json* rows = Find(document, Pointer(format.rows));
  if (rows == nullptr || !(rows->is_array() || rows->is_object())) {
    return Fail("no rows at '" + format.rows + "'");
  }
  Parsed parsed;
  parsed.families = EmptyFamilies(format.metrics);
  RowReader(format, &parsed).Rows(*rows, {}, "");
  parsed.FinishNotes();
  return parsed;
}

}  // namespace fetchlet::serve
