#include "serve/failure.h"

namespace fetchlet::serve {
namespace {

struct FailureRow {
  Failure failure;
  const char* name;
  int32_t exception_kind;  // 0: none stands for it
};

constexpr std::array<FailureRow, kFailureCount> kFailures = {{
    {Failure::kTimeout, "timeout", 7},
    {Failure::kRun, "run", 12},
    {Failure::kInvalidRequest, "invalid_request", 11},
    {Failure::kProcessLimit, "process_limit", 15},
    {Failure::kNoResult, "no_result", 0},
    {Failure::kNoValue, "no_value", 0},
    {Failure::kParse, "parse", 0},
    {Failure::kResource, "resource", 0},
}};

static_assert([] {
  for (size_t i = 0; i < kFailureCount; ++i) {
    if (static_cast<size_t>(kFailures[i].failure) != i) return false;
  }
  return true;
}(), "kFailures is in the order of Failure");

}  // namespace

const char* FailureName(Failure failure) {
  return kFailures[static_cast<size_t>(failure)].name;
}

const std::array<Failure, kFailureCount>& AllFailures() {
  static constexpr std::array<Failure, kFailureCount> kAll = [] {
    std::array<Failure, kFailureCount> all{};
    for (size_t i = 0; i < kFailureCount; ++i) all[i] = kFailures[i].failure;
    return all;
  }();
  return kAll;
}

Failure FailureOfException(int32_t kind) {
  for (const FailureRow& row : kFailures) {
    if (row.exception_kind != 0 && row.exception_kind == kind) {
      return row.failure;
    }
  }
  return Failure::kNoResult;
}

}  // namespace fetchlet::serve
