// What a format parser (prometheus, nagios, json) makes of a command's
// output: samples in the model that only the renderer writes out, and counts
// of what it dropped. What a command printed never fails more than its own
// lines: a bad line or row is dropped and counted, never fatal.
#ifndef FETCHLET_SERVE_FORMAT_H_
#define FETCHLET_SERVE_FORMAT_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "serve/model.h"

namespace fetchlet::serve {

// Notes kept per evaluation; a hostile output must not grow the log.
constexpr size_t kMaxNotes = 20;

struct Parsed {
  Families families;
  uint64_t parse = 0;      // lines, perfdata labels or rows dropped
  uint64_t duplicate = 0;  // series or families dropped as seen before
  std::string failure;     // "parse" when the output as a whole is unusable
  std::string message;     // a plug-in's first line, for the log and status
  std::vector<std::string> notes;
  uint64_t notes_left_off = 0;

  void Note(std::string note);
  // A last note saying how many were left off, when any were.
  void FinishNotes();
};

// A name [a-zA-Z_][a-zA-Z0-9_]*, as families and labels take.
bool IsMetricName(std::string_view name);

// text as a valid name: each run of other characters becomes one '_',
// lower case, and a leading digit gets a '_' before it; "_" when nothing
// is left.
std::string SanitizeName(std::string_view text);

}  // namespace fetchlet::serve

#endif  // FETCHLET_SERVE_FORMAT_H_
