// The values a probe request gives a module, and where they go: each must
// match its param's pattern in full, and is then put whole in place of its
// ${NAME} in the module's properties. No shell ever sees it, and the
// fetchlet splits its command line only at blanks and quotes, which no
// value may hold: a value stays one argument.
#ifndef FETCHLET_SERVE_MODULE_PARAMS_H_
#define FETCHLET_SERVE_MODULE_PARAMS_H_

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "serve/config.h"

namespace fetchlet::serve {

// A host name, an IPv4 address or a bracketed IPv6 address, each with an
// optional :port.
extern const char kDefaultTargetPattern[];

// Longest value a request may give, in bytes.
constexpr std::size_t kMaxParamValueBytes = 1024;

// NAME=VALUE of one probe, in the order of the module's params.
using ParamValues = std::vector<std::pair<std::string, std::string>>;

// The names text refers to as ${NAME}, in order; false when a "${" is not
// closed by "}".
bool ParamReferences(std::string_view text, std::vector<std::string>* names);

// text with each ${NAME} of values replaced by its value; a ${NAME} not
// among them is left as it stands.
std::string Substitute(std::string_view text, const ParamValues& values);

// Why value cannot stand for param ("" when it can): too long, a control
// byte, a blank or a quote, a leading '-', or no full match of its pattern.
std::string ValueProblem(const ModuleParam& param, std::string_view value);

// The values of a request's query (NAME=VALUE pairs, decoded; module left
// out) for the module's params, defaults filled in: false with *problem
// set when a name is not a param, is given twice, is missing or its value
// does not fit. The problem names only the module's own param names, never
// what the request sent.
bool BindParams(const ModuleConfig& module, const ParamValues& query,
                ParamValues* values, std::string* problem);

// The query string of a request target (after '?'), split at '&' and '=',
// %XX and '+' decoded; false on a bad %XX escape.
bool DecodeQuery(std::string_view target, ParamValues* pairs);

}  // namespace fetchlet::serve

#endif  // FETCHLET_SERVE_MODULE_PARAMS_H_
