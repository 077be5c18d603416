#include "log_level.h"

#include <array>
#include <utility>

namespace fetchlet {

std::optional<LogLevel> LogLevelNamed(std::string_view name) {
  static constexpr std::array<std::pair<std::string_view, LogLevel>, 6>
      kLevels = {{
          {"trace", {qvehost::LogLevel::kTrace, spdlog::level::trace}},
          {"debug", {qvehost::LogLevel::kDebug, spdlog::level::debug}},
          {"info", {qvehost::LogLevel::kWarn, spdlog::level::info}},
          {"warn", {qvehost::LogLevel::kWarn, spdlog::level::warn}},
          {"error", {qvehost::LogLevel::kError, spdlog::level::err}},
          {"off", {qvehost::LogLevel::kOff, spdlog::level::off}},
      }};
  for (const auto& [level_name, level] : kLevels) {
    if (level_name == name) return level;
  }
  return std::nullopt;
}

}  // namespace fetchlet
