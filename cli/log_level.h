// The --log-level names of every command, for the host's log and serve's
// own.
#ifndef QVE_CLI_LOG_LEVEL_H_
#define QVE_CLI_LOG_LEVEL_H_

#include <optional>
#include <string_view>

#include <spdlog/common.h>

#include "qve/embedded.h"

namespace fetchlet {

struct LogLevel {
  qvehost::LogLevel host;
  spdlog::level::level_enum own;
};

// trace, debug, info, warn, error, off; nullopt for any other name. The
// host has no info level: info keeps its warnings.
std::optional<LogLevel> LogLevelNamed(std::string_view name);

}  // namespace fetchlet

#endif  // QVE_CLI_LOG_LEVEL_H_
