// Results to samples: table rows, os output through a regex, udm values,
// and the failure kinds of evaluations that gave nothing to map.
#include "common/result_json.h"
#include "format_test_support.h"
#include "serve/collector.h"
#include "serve/mapping.h"
#include "serve/meta_metrics.h"
#include "serve_test_support.h"

namespace qvetest {
namespace {

using fetchlet::serve::CollectorConfig;
using fetchlet::agent::Outcome;
using fetchlet::serve::Mapped;
using fetchlet::serve::MapEvaluation;
using fetchlet::serve::NotesWithMessage;
using Json = nlohmann::json;
using Lines = std::vector<std::string>;

// One collector of the given kind and text, named c.
CollectorConfig Collector(const std::string& body) {
  const auto config =
      LoadServeConfig("collectors:\n  - name: c\n    interval: 1s\n" + body);
  return config.collectors.empty() ? CollectorConfig{} : config.collectors[0];
}

// Rows as the host holds them, for a table of cases.
Json Rows(const Json& rows) { return rows; }

// A successful outcome of rows.
Outcome Succeeded(const Json& rows) {
  Outcome outcome;
  outcome.result.reset(NewResult(rows));
  return outcome;
}

std::string FailureText(const Mapped& mapped) {
  return mapped.failure ? fetchlet::serve::FailureName(*mapped.failure) : "";
}

struct Case {
  std::string name;
  std::string collector;
  Json rows;
  Lines samples;
  int dropped_rows;
  std::string failure;
  Lines notes;
};

const char* kDf = R"(    kind: oslinetoken
    properties: {command: df -P, delimiter: " "}
    table: {skip_rows: 1, drop_empty_fields: true}
    metrics:
      - name: fs_size_bytes
        help: h
        unit: bytes
        value: {column: 1, scale: 1024}
        labels: {device: 0, mountpoint: 5}
      - name: fs_used_ratio
        help: h
        unit: ratio
        value: {column: 4, trim_suffix: "%", scale: 0.01}
        labels: {device: 0, mountpoint: 5}
)";

const char* kUnits = R"(    kind: osline
    properties: {command: x, tableSeparator: "--"}
    table: {nested_table: 1}
    metrics:
      - {name: unit_active, help: h, value: {column: 0, map: {active: 1, failed: 0}},
         labels: {unit: 0}}
)";

const char* kLinks = R"(    kind: oslinetoken
    properties: {command: x, delimiter: " "}
    metrics:
      - {name: link, help: h, type: stateset, states: [up, down], value: {column: 1}, labels: {dev: 0}}
      - {name: driver, help: h, type: info, labels: {dev: 0, driver: 2}}
)";

const char* kLoad = R"(    kind: os
    properties: {command: uptime}
    regex: 'load average: ([0-9.]+), ([0-9.]+)(, ([a-z]+))?'
    metrics:
      - {name: load1, help: h, value: {column: 1}}
      - {name: load5, help: h, value: {column: 2}, labels: {word: 4}}
)";

std::string Udm(const std::string& valuetype, const std::string& value) {
  return "    kind: udm\n    properties: {command: x, ID: u, valuetype: " +
         valuetype + "}\n    value: " + value + "\n";
}

