#include "serve/duration.h"

#include <charconv>
#include <limits>
#include <utility>

namespace fetchlet::serve {
namespace {

// The leading digits of text as a number and the rest; nullopt when there
// are none or they overflow.
std::optional<std::pair<uint64_t, std::string_view>> SplitNumber(
    std::string_view text) {
  uint64_t number = 0;
  const auto [end, error] =
      std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end == text.data()) return std::nullopt;
  return std::make_pair(number, text.substr(
                                    static_cast<size_t>(end - text.data())));
}

std::optional<uint64_t> Multiply(uint64_t number, uint64_t factor) {
  if (number > std::numeric_limits<uint64_t>::max() / factor) {
    return std::nullopt;
  }
  return number * factor;
}

}  // namespace

std::optional<std::chrono::milliseconds> ParseDuration(std::string_view text) {
  static constexpr std::pair<std::string_view, uint64_t> kUnits[] = {
      {"ms", 1}, {"s", 1000}, {"m", 60'000}, {"h", 3'600'000}};
  const auto split = SplitNumber(text);
  if (!split) return std::nullopt;
  for (const auto& [unit, factor] : kUnits) {
    if (split->second != unit) continue;
    const auto ms = Multiply(split->first, factor);
    // Kept well inside the clock's range, so deadlines never overflow.
    if (!ms || *ms > (uint64_t{1} << 40)) return std::nullopt;
    return std::chrono::milliseconds(static_cast<int64_t>(*ms));
  }
  return std::nullopt;
}

std::optional<uint64_t> ParseSize(std::string_view text) {
  static constexpr std::pair<std::string_view, uint64_t> kUnits[] = {
      {"", 1},           {"B", 1},          {"KiB", 1ull << 10},
      {"MiB", 1ull << 20}, {"GiB", 1ull << 30}, {"TiB", 1ull << 40}};
  const auto split = SplitNumber(text);
  if (!split) return std::nullopt;
  for (const auto& [unit, factor] : kUnits) {
    if (split->second == unit) return Multiply(split->first, factor);
  }
  return std::nullopt;
}

}  // namespace fetchlet::serve
