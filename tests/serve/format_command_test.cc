// fetchlet test --json with format collectors: what the formats give once
// wired into the configuration and the evaluation through the fetchlets.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <nlohmann/json.hpp>

#include "format_test_support.h"
#include "serve_test_support.h"

namespace qvetest {
namespace {

using Json = nlohmann::json;
using Lines = std::vector<std::string>;

std::string Script(const std::string& name, const std::string& body) {
  const std::string path = WriteServeFile(name, "#!/bin/sh\n" + body);
  chmod(path.c_str(), 0700);
  return path;
}

// The helper's status reaches the state (each state and status:
// NagiosFormat), performance data and thresholds in base units.
TEST(FormatCommandTest, NagiosThroughTheHelper) {
  const std::string check =
      Script("check", "echo 'TEXT | t=2ms;1;@3:4'\necho noise >&2\nexit 1\n");
  const Json outcome =
      TestJson(FormatCollector("nagios", std::string(QVE_EXIT_STATUS_BIN) + " " + check));
  const auto values = SampleValues(outcome);
  EXPECT_EQ(outcome["failure"], "") << outcome;
  EXPECT_EQ(values.at("nagios_c_state,nagios_c_state=warning"), 1);
  EXPECT_EQ(values.at("nagios_c_exit_status"), 1);
  EXPECT_EQ(values.at("nagios_c_t_seconds"), 0.002);
  EXPECT_EQ(values.at("nagios_c_t_threshold_seconds,bound=lower,range=inside,"
                      "threshold=critical"), 0.003);
  EXPECT_EQ(outcome["notes"], Json::parse(R"(["message: TEXT"])"));
}

// A family that another collector configured, or printed first, is dropped
// and counted; the rest of the output stays.
TEST(FormatCommandTest, FamiliesClashAcrossCollectors) {
  const std::string first = Script("first", "printf 'x 1\\ny_total 2\\n'\n");
  const std::string second =
      Script("second", "printf 'x 3\\ny_total 4\\nv 5\\nz 6\\n'\n");
  const std::string config =
      "collectors:\n"
      "  - {name: first, kind: os, interval: 1m, format: prometheus,\n"
      "     properties: {command: " + first + "}}\n"
      "  - {name: second, kind: os, interval: 1m, format: prometheus,\n"
      "     properties: {command: " + second + "}}\n"
      "  - {name: table, kind: osline, interval: 1m, properties: {command: echo 1},\n"
      "     metrics: [{name: v, help: h, value: {column: 0}}]}\n";
  const std::vector<Json> outcomes = TestJsonLines(config);
  ASSERT_EQ(outcomes.size(), 3u);
  EXPECT_EQ(SampleValues(outcomes[0]),
            (std::map<std::string, double>{{"x", 1}, {"y_total", 2}}));
  EXPECT_EQ(SampleValues(outcomes[1]), (std::map<std::string, double>{{"z", 6}}));
  EXPECT_EQ(outcomes[1]["notes"], Json::parse(R"([
    "family x dropped: x is collector first's",
    "family y_total dropped: y_total is collector first's",
    "family v dropped: v is collector table's"])"));
  EXPECT_EQ(SampleValues(outcomes[2]), (std::map<std::string, double>{{"v", 1}}));
}

// A flood past the output limit fails the run whatever format reads it
// (what each format drops or refuses of hostile output: its own tests). The
// runner grows its text by each chunk, which only glibc's realloc makes
// cheap: a sanitized build would take minutes to read the 100 MiB, so they
// meet a 1 MiB limit.
TEST(FormatCommandTest, AFloodPastTheOutputLimitFailsTheRun) {
  const std::string flood = Script(
      "big", "printf '['; yes '1,' | head -c 104857600 | tr -d '\\n'; printf '1]'\n");
  const Json outcome = TestJson(
      "output_limit: 1MiB\n" +
      FormatCollector("json", flood, "    metrics: [{name: v, help: h, value: {pointer: /v}}]\n"));
  EXPECT_EQ(outcome["failure"], "run") << outcome;
  EXPECT_EQ(outcome["samples"].size(), 0u);
  EXPECT_EQ(outcome["notes"],
            Json::parse(R"(["failed (kind 12): Unable to read output from command execution"])"));
}

TEST(FormatCommandTest, ConfigurationProblems) {
  struct Case {
    std::string body;
    std::string problem;
  };
  const std::string json_family =
      "    metrics:\n      - {name: v, help: h, value: {pointer: /v}}\n";
  const std::vector<Case> cases = {
      {FormatCollector("yaml", "/bin/true"), "unknown format 'yaml' (prometheus, nagios, json)"},
      {FormatCollector("prometheus", "/bin/true", "    regex: x\n"),
       "'regex' is not used with a format"},
      {FormatCollector("nagios", "/bin/true", "    labels: {a: b}\n"),
       "'labels' is not used with format nagios"},
      {FormatCollector("prometheus", "/bin/true", "    prefix: 1x\n"), "invalid prefix '1x'"},
      {FormatCollector("prometheus", "/bin/true", "    labels: {__a: b}\n"),
       "invalid label name '__a'"},
      {FormatCollector("prometheus", "/bin/true", "    rows: /a\n"),
       "'rows' is not used with format prometheus"},
      {FormatCollector("json", "/bin/true"), "a json format needs 'metrics'"},
      {FormatCollector("json", "/bin/true", "    prefix: a\n" + json_family),
       "'prefix' is not used with format json"},
      {FormatCollector("json", "/bin/true", "    rows: blockdevices\n" + json_family),
       "collector 'c', key 'rows': 'blockdevices' is not a JSON Pointer"},
      {FormatCollector("json", "/bin/true", "    children: /a~\n" + json_family),
       "collector 'c', key 'children': '/a~' is not a JSON Pointer"},
      {FormatCollector("json", "/bin/true",
                 "    metrics:\n      - {name: v, help: h, value: {pointer: v}}\n"),
       "collector 'c', key 'pointer': 'v' is not a JSON Pointer"},
      {FormatCollector("json", "/bin/true",
                 "    metrics:\n      - {name: v, help: h, value: {column: 1}}\n"),
       "unknown key 'column' in value"},
      {FormatCollector("json", "/bin/true",
                 "    metrics:\n      - {name: v, help: h, value: {pointer: /v},"
                 " labels: {dev: name}}\n"),
       "collector 'c', key 'dev': 'name' is not a JSON Pointer"},
      {"collectors:\n  - format: json\n    metrics:\n      - {name: v, help: h}\n"
       "    name: c\n    kind: os\n    interval: 1m\n    properties: {command: x}\n",
       "missing value pointer"},
  };
  for (const Case& c : cases) {
    const Lines problems = ConfigProblems(c.body);
    EXPECT_TRUE(std::any_of(problems.begin(), problems.end(), [&](const auto& p) {
      return p.ends_with(": " + c.problem);
    })) << c.body << Json(problems);
  }
}

}  // namespace
}  // namespace qvetest
