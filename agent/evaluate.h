// One evaluation of a metric through the plug-in on the embedded host: the
// way `fetchlet run`, `fetchlet test`, `serve`, the tests and the
// benchmarks all evaluate.
#ifndef FETCHLET_AGENT_EVALUATE_H_
#define FETCHLET_AGENT_EVALUATE_H_

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "agent/handles.h"
#include "agent/plugin.h"

namespace fetchlet::agent {

using SteadyTime = std::chrono::steady_clock::time_point;

struct Call {
  // The host's tag for the commands of this evaluation (never reused); 0:
  // untagged, so a deadline can only abort the request.
  uint64_t evaluation = 0;
  // Set as KTDCLIENT_REQUEST_ID after the other properties, which makes
  // the run abortable; "" leaves the list as it is.
  std::string request_id;
  // At the deadline the request is aborted and the evaluation's commands
  // ended (End); nullopt: no deadline.
  std::optional<SteadyTime> deadline;
  // Limits of this evaluation's commands in place of the host's defaults
  // (the caller has checked that they can hold: qvehost::RunLimitsError).
  std::optional<qvehost::RunLimits> limits = std::nullopt;
};

struct Outcome {
  int32_t status = 0;
  Result result;        // null: no result
  Exception exception;  // null: none
  bool timed_out = false;  // ended at its deadline, whatever it reported
  double duration_seconds = 0;
  qvehost::RunResources resources;  // what its commands cost

  bool Succeeded() const { return status == 0 && result != nullptr; }
  int32_t ExceptionKind() const;  // 0: no exception
  std::string_view ExceptionMessage() const;
};

// Evaluates once on the calling thread with a context of its own (the abort
// callback a run registers lives with its context, so concurrent
// evaluations never share one). properties is used as it stands, with the
// request identifier set last.
Outcome Evaluate(const EntryPoints& entry_points, qvlnv_NVList* properties,
                 const Call& call);

// Ends a running evaluation from any thread: aborts request_id through the
// host (which reaches the runner's wait loop) and kills the evaluation's
// commands (which reaches one that closed its streams, does not read its
// input or is still authenticating). Harmless after the evaluation ended.
void End(uint64_t evaluation, std::string_view request_id);

}  // namespace fetchlet::agent

#endif  // FETCHLET_AGENT_EVALUATE_H_
