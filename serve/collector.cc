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

void AddResources(const Snapshot& last, const qvehost::RunResources& r,
                  Snapshot* next) {
  next->cpu_user_seconds = last.cpu_user_seconds + r.user_seconds;
  next->cpu_system_seconds = last.cpu_system_seconds + r.system_seconds;
  next->io_read_bytes =
      last.io_read_bytes + static_cast<double>(r.io_read_bytes);
  next->io_write_bytes =
      last.io_write_bytes + static_cast<double>(r.io_write_bytes);
  next->memory_peak_bytes = static_cast<double>(r.memory_peak_bytes);
}

}  // namespace

std::string LogSafe(std::string_view text) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string safe;
  safe.reserve(text.size());
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '\\') {
      safe += "\\\\";
    } else if (c == '\n') {
      safe += "\\n";
    } else if (c == '\r') {
      safe += "\\r";
    } else if (c == '\t') {
      safe += "\\t";
    } else if (byte < 0x20 || byte == 0x7f) {
      safe += "\\x";
      safe += kHex[byte >> 4];
      safe += kHex[byte & 0xf];
    } else {
      safe += c;
    }
  }
  return safe;
}

Collector::Collector(CollectorConfig config,
                     const agent::EntryPoints& entry_points,
                     std::shared_ptr<FamilyClaims> claims)
    : config_(std::move(config)),
      entry_points_(entry_points),
      claims_(std::move(claims)),
      snapshot_(std::make_shared<const Snapshot>()) {}

std::shared_ptr<const Snapshot> Collector::snapshot() const {
  std::lock_guard lock(mutex_);
  return snapshot_;
}

// The password is added here, at evaluation time, so that it never stands
// among the properties that are logged or rendered.
agent::Outcome Collector::Evaluate(const agent::Call& call) const {
  agent::PropertyList list = agent::NewPropertyList(config_.properties);
  if (!config_.password.empty()) {
    qvehost::SetProperty(list.get(), "password", config_.password);
  }
  agent::Call limited = call;
  limited.limits = ToRunLimits(config_.limits);
  return agent::Evaluate(entry_points_, list.get(), limited);
}

void Collector::Publish(const agent::Outcome& outcome) {
  Mapped mapped = MapEvaluation(config_, outcome);
  if (claims_) {
    mapped.duplicates += claims_->Claim(config_.name, &mapped.families, &mapped.notes);
  }
  auto next = std::make_shared<Snapshot>();
  const std::shared_ptr<const Snapshot> last = snapshot();
  next->generation = last->generation + 1;
  next->last_success_unix = last->last_success_unix;
  next->duration_seconds = outcome.duration_seconds;
  next->finished = std::chrono::steady_clock::now();
  AddResources(*last, outcome.resources, next.get());
  next->up = !mapped.failure;
  if (next->up) next->last_success_unix = UnixNow();
  if (mapped.failure) CountFailure(*mapped.failure, 1);
  duplicates_.fetch_add(mapped.duplicates);
  if (mapped.dropped_rows > 0) {
    CountFailure(Failure::kParse, static_cast<uint64_t>(mapped.dropped_rows));
  }
  if ((!next->up || mapped.dropped_rows > 0) && !mapped.notes.empty()) {
    next->last_error = mapped.notes.back();
  }
  if (mapped.message) {
    next->message = *mapped.message;
    spdlog::info("collector {}: message: {}", config_.name,
                 LogSafe(*mapped.message));
  }
  for (const std::string& note : mapped.notes) {
    spdlog::warn("collector {}: {}", config_.name, LogSafe(note));
  }
  auto families = std::make_shared<const Families>(std::move(mapped.families));
  const std::vector<const Families*> parts = {families.get()};
  duplicates_.fetch_add(AppendFamilies(parts, Format::kText, &next->text));
  AppendFamilies(parts, Format::kOpenMetrics, &next->openmetrics);
  next->families = families;
  {
    std::lock_guard lock(mutex_);
    snapshot_ = std::move(next);
  }
  // The families before these are no longer scraped: their names are free.
  if (claims_) claims_->Settle(config_.name, *families);
}

}  // namespace fetchlet::serve
