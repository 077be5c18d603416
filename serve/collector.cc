#include "serve/collector.h"

#include <spdlog/spdlog.h>

#include "serve/exposition.h"
#include "serve/mapping.h"

namespace fetchlet::serve {
namespace {

double UnixNow() {
  return std::chrono::duration<double>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

}  // namespace

Collector::Collector(CollectorConfig config,
                     const ::fetchlet::Family& entry_points)
    : config_(std::move(config)),
      entry_points_(entry_points),
      snapshot_(std::make_shared<const Snapshot>()) {}

std::shared_ptr<const Snapshot> Collector::snapshot() const {
  std::lock_guard lock(mutex_);
  return snapshot_;
}

void Collector::CountFailure(const std::string& kind, uint64_t n) {
  for (size_t i = 0; i < kFailureKinds.size(); ++i) {
    if (kind == kFailureKinds[i]) failures_[i].fetch_add(n);
  }
}

void Collector::Publish(const Evaluation& evaluation) {
  Mapped mapped = MapEvaluation(config_, evaluation);
  auto next = std::make_shared<Snapshot>();
  const std::shared_ptr<const Snapshot> last = snapshot();
  next->generation = last->generation + 1;
  next->last_success_unix = last->last_success_unix;
  next->duration_seconds = evaluation.duration_seconds;
  next->finished = std::chrono::steady_clock::now();
  next->up = mapped.failure.empty();
  if (next->up) next->last_success_unix = UnixNow();
  if (!mapped.failure.empty()) CountFailure(mapped.failure, 1);
  duplicates_.fetch_add(mapped.duplicates);
  if (mapped.dropped_rows > 0) {
    CountFailure("parse", static_cast<uint64_t>(mapped.dropped_rows));
  }
  if ((!next->up || mapped.dropped_rows > 0) && !mapped.notes.empty()) {
    next->last_error = mapped.notes.back();
  }
  for (const std::string& note : mapped.notes) {
    spdlog::warn("collector {}: {}", config_.name, note);
  }
  auto families = std::make_shared<const Families>(std::move(mapped.families));
  const std::vector<const Families*> parts = {families.get()};
  duplicates_.fetch_add(AppendFamilies(parts, Format::kText, &next->text));
  AppendFamilies(parts, Format::kOpenMetrics, &next->openmetrics);
  next->families = std::move(families);
  std::lock_guard lock(mutex_);
  snapshot_ = std::move(next);
}

}  // namespace fetchlet::serve
