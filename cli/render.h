// How the outcome of a metric reaches the user: a readable table, or one
// JSON object.
#ifndef QVE_CLI_RENDER_H_
#define QVE_CLI_RENDER_H_

#include <cstdint>
#include <ostream>
#include <string>

#include "qve/host.h"

namespace fetchlet {

// {"status": S, "result": R, "exception": E} on one line, written as the
// result is walked (a large result is not copied); text that is not valid
// UTF-8 gets U+FFFD in place of each invalid sequence. A non-empty resources
// (a JSON object's text) follows as "resources".
void PrintJson(std::ostream& out, int32_t status,
               const qvedrmr_MetricResult* result, qveue_Exception* exception,
               const std::string& resources = {});

// The result's rows as a JSON array, written the same way ([] for null).
void PrintJsonRows(std::ostream& out, const qvedrmr_MetricResult* result);

inline constexpr const char* kNoResult = "(no result)";
inline constexpr const char* kNoRows = "(no rows)";

// Rows with their cells separated by " | ", nested tables indented under
// their row, then the warning; kNoResult for a null result, kNoRows for a
// result with neither rows nor warning. Texts are written as they are.
void PrintTable(std::ostream& out, const qvedrmr_MetricResult* result);

// "error (kind K): MESSAGE", or the status alone when there is no exception.
void PrintFailure(std::ostream& err, int32_t status,
                  qveue_Exception* exception);

}  // namespace fetchlet

#endif  // QVE_CLI_RENDER_H_
