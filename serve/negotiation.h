// What a scraper asks for: the format by its Accept header's q-values and
// gzip by its Accept-Encoding header.
#ifndef FETCHLET_SERVE_NEGOTIATION_H_
#define FETCHLET_SERVE_NEGOTIATION_H_

#include <string>
#include <string_view>

namespace fetchlet::serve {

enum class Format { kText, kOpenMetrics };

// The format an Accept header asks for, by q-value; the text format when
// the header is empty or names nothing we serve.
Format NegotiateFormat(std::string_view accept);
const char* ContentType(Format format);

// Whether an Accept-Encoding header takes gzip (q-values honoured).
bool AcceptsGzip(std::string_view accept_encoding);

// data in the gzip format.
std::string Gzip(std::string_view data);

}  // namespace fetchlet::serve

#endif  // FETCHLET_SERVE_NEGOTIATION_H_
