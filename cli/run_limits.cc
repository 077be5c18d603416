#include "run_limits.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "serve/duration.h"

namespace fetchlet {

bool ParseCpuShare(std::string_view text, double* cpu) {
  if (text.empty() || text.find_first_not_of("0123456789.") != text.npos) {
    return false;
  }
  const std::string copy(text);
  char* end = nullptr;
  const double value = std::strtod(copy.c_str(), &end);
  if (*end != '\0' || !std::isfinite(value) || value <= 0 || value > 1e6) {
    return false;
  }
  *cpu = value;
  return true;
}

std::string ParseLimitOptions(const LimitOptions& options,
                              qvehost::RunLimits* limits) {
  if (!options.memory.empty()) {
    const auto bytes = serve::ParseSize(options.memory);
    if (!bytes || *bytes == 0) return "bad memory limit '" + options.memory + "'";
    limits->memory_bytes = *bytes;
  }
  if (!options.pids.empty()) {
    const char* end = options.pids.data() + options.pids.size();
    const auto [at, fault] =
        std::from_chars(options.pids.data(), end, limits->pids);
    if (fault != std::errc() || at != end || limits->pids == 0) {
      return "bad process limit '" + options.pids + "'";
    }
  }
  if (!options.cpu.empty() && !ParseCpuShare(options.cpu, &limits->cpu)) {
    return "bad CPU limit '" + options.cpu + "'";
  }
  return "";
}

void PrintResources(std::ostream& err, const qvehost::RunResources& r) {
  char line[256];
  std::snprintf(line, sizeof line,
                "resources: cpu %.3fs user %.3fs system (%s), peak memory "
                "%llu bytes (%s)",
                r.user_seconds, r.system_seconds,
                r.from_cgroup ? "cgroup" : "direct child only",
                static_cast<unsigned long long>(r.memory_peak_bytes),
                r.memory_from_cgroup ? "cgroup" : "direct child only");
  err << line;
  if (r.io_counted) {
    err << ", read " << r.io_read_bytes << " written " << r.io_write_bytes
        << " bytes";
  }
  err << "\n";
  if (r.oom_kills != 0) {
    err << "fetchlet: the command was killed by the OOM killer at its memory "
           "limit\n";
  }
  if (r.forks_refused != 0) {
    err << "fetchlet: the command was refused a new process at its process "
           "limit\n";
  }
}

nlohmann::json ResourcesJson(const qvehost::RunResources& r) {
  nlohmann::json json = {
      {"runs", r.runs},
      {"cpu_user_seconds", r.user_seconds},
      {"cpu_system_seconds", r.system_seconds},
      {"memory_peak_bytes", r.memory_peak_bytes},
      {"measured_by", r.from_cgroup ? "cgroup" : "direct child"},
      {"memory_measured_by", r.memory_from_cgroup ? "cgroup" : "direct child"}};
  if (r.io_counted) {
    json["io_read_bytes"] = r.io_read_bytes;
    json["io_write_bytes"] = r.io_write_bytes;
  }
  if (r.oom_kills_counted) json["oom_kills"] = r.oom_kills;
  if (r.forks_counted) json["forks_refused"] = r.forks_refused;
  return json;
}

}  // namespace fetchlet
