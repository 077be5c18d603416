// Why an evaluation gave no samples (or dropped some): the label values of
// fetchlet_collector_failures_total{kind}.
#ifndef FETCHLET_SERVE_FAILURE_H_
#define FETCHLET_SERVE_FAILURE_H_

#include <array>
#include <cstddef>
#include <cstdint>

namespace fetchlet::serve {

enum class Failure {
  kTimeout,         // ended at its deadline
  kRun,             // exception kind 12: the command could not be run
  kInvalidRequest,  // kind 11: the properties do not make a request
  kProcessLimit,    // kind 15: the host refused to start another command
  kNoResult,        // kind 10, or a failure without exception
  kNoValue,         // a udm run that printed no value
  kParse,           // output or rows that do not map
  kResource,        // its commands met their memory or process limit
};

inline constexpr size_t kFailureCount = 8;

// "timeout", "run", "invalid_request", ...
const char* FailureName(Failure failure);

// Every failure, in the order of its metric's samples.
const std::array<Failure, kFailureCount>& AllFailures();

// The failure an exception of kind stands for.
Failure FailureOfException(int32_t kind);

}  // namespace fetchlet::serve

#endif  // FETCHLET_SERVE_FAILURE_H_
