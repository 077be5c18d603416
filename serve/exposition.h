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

namespace fetchlet::serve {

enum class Format { kText, kOpenMetrics };

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

// The format an Accept header asks for, by q-value; the text format when
// the header is empty or names nothing we serve.
Format NegotiateFormat(std::string_view accept);
const char* ContentType(Format format);

// Whether an Accept-Encoding header takes gzip (q-values honoured).
bool AcceptsGzip(std::string_view accept_encoding);

// data in the gzip format.
std::string Gzip(std::string_view data);

// Building blocks, exposed for tests.
std::string ValidUtf8(std::string_view text);  // bad bytes become U+FFFD
void AppendNumber(double value, std::string* out);
void AppendLabelValue(std::string_view value, std::string* out);

}  // namespace fetchlet::serve

#endif  // FETCHLET_SERVE_EXPOSITION_H_
