// How the outcome of a metric reaches the user: a readable table, or one
// JSON object.
#ifndef QVE_CLI_RENDER_H_
#define QVE_CLI_RENDER_H_

#include <cstdint>
#include <ostream>

#include "qve/host.h"

namespace fetchlet {

// {"status": S, "result": R, "exception": E} on one line; text that is not
// valid UTF-8 gets U+FFFD in place of each invalid sequence.
void PrintJson(std::ostream& out, int32_t status,
               const qvedrmr_MetricResult* result, qveue_Exception* exception);

// Rows with their cells separated by " | ", nested tables indented under
// their row, then the warning.
void PrintTable(std::ostream& out, const qvedrmr_MetricResult* result);

// "error (kind K): MESSAGE", or the status alone when there is no exception.
void PrintFailure(std::ostream& err, int32_t status,
                  qveue_Exception* exception);

}  // namespace fetchlet

#endif  // QVE_CLI_RENDER_H_