std::vector<Case> Cases() {
  const Json df_header = {"Filesystem", "", "1024-blocks", "Used",
                          "Available",  "", "Capacity",    "Mounted", "on"};
  const Json vda = {"/dev/vda", "", "", "1000", "", "250", "", "750", "25%", "/"};
  const Json tmp = {"tmpfs", "2048", "0", "2048", "0%", "/run/user/0"};
  const Json bad = {"/dev/x", "12abc", "0", "1", "7%", "/x"};
  const Json short_row = {"/dev/y", "1", "2", "3", "4%"};
  const std::string number =
      "{name: used_ratio, help: h, unit: ratio, scale: 0.01}";
  return {
      {"df rows, padded with runs of spaces", kDf,
       Rows({df_header, vda, tmp}),
       {"fs_size_bytes{device=\"/dev/vda\",mountpoint=\"/\"} 1024000",
        "fs_size_bytes{device=\"tmpfs\",mountpoint=\"/run/user/0\"} 2097152",
        "fs_used_ratio{device=\"/dev/vda\",mountpoint=\"/\"} 0.25",
        "fs_used_ratio{device=\"tmpfs\",mountpoint=\"/run/user/0\"} 0"},
       0, "", {}},
      {"rows that do not parse are dropped whole", kDf,
       Rows({df_header, bad, tmp, short_row}),
       {"fs_size_bytes{device=\"tmpfs\",mountpoint=\"/run/user/0\"} 2097152",
        "fs_used_ratio{device=\"tmpfs\",mountpoint=\"/run/user/0\"} 0"},
       2, "",
       {"row 2 dropped: '12abc' is not a number",
        "row 4 dropped: no column 5 for label mountpoint"}},
      {"the configured nested table through a map", kUnits,
       Rows({{Json{{"rows", {{"ignored"}}}},
                Json{{"rows", {{"active"}, {"failed"}, {"gone"}}}}}}),
       {"unit_active{unit=\"active\"} 1", "unit_active{unit=\"failed\"} 0"}, 1, "",
       {"row 3 dropped: 'gone' is not in the map"}},
      {"fewer nested tables than the one configured", kUnits,
       Rows({{Json{{"rows", {{"active"}}}}}}), {}, 0, "", {}},
      {"stateset and info from a table", kLinks,
       Rows({{"eth0", "up", "virtio"}, {"eth1", "sideways", "e1000"}}),
       {"link{dev=\"eth0\",link=\"up\"} 1", "link{dev=\"eth0\",link=\"down\"} 0",
        "driver_info{dev=\"eth0\",driver=\"virtio\"} 1"},
       1, "", {"row 2 dropped: 'sideways' is not a state of link"}},
      {"os output through the regex's groups", kLoad,
       Rows({{" 10:00 up, load average: 0.50, 1.25, idle\n"}}),
       {"load1 0.5", "load5{word=\"idle\"} 1.25"}, 0, "", {}},
      {"an unmatched group leaves its column empty", kLoad,
       Rows({{"load average: 0.50, 1.25\n"}}), {}, 0, "parse",
       {"output dropped: no column 4 for label word"}},
      {"os output the regex does not match", kLoad, Rows({{"no load\n"}}),
       {}, 0, "parse", {"output does not match the regex"}},
      {"udm NUMBER: a gauge, the message a note", Udm("NUMBER", number),
       Rows({{"u", "87", nullptr, "disk usage high"}}),
       {"used_ratio 0.87"}, 0, "", {"message: disk usage high"}},
      {"udm STRING as a stateset",
       Udm("STRING", "{name: svc, help: h, type: stateset, states: [active, "
                     "failed]}"),
       Rows({{"u", nullptr, "failed", "m"}}),
       {"svc{svc=\"active\"} 0", "svc{svc=\"failed\"} 1"}, 0, "",
       {"message: m"}},
      {"udm STRING as an info", Udm("STRING", "{name: ver, help: h, type: info}"),
       Rows({{"u", nullptr, "v1.2 \"x\"", "m"}}), {"ver_info{ver=\"v1.2 \\\"x\\\"\"} 1"},
       0, "", {"message: m"}},
      {"udm STRING through a map",
       Udm("STRING", "{name: ok, help: h, map: {yes: 1, no: 0}}"),
       Rows({{"u", nullptr, "no", "m"}}), {"ok 0"}, 0, "", {"message: m"}},
      {"udm row without value", Udm("NUMBER", number),
       Rows({{"u", nullptr, nullptr, "User Defined Metric u did not "
                                       "generate any output"}}),
       {}, 0, "no_value",
       {"message: User Defined Metric u did not generate any output",
        "no value"}},
      {"udm value outside the states",
       Udm("STRING", "{name: svc, help: h, type: stateset, states: [a]}"),
       Rows({{"u", nullptr, "b", "m"}}), {}, 0, "parse",
       {"message: m", "value dropped: 'b' is not a state of svc"}},
      {"udm NUMBER that is no number", Udm("NUMBER", number),
       Rows({{"u", "n/a", nullptr, "m"}}), {}, 0, "parse",
       {"message: m", "value dropped: 'n/a' is not a number"}},
  };
}

TEST(ServeMappingTest, ResultsBecomeSamples) {
  for (const Case& c : Cases()) {
    const Mapped mapped =
        MapEvaluation(Collector(c.collector), Succeeded(c.rows));
    EXPECT_EQ(RenderedSamples(mapped.families), c.samples) << c.name;
    EXPECT_EQ(mapped.dropped_rows, c.dropped_rows) << c.name;
    EXPECT_EQ(FailureText(mapped), c.failure) << c.name;
    EXPECT_EQ(NotesWithMessage(mapped), c.notes) << c.name;
  }
}

