// The serving configuration: collectors, their schedules and how their
// results become samples. Loaded from YAML (or JSON of the same shape),
// strictly: every problem names file:line:column.
#ifndef FETCHLET_SERVE_CONFIG_H_
#define FETCHLET_SERVE_CONFIG_H_

#include <chrono>
#include <cstdint>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "agent/plugin.h"
#include "serve/model.h"

namespace re2 {
class RE2;
}
namespace qvehost {
struct RunLimits;
}

namespace fetchlet::serve {

using Duration = std::chrono::milliseconds;

// Where a problem or an item sits in its file; line and column from 1.
struct Position {
  std::string file;
  int line = 0;
  int column = 0;
};

// "file:line:column: message", one line.
struct ConfigProblem {
  Position where;
  std::string message;
  std::string ToString() const;
  // "file:line:column: warning: message", for a problem that does not
  // fail the load.
  std::string ToWarning() const;
};

// How one cell becomes a number: the cell of column, with trim_suffix cut
// off its end, looked up in map when map is not empty, else parsed as a
// number; then multiplied by scale.
struct ValueSpec {
  int column = -1;
  double scale = 1;
  std::string trim_suffix;
  std::vector<std::pair<std::string, double>> map;
};

struct MetricDefinition {
  std::string name;
  std::string help;
  std::string unit;
  MetricType type = MetricType::kGauge;
  ValueSpec value;
  std::vector<std::pair<std::string, int>> labels;  // label name, column
  std::vector<std::string> states;                  // a stateset's states
  Position where;
};

struct TableSpec {
  int skip_rows = 0;
  bool drop_empty_fields = false;
  std::optional<int> nested_table;  // which nested table to read
};

// format: json. Pointers (RFC 6901) to the rows, to each row's own rows,
// and, relative to a row, to the cells that the metrics' columns index.
struct JsonSpec {
  std::string rows;
  std::string children;  // "": rows have none
  std::vector<std::string> cells;
  bool operator==(const JsonSpec& other) const = default;
};

using CollectorKind = agent::Kind;

// What each run of a collector may take; unset: no limit. A collector's
// unset ones come from the file's top-level limits.
struct LimitsConfig {
  std::optional<uint64_t> memory;
  std::optional<uint64_t> pids;
  std::optional<double> cpu;  // a share of one core
  Position where;
  bool operator==(const LimitsConfig& other) const {
    return memory == other.memory && pids == other.pids && cpu == other.cpu;
  }
};
qvehost::RunLimits ToRunLimits(const LimitsConfig& limits);

struct CollectorConfig {
  std::string name;
  CollectorKind kind = CollectorKind::kOs;
  // Passed to the fetchlet as they stand, in order. The password is not
  // among them: it is added at evaluation time, never logged or rendered.
  std::vector<std::pair<std::string, std::string>> properties;
  std::string password;  // read from password_file or password_credential
  std::optional<Duration> interval;   // scheduled collectors
  std::optional<Duration> cache_for;  // on_scrape collectors
  Duration timeout{10000};
  TableSpec table;
  LimitsConfig limits;
  std::string regex;  // os: RE2, group N is column N
  std::shared_ptr<const re2::RE2> compiled_regex;  // regex, compiled at load
  std::vector<MetricDefinition> metrics;    // os, osline, oslinetoken
  std::optional<MetricDefinition> udm_value;  // udm
  // An os collector's whole output read as "prometheus" or "nagios" text
  // instead of through regex and metrics, or as "json" through json and
  // metrics; prefix and constant labels are the text formats'.
  std::string format;
  std::string prefix;
  Labels labels;
  JsonSpec json;
  Position where;
};

// The families a collector configures: its metrics and its udm value.
std::vector<const MetricDefinition*> ConfiguredFamilies(const CollectorConfig& collector);

// Same kind, properties, password, schedule and mapping, wherever each
// stands in its file: a reload keeps such a collector's state.
bool SameDefinition(const CollectorConfig& a, const CollectorConfig& b);

// A value that a probe request gives a module (target, or one of its
// params): it must match pattern in full before it reaches a property.
struct ModuleParam {
  std::string name;
  std::string pattern;
  std::shared_ptr<const re2::RE2> compiled;  // pattern, compiled at load
  std::optional<std::string> default_value;  // none: the request must give it
};

// A collector without a schedule, run by GET /probe for one target at a
// time. Its properties may hold ${target} and ${NAME} of its params.
struct ModuleConfig {
  CollectorConfig collector;  // interval and cache_for unset
  std::vector<ModuleParam> params;  // target first
  std::optional<Duration> cache_for;  // per module, target and params
};

struct Config {
  std::string listen = "127.0.0.1:9874";
  Duration evaluation_timeout{10000};
  int max_concurrent = 0;  // 0: the number of cores
  double jitter = 0.1;
  uint64_t output_limit = 64ull << 20;
  LimitsConfig limits;  // the collectors' defaults
  std::vector<CollectorConfig> collectors;
  std::vector<ModuleConfig> modules;
  int max_concurrent_probes = 16;
  // Left to the scraper from its X-Prometheus-Scrape-Timeout-Seconds.
  Duration probe_timeout_offset{500};
};

// The configuration in path, or nullopt with every problem found (at least
// one) in *problems. Warnings (a KT_METRIC_TIMEOUT among properties, ...) go
// to *warnings and do not fail the load.
std::optional<Config> LoadConfig(const std::string& path,
                                 std::vector<ConfigProblem>* problems,
                                 std::vector<ConfigProblem>* warnings);

// The same, with each warning ("file:line:column: warning: message") and
// then each problem ("file:line:column: message") written to err, a line
// each.
std::optional<Config> LoadConfig(const std::string& path, std::ostream& err);

// --check-config: prints each problem ("file:line:column: message") and
// each warning ("file:line:column: warning: message") to standard error;
// 0 when the file loads, 1 when it does not.
int CheckConfig(const std::string& path);

}  // namespace fetchlet::serve

#endif  // FETCHLET_SERVE_CONFIG_H_
