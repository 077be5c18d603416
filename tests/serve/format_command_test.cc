// fetchlet test --json with format collectors: what the formats give once
// wired into the configuration and the evaluation through the fetchlets.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <nlohmann/json.hpp>

#include "../common/processes.h"
#include "serve_test_support.h"

namespace qvetest {
namespace {

using Json = nlohmann::json;

std::string Script(const std::string& name, const std::string& body) {
  const std::string path = WriteServeFile(name, "#!/bin/sh\n" + body);
  chmod(path.c_str(), 0700);
  return path;
}

// The one object of fetchlet test --json for the collector in config.
Json TestJson(const std::string& config) {
  const std::string out = ServeTempPath("format-out");
  const pid_t pid = SpawnWithOutput(
      {QVE_FETCHLET_BIN, "test", "--config", WriteServeFile("format.yaml", config),
       "--json"},
      out, ServeTempPath("format-err"));
  int status = 0;
  if (pid > 0) waitpid(pid, &status, 0);
  const Json parsed = Json::parse(ReadServeFile(out), nullptr, false);
  return parsed.is_discarded() ? Json() : parsed;
}

std::string Collector(const std::string& format, const std::string& command,
                      const std::string& extra = "") {
  return "collectors:\n  - name: c\n    kind: os\n    interval: 1m\n    format: " +
         format + "\n" + extra + "    properties: {command: \"" + command + "\"}\n";
}

// name -> value of each sample, names with their labels.
std::map<std::string, double> Values(const Json& outcome) {
  std::map<std::string, double> values;
  for (const Json& sample : outcome["samples"]) {
    std::string key = sample["name"];
    for (const auto& [label, value] : sample["labels"].items()) {
      key += "," + label + "=" + value.get<std::string>();
    }
    values[key] = sample["value"];
  }
  return values;
}

TEST(FormatCommandTest, NagiosStatesThroughTheHelper) {
  struct State {
    int status;
    const char* state;
  };
  for (const State& s : {State{0, "ok"}, State{1, "warning"}, State{2, "critical"},
                         State{3, "unknown"}, State{9, "unknown"}}) {
    const std::string check = Script(
        "check", "echo 'TEXT | t=2ms;1;@3:4'\necho noise >&2\nexit " +
                     std::to_string(s.status) + "\n");
    const Json outcome =
        TestJson(Collector("nagios", std::string(QVE_EXIT_STATUS_BIN) + " " + check));
    const auto values = Values(outcome);
    EXPECT_EQ(outcome["failure"], "") << outcome;
    EXPECT_EQ(values.at(std::string("nagios_c_state,nagios_c_state=") + s.state), 1);
    EXPECT_EQ(values.at("nagios_c_exit_status"), s.status);
    EXPECT_EQ(values.at("nagios_c_t_seconds"), 0.002);
    EXPECT_EQ(values.at("nagios_c_t_threshold_seconds,bound=lower,range=inside,"
                        "threshold=critical"), 0.003);
    EXPECT_EQ(outcome["notes"], Json::parse(R"(["message: TEXT"])"));
  }
}

TEST(FormatCommandTest, PrometheusTextWithPrefixAndLabels) {
  const std::string script = Script(
      "metrics", "printf '# TYPE up_total counter\\nup_total 3 17\\nbad\\nup_total 4\\n'\n");
  const Json outcome =
      TestJson(Collector("prometheus", script, "    prefix: app_\n    labels: {site: a}\n"));
  EXPECT_EQ(Values(outcome), (std::map<std::string, double>{{"app_up_total,site=a", 3}}));
  EXPECT_EQ(outcome["dropped_rows"], 1);
  EXPECT_EQ(outcome["notes"], Json::parse(R"(["line 3 dropped: no value",
    "line 4 dropped: series up_total seen before",
    "1 timestamps dropped: a sample's time is the scrape's"])"));
}

TEST(FormatCommandTest, ConfigurationProblems) {
  struct Case {
    std::string body;
    std::string problem;
  };
  const std::vector<Case> cases = {
      {Collector("json", "/bin/true"), "unknown format 'json' (prometheus, nagios)"},
      {Collector("prometheus", "/bin/true", "    regex: x\n"),
       "'regex' is not used with a format"},
      {Collector("nagios", "/bin/true", "    labels: {a: b}\n"),
       "a nagios format takes no labels"},
      {Collector("prometheus", "/bin/true", "    prefix: 1x\n"), "invalid prefix '1x'"},
      {Collector("prometheus", "/bin/true", "    labels: {__a: b}\n"),
       "invalid label name '__a'"},
  };
  for (const Case& c : cases) {
    const std::string path = WriteServeFile("bad.yaml", c.body);
    std::vector<fetchlet::serve::ConfigProblem> problems, warnings;
    EXPECT_FALSE(fetchlet::serve::LoadConfig(path, &problems, &warnings));
    ASSERT_FALSE(problems.empty()) << c.body;
    EXPECT_EQ(problems[0].message, c.problem) << c.body;
  }
}

}  // namespace
}  // namespace qvetest
