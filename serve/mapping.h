// Results to samples: table rows through the collector's metric list, os
// output through its regular expression, a udm value through its value
// definition. Rows that do not parse are dropped and counted, never fatal.
#ifndef FETCHLET_SERVE_MAPPING_H_
#define FETCHLET_SERVE_MAPPING_H_

#include <cstdint>
#include <string>
#include <vector>

#include "serve/config.h"
#include "serve/evaluate.h"
#include "serve/model.h"

namespace fetchlet::serve {

// Failure kinds of fetchlet_collector_failures_total, by the label value.
// "timeout", "run", "invalid_request", "process_limit", "no_result",
// "no_value", "parse".
struct Mapped {
  Families families;
  int dropped_rows = 0;            // counted as kind "parse"
  uint64_t duplicates = 0;         // series a format dropped
  std::string failure;             // "" when the evaluation succeeded
  std::vector<std::string> notes;  // one line per dropped row or failure
};

// The samples of one evaluation. A failed evaluation maps to no sample and
// its failure kind. A table keeps the rows that parse: its dropped rows
// count as "parse" failures and leave failure empty. An os output or a udm
// value that does not parse is the whole evaluation: failure is "parse" and
// dropped_rows stays 0, so that each failure counts once.
Mapped MapEvaluation(const CollectorConfig& collector,
                     const Evaluation& evaluation);

}  // namespace fetchlet::serve

#endif  // FETCHLET_SERVE_MAPPING_H_
