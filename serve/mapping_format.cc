#include "serve/mapping_format.h"

#include <algorithm>
#include <limits>

#include "qve/embedded.h"
#include "serve/format_json.h"
#include "serve/format_nagios.h"
#include "serve/format_prometheus.h"

namespace fetchlet::serve {

namespace {

Parsed Parse(const CollectorConfig& collector, std::string_view text) {
  if (collector.format == "nagios") {
    return ParseNagios(text, NagiosOptions{collector.prefix});
  }
  if (collector.format == "json") {
    // The host ends a command at the output limit; the parser holds to it
    // too, whatever gave it the text.
    JsonBounds bounds;
    const uint64_t limit = qvehost::OutputLimit();
    bounds.max_bytes = limit > 0 ? limit : std::numeric_limits<uint64_t>::max();
    return ParseJson(text, collector.json, collector.metrics, bounds);
  }
  return ParsePrometheus(text, PrometheusOptions{collector.prefix, collector.labels});
}

}  // namespace

void MapFormat(const CollectorConfig& collector, std::string_view text,
               Mapped* mapped) {
  Parsed parsed = Parse(collector, text);
  mapped->families = std::move(parsed.families);
  // A format fails its output only as a whole that cannot be read.
  if (!parsed.failure.empty()) mapped->failure = Failure::kParse;
  mapped->duplicates = parsed.duplicate;
  mapped->dropped_rows = static_cast<int>(
      std::min<uint64_t>(parsed.parse, std::numeric_limits<int>::max()));
  if (!parsed.message.empty()) mapped->message = std::move(parsed.message);
  for (std::string& note : parsed.notes) mapped->notes.push_back(std::move(note));
}

}  // namespace fetchlet::serve
