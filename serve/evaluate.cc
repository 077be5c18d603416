#include "serve/evaluate.h"

#include <chrono>

#include "qve/embedded.h"

namespace fetchlet::serve {
namespace {

// The collector's properties, then the ones serve owns: a later setting of a
// name replaces the earlier value in its place.
qvlnv_NVList* PropertyList(const CollectorConfig& collector,
                           const std::string& request_id) {
  qvlnv_NVList* list = qvehost::NewPropertyList();
  for (const auto& [name, value] : collector.properties) {
    qvehost::SetProperty(list, name, value);
  }
  if (!collector.password.empty()) {
    qvehost::SetProperty(list, "password", collector.password);
  }
  qvehost::SetProperty(list, "KTDCLIENT_REQUEST_ID", request_id);
  return list;
}

}  // namespace

const char* EntryPointPrefix(CollectorKind kind) {
  switch (kind) {
    case CollectorKind::kOs:
      return "qvefos";
    case CollectorKind::kOsLine:
      return "qvefosl";
    case CollectorKind::kOsLineToken:
      return "qvefoslt";
    case CollectorKind::kUdm:
      return "qvefosud";
  }
  return "qvefos";
}

// A context of its own for each evaluation: contexts are cheap, and the
// abort callback a run registers lives with its context and request id, so
// evaluations on different workers never share one.
Evaluation Evaluate(const ::fetchlet::Family& entry_points,
                    const CollectorConfig& collector, uint64_t evaluation,
                    const std::string& request_id) {
  const auto start = std::chrono::steady_clock::now();
  qvehost::EvaluationScope scope(evaluation);
  qvehost::RunLimitsScope limits(ToRunLimits(collector.limits));
  qvehost::TakeRunResources();  // figures of this evaluation's runs only
  qvefet_Context* context = qvehost::NewContext();
  qvlnv_NVList* list = PropertyList(collector, request_id);
  Evaluation outcome;
  qvefet_Fetchlet* fetchlet = nullptr;
  qvedrmr_MetricResult* result = nullptr;
  qveue_Exception* exception = nullptr;
  outcome.status = entry_points.getFetchlet(context, &fetchlet);
  if (outcome.status == 0) {
    outcome.status =
        entry_points.getMetric(context, list, &result, &exception);
    entry_points.freeFetchlet(fetchlet);
  }
  if (result != nullptr) {
    outcome.result = qvehost::ResultToJson(result);
    qvedrmr_MetricResult_delete(result);
  }
  if (exception != nullptr) {
    outcome.exception_kind = qveue_Exception_getKind(exception);
    const char* message = qveue_Exception_getErrorMessage(exception);
    outcome.exception_message = message != nullptr ? message : "";
    qveue_Exception_delete(exception);
  }
  qvehost::DeletePropertyList(list);
  qvehost::DeleteContext(context);
  outcome.resources = qvehost::TakeRunResources();
  outcome.duration_seconds = std::chrono::duration<double>(
                                 std::chrono::steady_clock::now() - start)
                                 .count();
  return outcome;
}

}  // namespace fetchlet::serve
