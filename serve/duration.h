// Durations ("500ms", "10s", "5m", "1h") and sizes ("64MiB", "1GiB", plain
// bytes) as the configuration writes them.
#ifndef FETCHLET_SERVE_DURATION_H_
#define FETCHLET_SERVE_DURATION_H_

#include <chrono>
#include <cstdint>
#include <optional>
#include <string_view>

namespace fetchlet::serve {

std::optional<std::chrono::milliseconds> ParseDuration(std::string_view text);
std::optional<uint64_t> ParseSize(std::string_view text);

}  // namespace fetchlet::serve

#endif  // FETCHLET_SERVE_DURATION_H_
