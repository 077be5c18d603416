// The two text formats scrapers read, rendered from the sample model:
// OpenMetrics 1.0.0 and the Prometheus text format 0.0.4. Whatever a
// command printed, the output stays parseable: invalid UTF-8 is replaced,
// label values are escaped and capped, duplicate series are dropped.
#ifndef FETCHLET_SERVE_EXPOSITION_H_
#define FETCHLET_SERVE_EXPOSITION_H_

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "serve/model.h"
#include "serve/negotiation.h"

namespace fetchlet::serve {

// Longest label value rendered, in bytes; a longer one is cut at a
// character boundary.
constexpr size_t kMaxLabelValueBytes = 4096;

// Every family of collectors, families of one name merged in first-seen
// order so that each family's samples are contiguous; OpenMetrics output
// ends in "# EOF".
std::string RenderExposition(const std::vector<FamiliesPtr>& collectors,
                             Format format);

// The same without "# EOF", appended to *out; returns how many duplicate
// series were dropped.
size_t AppendFamilies(const std::vector<const Families*>& parts,
                      Format format, std::string* out);

// Building blocks, exposed for tests.
// The type as a format's # TYPE line names it.
const char* TypeName(MetricType type, Format format);
std::string ValidUtf8(std::string_view text);  // bad bytes become U+FFFD
void AppendNumber(double value, std::string* out);
void AppendLabelValue(std::string_view value, std::string* out);

}  // namespace fetchlet::serve

#endif  // FETCHLET_SERVE_EXPOSITION_H_
