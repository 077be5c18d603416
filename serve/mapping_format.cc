#include "serve/mapping_format.h"

#include <algorithm>
#include <limits>

#include "serve/format_nagios.h"
#include "serve/format_prometheus.h"

namespace fetchlet::serve {

void MapFormat(const CollectorConfig& collector, std::string_view text,
               Mapped* mapped) {
  Parsed parsed =
      collector.format == "nagios"
          ? ParseNagios(text, NagiosOptions{collector.prefix})
          : ParsePrometheus(text, PrometheusOptions{collector.prefix,
                                                    collector.labels, nullptr});
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
