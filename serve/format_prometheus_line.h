// One line of the Prometheus text formats, lexed: a sample or a metadata
// line. Shared by the prometheus format's parser and its tests only.
#ifndef FETCHLET_SERVE_FORMAT_PROMETHEUS_LINE_H_
#define FETCHLET_SERVE_FORMAT_PROMETHEUS_LINE_H_

#include <optional>
#include <string>
#include <string_view>

#include "serve/model.h"

namespace fetchlet::serve {

struct SampleLine {
  std::string_view name;  // within the line
  Labels labels;
  double value = 0;
  bool timestamp = false;  // one was given (and is dropped)
};

// "name{labels} value [timestamp]", in OpenMetrics also followed by an
// exemplar, which is dropped. "" or why the line does not parse.
std::string LexSample(std::string_view line, bool openmetrics,
                      SampleLine* sample);

// "# HELP name text", "# TYPE name type", "# UNIT name unit".
struct MetadataLine {
  std::string keyword;  // "HELP", "TYPE" or "UNIT"; "" for a comment
  std::string name;
  std::string text;     // unescaped help, the type or the unit
};

// A line starting with '#'. "" or why it does not parse.
std::string LexMetadata(std::string_view line, bool openmetrics,
                        MetadataLine* metadata);

// A value of the text formats: a float, NaN or [+-]Inf.
std::optional<double> ParseFloat(std::string_view text);

}  // namespace fetchlet::serve

#endif  // FETCHLET_SERVE_FORMAT_PROMETHEUS_LINE_H_
