// Fault switches: what tests and programs set to reach failure paths that a
// real run cannot provoke. The allocation switch lives with the allocator.
#include <atomic>

#include "host_internal.h"
#include "qve/embedded.h"

namespace {

std::atomic<int32_t> g_forced_start_result{0};
std::atomic<bool> g_fail_next_conversion{false};
std::atomic<bool> g_refuse_new_fetchlet{false};
std::atomic<bool> g_refuse_metric_result{false};

}  // namespace

namespace qvehost {

namespace internal {

int32_t ForcedStartResult() { return g_forced_start_result.load(); }
bool ConversionFailureArmed() { return g_fail_next_conversion.load(); }
void DisarmConversionFailure() { g_fail_next_conversion.store(false); }
bool NewFetchletRefused() { return g_refuse_new_fetchlet.load(); }
bool MetricResultRefused() { return g_refuse_metric_result.load(); }

}  // namespace internal

void RefuseNewFetchlet(bool refuse) { g_refuse_new_fetchlet.store(refuse); }
void RefuseMetricResult(bool refuse) { g_refuse_metric_result.store(refuse); }
void ForceStartResult(int32_t result) { g_forced_start_result.store(result); }
void FailNextConversion() { g_fail_next_conversion.store(true); }

void ResetFaults() {
  g_forced_start_result.store(0);
  g_fail_next_conversion.store(false);
  g_refuse_new_fetchlet.store(false);
  g_refuse_metric_result.store(false);
  internal::ResetAllocationFaults();
}

}  // namespace qvehost
