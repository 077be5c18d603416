#include "serve/meta_metrics.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

namespace fetchlet::serve {
namespace {

Family Gauge(std::string name, std::string help, std::string unit = "") {
  return {std::move(name), MetricType::kGauge, std::move(unit),
          std::move(help), {}};
}

Family Counter(std::string name, std::string help) {
  return {std::move(name), MetricType::kCounter, "", std::move(help), {}};
}

std::string ReadSmallFile(const char* path) {
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return "";
  std::string text;
  char buffer[4096];
  for (;;) {
    const ssize_t n = read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    text.append(buffer, static_cast<size_t>(n));
  }
  close(fd);
  return text;
}

double OpenDescriptors() {
  DIR* dir = opendir("/proc/self/fd");
  if (dir == nullptr) return 0;
  double count = 0;
  while (const dirent* entry = readdir(dir)) {
    if (entry->d_name[0] != '.') ++count;
  }
  closedir(dir);
  return count - 1;  // the directory's own descriptor
}

// Fields of /proc/self/stat after the command name, from state (field 3).
std::vector<std::string> StatFields() {
  const std::string stat = ReadSmallFile("/proc/self/stat");
  std::vector<std::string> fields;
  const size_t close_paren = stat.rfind(')');
  if (close_paren == std::string::npos) return fields;
  size_t at = close_paren + 2;
  while (at < stat.size()) {
    size_t space = stat.find(' ', at);
    if (space == std::string::npos) space = stat.size();
    fields.push_back(stat.substr(at, space - at));
    at = space + 1;
  }
  return fields;
}

double BootTime() {
  const std::string stat = ReadSmallFile("/proc/stat");
  const size_t at = stat.find("\nbtime ");
  return at == std::string::npos ? 0 : std::strtod(stat.c_str() + at + 7, nullptr);
}

// What the collectors' commands cost: CPU and I/O since start, the last
// evaluation's peak memory.
Families CostFamilies(const std::vector<CollectorPtr>& collectors) {
  Family cpu = Counter("fetchlet_collector_cpu_seconds_total",
                       "CPU time of the collector's commands, by mode.");
  Family memory = Gauge("fetchlet_collector_memory_peak_bytes",
                        "Largest memory of the last evaluation's commands.",
                        "bytes");
  Family io = Counter("fetchlet_collector_io_bytes_total",
                      "Bytes the collector's commands read and wrote.");
  for (const CollectorPtr& collector : collectors) {
    const std::string& name = collector->config().name;
    const auto snapshot = collector->snapshot();
    cpu.samples.push_back({{{"collector", name}, {"mode", "user"}},
                           snapshot->cpu_user_seconds});
    cpu.samples.push_back({{{"collector", name}, {"mode", "system"}},
                           snapshot->cpu_system_seconds});
    memory.samples.push_back({{{"collector", name}}, snapshot->memory_peak_bytes});
    io.samples.push_back({{{"collector", name}, {"direction", "read"}},
                          snapshot->io_read_bytes});
    io.samples.push_back({{{"collector", name}, {"direction", "write"}},
                          snapshot->io_write_bytes});
  }
  Families families;
  families.push_back(std::move(cpu));
  families.push_back(std::move(memory));
  families.push_back(std::move(io));
  return families;
}

}  // namespace

Families ProcessFamilies() {
  const double ticks = static_cast<double>(sysconf(_SC_CLK_TCK));
  const double page = static_cast<double>(sysconf(_SC_PAGESIZE));
  const std::vector<std::string> f = StatFields();
  auto field = [&](size_t number) {  // numbered as in proc(5)
    return number - 3 < f.size() ? std::strtod(f[number - 3].c_str(), nullptr)
                                 : 0.0;
  };
  Families families;
  Family cpu = Counter("process_cpu_seconds_total",
                       "User and system CPU time spent in seconds.");
  cpu.samples.push_back({{}, (field(14) + field(15)) / ticks});
  families.push_back(std::move(cpu));
  Family rss = Gauge("process_resident_memory_bytes",
                     "Resident memory size in bytes.", "bytes");
  rss.samples.push_back({{}, field(24) * page});
  families.push_back(std::move(rss));
  Family start = Gauge("process_start_time_seconds",
                       "Start time of the process since unix epoch in seconds.",
                       "seconds");
  start.samples.push_back({{}, BootTime() + field(22) / ticks});
  families.push_back(std::move(start));
  Family fds = Gauge("process_open_fds", "Number of open file descriptors.");
  fds.samples.push_back({{}, OpenDescriptors()});
  families.push_back(std::move(fds));
  return families;
}

Families MetaFamilies(const std::vector<CollectorPtr>& collectors,
                      bool last_reload_successful) {
  Family up = Gauge("fetchlet_collector_up",
                    "1 when the collector's last evaluation succeeded.");
  Family duration = Gauge("fetchlet_collector_duration_seconds",
                          "Duration of the collector's last evaluation.",
                          "seconds");
  Family success = Gauge(
      "fetchlet_collector_last_success_timestamp_seconds",
      "When the collector last succeeded, in seconds since the epoch.",
      "seconds");
  Family failures = Counter("fetchlet_collector_failures_total",
                            "Failed evaluations and dropped rows, by kind.");
  Family skipped = Counter("fetchlet_collector_skipped_total",
                           "Runs skipped because the last was still running.");
  Family duplicates =
      Counter("fetchlet_collector_duplicate_series_total",
              "Series dropped because an earlier one had the same labels.");
  for (const CollectorPtr& collector : collectors) {
    const std::string& name = collector->config().name;
    const auto snapshot = collector->snapshot();
    const Labels labels = {{"collector", name}};
    // Not run yet is neither up nor down: after a restart with jitter an
    // alert on up == 0 would fire for every collector still waiting.
    if (snapshot->generation > 0) {
      up.samples.push_back({labels, snapshot->up ? 1.0 : 0.0});
    }
    duration.samples.push_back({labels, snapshot->duration_seconds});
    success.samples.push_back({labels, snapshot->last_success_unix});
    for (const Failure failure : AllFailures()) {
      failures.samples.push_back(
          {{{"collector", name}, {"kind", FailureName(failure)}},
           static_cast<double>(collector->failures(failure))});
    }
    skipped.samples.push_back(
        {labels, static_cast<double>(collector->skipped())});
    duplicates.samples.push_back(
        {labels, static_cast<double>(collector->duplicates())});
  }
  Family build = {"fetchlet_build", MetricType::kInfo, "",
                  "The fetchlet program's version.", {}};
  build.samples.push_back({{{"version", FETCHLET_VERSION}}, 1});
  Family reload = Gauge("fetchlet_config_last_reload_successful",
                        "1 when the last configuration load succeeded.");
  reload.samples.push_back({{}, last_reload_successful ? 1.0 : 0.0});
  Families families;
  for (Family* family :
       {&up, &duration, &success, &failures, &skipped, &duplicates}) {
    families.push_back(std::move(*family));
  }
  for (Family& family : CostFamilies(collectors)) {
    families.push_back(std::move(family));
  }
  families.push_back(std::move(build));
  families.push_back(std::move(reload));
  for (Family& family : ProcessFamilies()) families.push_back(std::move(family));
  return families;
}

}  // namespace fetchlet::serve
