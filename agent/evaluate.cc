#include "agent/evaluate.h"

#include <optional>

#include "agent/deadline.h"

namespace fetchlet::agent {

PropertyList NewPropertyList(std::span<const Property> properties) {
  PropertyList list(qvehost::NewPropertyList());
  for (const auto& [name, value] : properties) {
    qvehost::SetProperty(list.get(), name, value);
  }
  return list;
}

int32_t Outcome::ExceptionKind() const {
  return exception ? qveue_Exception_getKind(exception.get()) : 0;
}

std::string_view Outcome::ExceptionMessage() const {
  const char* message =
      exception ? qveue_Exception_getErrorMessage(exception.get()) : nullptr;
  return message != nullptr ? message : "";
}

Outcome Evaluate(const EntryPoints& entry_points, qvlnv_NVList* properties,
                 const Call& call) {
  const auto start = std::chrono::steady_clock::now();
  if (!call.request_id.empty()) {
    qvehost::SetProperty(properties, "KTDCLIENT_REQUEST_ID", call.request_id);
  }
  qvehost::EvaluationScope scope(call.evaluation);
  std::optional<qvehost::RunLimitsScope> limits;
  if (call.limits) limits.emplace(*call.limits);
  qvehost::TakeRunResources();  // the figures of this evaluation's runs only
  internal::DeadlineWatch watch(call);
  Context context(qvehost::NewContext());
  Outcome outcome;
  qvefet_Fetchlet* fetchlet = nullptr;
  outcome.status = entry_points.getFetchlet(context.get(), &fetchlet);
  if (outcome.status == 0) {
    qvedrmr_MetricResult* result = nullptr;
    qveue_Exception* exception = nullptr;
    outcome.status = entry_points.getMetric(context.get(), properties, &result,
                                            &exception);
    outcome.result.reset(result);
    outcome.exception.reset(exception);
    entry_points.freeFetchlet(fetchlet);
  }
  outcome.timed_out = watch.Stop();
  outcome.resources = qvehost::TakeRunResources();
  outcome.duration_seconds = std::chrono::duration<double>(
                                 std::chrono::steady_clock::now() - start)
                                 .count();
  return outcome;
}

void End(uint64_t evaluation, std::string_view request_id) {
  if (!request_id.empty()) qvehost::AbortRequest(request_id);
  if (evaluation != 0) qvehost::EndEvaluation(evaluation);
}

}  // namespace fetchlet::agent
