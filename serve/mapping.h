// Results to samples: table rows through the collector's metric list, os
// output through its regular expression, a udm value through its value
// definition. Rows that do not parse are dropped and counted, never fatal.
// The host's rows are read where they lie, through its borrowed views.
#ifndef FETCHLET_SERVE_MAPPING_H_
#define FETCHLET_SERVE_MAPPING_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "agent/evaluate.h"
#include "serve/config.h"
#include "serve/failure.h"
#include "serve/model.h"

namespace fetchlet::serve {

struct Mapped {
  Families families;
  int dropped_rows = 0;            // counted as Failure::kParse
  uint64_t duplicates = 0;         // series a format dropped
  std::optional<Failure> failure;  // nullopt when the evaluation succeeded
  std::vector<std::string> notes;  // one line per dropped row or failure
  // The command's own word, not a problem: a udm's message, a plug-in's
  // first line.
  std::optional<std::string> message;
};

// The message, as "message: ...", then the notes: what `fetchlet test` shows.
std::vector<std::string> NotesWithMessage(const Mapped& mapped);

// The samples of one evaluation. A failed evaluation maps to no sample and
// its failure. A table keeps the rows that parse: its dropped rows count as
// kParse failures and leave failure empty. An os output or a udm value that
// does not parse is the whole evaluation: failure is kParse and
// dropped_rows stays 0, so that each failure counts once.
Mapped MapEvaluation(const CollectorConfig& collector,
                     const agent::Outcome& outcome);

}  // namespace fetchlet::serve

#endif  // FETCHLET_SERVE_MAPPING_H_
