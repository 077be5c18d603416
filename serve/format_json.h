// format: json. Rows of a command's JSON output selected by a JSON Pointer
// (RFC 6901), each row's cells by pointers relative to it, then read like
// the cells of a table row: the same scale, map, trim_suffix and family
// types. children: follows a nested array of rows (as lsblk's), whose rows
// take from their parent each cell they lack, so the parent's labels stay.
#ifndef FETCHLET_SERVE_FORMAT_JSON_H_
#define FETCHLET_SERVE_FORMAT_JSON_H_

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "serve/config.h"
#include "serve/format.h"

namespace fetchlet::serve {

// Bounds of the parse: the output limit, how deep arrays and objects nest,
// and how many values a document holds (a parsed value takes tens of times
// the bytes of its text).
struct JsonBounds {
  uint64_t max_bytes = 64ull << 20;
  int max_depth = 64;
  uint64_t max_values = 1000000;
};

// The column of pointer, added to layout->cells when new.
int JsonColumn(JsonSpec* layout, const std::string& pointer);

// "" or why text is not a JSON Pointer.
std::string CheckJsonPointer(const std::string& text);

// The rows of text through metrics, whose columns index layout.cells. A
// document over a bound, not JSON or without rows there fails as "parse";
// a row that does not map is dropped and counted.
Parsed ParseJson(std::string_view text, const JsonSpec& layout,
                 const std::vector<MetricDefinition>& metrics,
                 const JsonBounds& bounds = {});

}  // namespace fetchlet::serve

#endif  // FETCHLET_SERVE_FORMAT_JSON_H_
