// Durations ("500ms", "10s", "5m", "1h") and sizes ("64MiB", "1GiB", plain
// bytes; B, KiB, MiB, GiB, TiB are powers of 1024) as the configuration and
// the program's options write them.
#ifndef FETCHLET_SERVE_DURATION_H_
#define FETCHLET_SERVE_DURATION_H_

#include <chrono>
#include <cstdint>
#include <optional>
#include <string_view>

namespace fetchlet::serve {

std::optional<std::chrono::milliseconds> ParseDuration(std::string_view text);
// nullopt for anything else and for sizes past 2^64 - 1.
std::optional<uint64_t> ParseSize(std::string_view text);

}  // namespace fetchlet::serve

#endif  // FETCHLET_SERVE_DURATION_H_
