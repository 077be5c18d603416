// fetchlet test, run as a user runs it, through the build tree's plug-in.
#include <nlohmann/json.hpp>

#include "tests/serve/serve_runtime_support.h"

namespace qvetest {
namespace {

using Json = nlohmann::json;
using Lines = std::vector<std::string>;

struct Outcome {
  int status = -1;
  std::string out;
  Lines err;
};

Outcome RunFetchlet(std::vector<std::string> args) {
  args.insert(args.begin(), QVE_FETCHLET_BIN);
  const Ran ran = RunProgram(std::move(args));
  Outcome outcome{ran.status, ran.out, {}};
  std::istringstream lines(ran.err);
  for (std::string line; std::getline(lines, line);) outcome.err.push_back(line);
  return outcome;
}

constexpr const char* kConfig = R"(collectors:
  - name: filesystem
    kind: oslinetoken
    properties:
      command: "printf 'Filesystem  1024-blocks Used\n/dev/a    100   25%%\n/dev/b  x  1%%\n'"
      delimiter: " "
    interval: 1m
    table: {skip_rows: 1, drop_empty_fields: true}
    metrics:
      - {name: fs_size_bytes, help: Size., unit: bytes,
         value: {column: 1, scale: 1024}, labels: {device: 0}}
  - name: missing
    kind: osline
    interval: 1m
    properties: {command: /nonexistent/probe}
    metrics: [{name: probe, help: h, value: {column: 0}}]
  - name: hung
    kind: osline
    interval: 1m
    timeout: 300ms
    properties: {command: "sh -c 'exec >&- 2>&-; sleep 61.5'"}
    metrics: [{name: hung_value, help: h, value: {column: 0}}]
  - name: signed
    kind: oslinetoken
    interval: 1m
    properties: {command: "printf 'a +45.0C\nb +Inf\nc NaN\nd -Inf\n'",
                 delimiter: " "}
    metrics: [{name: temp_celsius, help: h, unit: celsius,
               value: {column: 1, trim_suffix: C}, labels: {sensor: 0}}]
)";

TEST(ServeTestCommandTest, JsonShowsSamplesFailuresAndNotes) {
  const std::string config = WriteServeFile("e2e.yaml", kConfig);
  const Outcome outcome = RunFetchlet({"test", "--config", config, "--json"});
  EXPECT_EQ(outcome.status, 1);
  std::istringstream lines(outcome.out);
  std::vector<Json> objects;
  for (std::string line; std::getline(lines, line);) {
    objects.push_back(Json::parse(line));
  }
  ASSERT_EQ(objects.size(), 4u) << outcome.out;
  const Json expected_samples[] = {
      Json::parse(R"([{"family":"fs_size_bytes","type":"gauge",
        "name":"fs_size_bytes","labels":{"device":"/dev/a"},"value":102400}])"),
      Json::array(), Json::array(),
      // A sign parses; JSON has no NaN or infinities, so they keep names.
      Json::parse(R"([{"family":"temp_celsius","type":"gauge",
        "name":"temp_celsius","labels":{"sensor":"a"},"value":45},
        {"family":"temp_celsius","type":"gauge","name":"temp_celsius",
        "labels":{"sensor":"b"},"value":"+Inf"},
        {"family":"temp_celsius","type":"gauge","name":"temp_celsius",
        "labels":{"sensor":"c"},"value":"NaN"},
        {"family":"temp_celsius","type":"gauge","name":"temp_celsius",
        "labels":{"sensor":"d"},"value":"-Inf"}])")};
  const std::string failures[] = {"", "run", "timeout", ""};
  for (size_t i = 0; i < objects.size(); ++i) {
    EXPECT_EQ(objects[i]["samples"], expected_samples[i]) << objects[i];
    EXPECT_EQ(objects[i]["failure"], failures[i]) << objects[i];
  }
  EXPECT_EQ(objects[0]["dropped_rows"], 1);
  EXPECT_EQ(objects[0]["rows"].size(), 3u);
  EXPECT_EQ(objects[1]["exception"],
            Json::parse(R"({"kind":12,
              "message":"/nonexistent/probe: not found"})"));
  EXPECT_EQ(ProcessesWith("sleep 61.5"), 0);
  EXPECT_EQ(outcome.err,
            (Lines{"filesystem: row 3 dropped: 'x' is not a number",
                   "missing: failed (kind 12): /nonexistent/probe: not found",
                   "hung: ended at its time limit"}));
}

TEST(ServeTestCommandTest, ExitStatuses) {
  const std::string good = WriteServeFile(
      "good.yaml",
      "collectors:\n  - {name: one, kind: osline, interval: 1s, "
      "properties: {command: echo 1}, metrics: [{name: one, help: h, "
      "value: {column: 0}}]}\n");
  const std::string warned = WriteServeFile(
      "warned.yaml",
      "collectors: [{name: one, kind: osline, interval: 1s, properties: "
      "{command: x, KT_METRIC_TIMEOUT: '3'}, metrics: [{name: one, help: h, "
      "value: {column: 0}}]}]\n");
  const std::string broken = WriteServeFile(
      "broken.yaml", "collectors:\n  - {name: one, kind: osline}\n");
  const std::string no_command = WriteServeFile(
      "no_command.yaml",
      "collectors:\n  - {name: one, kind: osline, on_scrape: {cache_for: "
      "0s}, metrics: [{name: one, help: h, value: {column: 0}}]}\n");
  const Lines broken_lines = {
      broken + ":2:5: a collector needs exactly one of 'interval' and 'on_scrape'",
      broken + ":2:5: a collector needs the property 'command'",
      broken + ":2:5: an osline collector needs 'metrics'"};
  const struct {
    std::vector<std::string> args;
    int status;
    Lines err;
    std::string out;  // checked when not empty
  } cases[] = {
      {{"test", "--config", good}, 0, {},
       "# HELP one h\n# TYPE one gauge\none 1\n"},
      {{"test", "--config", good, "--format", "openmetrics"}, 0, {},
       "# HELP one h\n# TYPE one gauge\none 1\n# EOF\n"},
      {{"test", "--config", good, "--collector", "two"},
       2,
       {"fetchlet: no collector named 'two' in " + good},
       ""},
      {{"test", "--config", broken}, 2, broken_lines, ""},
      {{"test", "--config", good, "--format", "json"}, 2, {}, ""},
      {{"serve", "--check-config", good}, 0, {}, ""},
      {{"serve", "--check-config", warned},
       0,
       {warned + ":1:79: warning: KT_METRIC_TIMEOUT makes the fetchlet "
                 "ignore aborts; use the collector's timeout"},
       ""},
      {{"serve", "--check-config", no_command},
       1,
       {no_command + ":2:5: a collector needs the property 'command'"},
       ""},
      {{"serve", "--check-config", broken}, 1, broken_lines, ""},
  };
  for (const auto& c : cases) {
    const Outcome outcome = RunFetchlet(c.args);
    EXPECT_EQ(outcome.status, c.status) << c.args.back();
    if (c.status != 2 || !c.err.empty()) {  // CLI11 words its own usage
      EXPECT_EQ(outcome.err, c.err) << c.args.back();
    }
    if (!c.out.empty()) {
      EXPECT_EQ(outcome.out, c.out) << c.args.back();
    }
  }
}

}  // namespace
}  // namespace qvetest
