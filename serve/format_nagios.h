// format: nagios. A plug-in's state and performance data: its output, as
// fetchlet-exit-status passes it on with the exit status on a last line of
// its own (the fetchlets turn a non-zero exit into an exception, so the
// status travels in the output).
//
// Families, for prefix P and a perfdata label L in its unit U:
//   P_state{P_state="ok"|"warning"|"critical"|"unknown"}   a stateset
//   P_exit_status                                           a gauge
//   P_L_U (P_L_total for "c")                               the value
//   P_L_threshold_U{threshold="warning"|"critical", bound="lower"|"upper",
//                   range="outside"|"inside"}, {threshold="min"|"max"}
// in base units: s, ms, us -> seconds; % -> ratio; B, KB, MB, GB, TB (1024
// each) -> bytes. Other units become part of the name. The first line's
// text goes to the log and the status page, never into a label.
#ifndef FETCHLET_SERVE_FORMAT_NAGIOS_H_
#define FETCHLET_SERVE_FORMAT_NAGIOS_H_

#include <optional>
#include <string>
#include <string_view>

#include "serve/format.h"

namespace fetchlet::serve {

// What fetchlet-exit-status appends: this, the status, a line feed. A
// plug-in killed by signal S has status 128 + S.
constexpr std::string_view kExitStatusMarker = "fetchlet-exit-status ";

struct NagiosOptions {
  std::string prefix;  // a valid name, put before every family's name
};

// A missing status line fails the whole output as "parse"; text after the
// last status line (the plug-in's standard error) is ignored; a perfdata label
// that does not parse is dropped and counted, one given twice likewise.
Parsed ParseNagios(std::string_view text, const NagiosOptions& options);

// A threshold range: 10, 10:, ~:10, 10:20, @10:20; inside when it alerts
// inside [lower, upper] (the '@' form), else outside.
struct Range {
  double lower = 0;
  double upper = 0;
  bool inside = false;
};
std::optional<Range> ParseRange(std::string_view text);

}  // namespace fetchlet::serve

#endif  // FETCHLET_SERVE_FORMAT_NAGIOS_H_
