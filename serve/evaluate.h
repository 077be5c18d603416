// One evaluation of a collector through the plug-in and the embedded host,
// the same way `fetchlet run` evaluates a metric.
#ifndef FETCHLET_SERVE_EVALUATE_H_
#define FETCHLET_SERVE_EVALUATE_H_

#include <cstdint>
#include <string>

#include <nlohmann/json.hpp>

#include "cli/plugin.h"
#include "qve/embedded.h"
#include "serve/config.h"

namespace fetchlet::serve {

struct Evaluation {
  int32_t status = 0;
  nlohmann::json result;  // qvehost::ResultToJson, or null: no result
  int32_t exception_kind = 0;  // 0: no exception
  std::string exception_message;
  bool timed_out = false;  // ended by its deadline, whatever it reported
  double duration_seconds = 0;
  qvehost::RunResources resources;  // what its commands cost
};

// The prefix of the plug-in's exports for kind ("qvefos", ...).
const char* EntryPointPrefix(CollectorKind kind);

// Runs collector once on the calling thread under evaluation (the host's
// evaluation tag, never 0) with request_id as its KTDCLIENT_REQUEST_ID, so
// that another thread can end it with qvehost::AbortRequest(request_id) and
// qvehost::EndEvaluation(evaluation). entry_points are the collector's
// kind's, from the loaded plug-in.
Evaluation Evaluate(const ::fetchlet::Family& entry_points,
                    const CollectorConfig& collector,
                    uint64_t evaluation, const std::string& request_id);

}  // namespace fetchlet::serve

#endif  // FETCHLET_SERVE_EVALUATE_H_
