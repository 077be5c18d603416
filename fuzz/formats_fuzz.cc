// The output formats on fuzzed command output.
//
// Header: byte 0 the format (0 prometheus, 1 nagios, 2 json, the rest
// modulo 3). Field 0 is the output.
//
// What must hold, besides no crash: a failure is "parse" or none, and
// nothing is kept then; no family name stands twice, so the rendering never
// prints one twice; the notes stay capped; what is kept renders in both
// formats.
#include <cstdint>
#include <set>
#include <string>

#include "fuzz_support.h"
#include "serve/exposition.h"
#include "serve/format_json.h"
#include "serve/format_nagios.h"
#include "serve/format_prometheus.h"

namespace {

using namespace fetchlet::serve;
using qvefuzz::Check;

// lsblk's shape: rows, children, a label and a value by pointer.
const std::pair<JsonSpec, std::vector<MetricDefinition>>& JsonFormat() {
  static const auto format = [] {
    JsonSpec layout{"/blockdevices", "/children", {}};
    MetricDefinition metric;
    metric.name = "disk_size_bytes";
    metric.help = "Size.";
    metric.unit = "bytes";
    metric.value.column = JsonColumn(&layout, "/size");
    metric.labels = {{"device", JsonColumn(&layout, "/name")}};
    return std::make_pair(layout, std::vector<MetricDefinition>{metric});
  }();
  return format;
}

Parsed Parse(uint8_t format, const std::string& text) {
  switch (format % 3) {
    case 0:
      return ParsePrometheus(text, PrometheusOptions{"p_", {{"site", "a"}}});
    case 1:
      return ParseNagios(text, NagiosOptions{"nagios_c"});
    default:
      return ParseJson(text, JsonFormat().first, JsonFormat().second);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qvefuzz::Input input(data, size);
  const uint8_t format = input.Byte();
  const Parsed parsed = Parse(format, input.Field());
  Check(parsed.failure.empty() || parsed.failure == "parse", "failure kind",
        parsed.failure);
  Check(parsed.notes.size() <= kMaxNotes + 1, "notes capped");
  std::set<std::string> names;
  size_t samples = 0;
  for (const Family& family : parsed.families) {
    Check(names.insert(family.name).second, "family twice", family.name);
    samples += family.samples.size();
  }
  Check(parsed.failure.empty() || samples == 0, "samples of a failed output");
  const auto families = std::make_shared<const Families>(parsed.families);
  Check(RenderExposition({families}, Format::kOpenMetrics).ends_with("# EOF\n"),
        "OpenMetrics rendering");
  return 0;
}
