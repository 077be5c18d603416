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

struct JsonFormat {
  std::string rows;      // pointer to the rows: an array, or one object
  std::string children;  // pointer, relative to a row, to its rows; "": none
  // Pointers relative to a row; the metrics' columns are indices into them.
  std::vector<std::string> columns;
  std::vector<MetricDefinition> metrics;
  // Bounds of the parse: the output limit, and how deep arrays and objects
  // nest.
  uint64_t max_bytes = 64ull << 20;
  int max_depth = 64;
};

// The column of pointer, added to format->columns when new.
int JsonColumn(JsonFormat* format, const std::string& pointer);

// "" or why text is not a JSON Pointer.
std::string CheckJsonPointer(const std::string& text);

// A document too large, too deep, not JSON or without rows there fails as
// "parse"; a row that does not map is dropped and counted.
Parsed ParseJson(std::string_view text, const JsonFormat& format);

}  // namespace fetchlet::serve

#endif  // FETCHLET_SERVE_FORMAT_JSON_H_