TEST(ServeMappingTest, FailedEvaluationsHaveAKindAndNoSample) {
  const struct {
    int32_t status;
    int32_t kind;
    bool with_result;
    bool timed_out;
    std::string failure;
    std::string note;
  } cases[] = {
      {-1, 7, false, false, "timeout", "failed (kind 7): m"},
      {-1, 12, false, false, "run", "failed (kind 12): m"},
      {-1, 11, false, false, "invalid_request", "failed (kind 11): m"},
      {-1, 15, false, false, "process_limit", "failed (kind 15): m"},
      {-1, 10, false, false, "no_result", "failed (kind 10): m"},
      {-1, 3, false, false, "no_result", "failed (kind 3): m"},
      {-17, 0, false, false, "no_result",
       "failed with status -17 and no result"},
      {0, 0, false, false, "no_result", "failed with status 0 and no result"},
      // A run ended at its deadline reports whatever the runner saw then.
      {-1, 12, false, true, "timeout", "ended at its time limit"},
      {0, 0, true, true, "timeout", "ended at its time limit"},
      {-1, 12, true, false, "run", "failed (kind 12): m"},
  };
  const CollectorConfig collector = Collector(kLoad);
  for (const auto& c : cases) {
    Outcome outcome =
        c.with_result ? Succeeded({{"load average: 1, 2"}}) : Outcome{};
    outcome.status = c.status;
    if (c.kind != 0) outcome.exception.reset(qveue_Exception_new_init(c.kind, "m"));
    outcome.timed_out = c.timed_out;
    const Mapped mapped = MapEvaluation(collector, outcome);
    EXPECT_EQ(FailureText(mapped), c.failure) << c.note;
    EXPECT_EQ(mapped.notes, Lines{c.note});
    EXPECT_TRUE(mapped.families.empty()) << c.note;
  }
}

// A failed run that met its memory or process limit counts as "resource",
// whatever kind the fetchlet gave; what the commands cost adds up in the
// collector's meta-metrics.
TEST(ServeMappingTest, LimitsReachedCountAsResourceFailures) {
  using fetchlet::serve::AllFailures;
  using fetchlet::serve::FailureName;
  const struct {
    uint64_t oom_kills;
    uint64_t forks_refused;
    bool failed;
    const char* kind;  // counted once; nullptr: none
  } cases[] = {{1, 0, true, "resource"},
               {0, 2, true, "resource"},
               {0, 0, true, "run"},
               {1, 0, false, nullptr}};
  for (const auto& c : cases) {
    auto collector = std::make_shared<fetchlet::serve::Collector>(
        Collector(kLoad), fetchlet::agent::EntryPoints{});
    for (int i = 0; i < 2; ++i) {
      Outcome outcome =
          c.failed ? Outcome{}
                   : Succeeded({{" 10:00 up, load average: 0.50, 1.25, idle\n"}});
      if (c.failed) {
        outcome.status = -1;
        outcome.exception.reset(qveue_Exception_new_init(12, "m"));
      }
      outcome.resources.oom_kills = c.oom_kills;
      outcome.resources.forks_refused = c.forks_refused;
      outcome.resources.user_seconds = 0.25;
      outcome.resources.io_write_bytes = 512;
      collector->Publish(outcome);
    }
    for (const auto failure : AllFailures()) {
      const bool counted =
          c.kind != nullptr && FailureName(failure) == std::string(c.kind);
      EXPECT_EQ(collector->failures(failure), counted ? 2u : 0u)
          << FailureName(failure);
    }
    Lines costs;
    for (const auto& family :
         fetchlet::serve::MetaFamilies({collector}, true)) {
      if (family.name != "fetchlet_collector_cpu_seconds_total" &&
          family.name != "fetchlet_collector_io_bytes_total") {
        continue;
      }
      for (const auto& sample : family.samples) {
        costs.push_back(family.name + " " + sample.labels[1].second + " " +
                        std::to_string(sample.value));
      }
    }
    EXPECT_EQ(costs,
              (Lines{"fetchlet_collector_cpu_seconds_total user 0.500000",
                     "fetchlet_collector_cpu_seconds_total system 0.000000",
                     "fetchlet_collector_io_bytes_total read 0.000000",
                     "fetchlet_collector_io_bytes_total write 1024.000000"}));
  }
}

}  // namespace
}  // namespace qvetest
