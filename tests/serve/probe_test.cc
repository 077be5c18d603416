// Modules and /probe: what the loader refuses, what a request may give, and
// that a refused request runs nothing while an admitted one ends at its
// deadline with no process left.
#include <httplib.h>
#include <gtest/gtest.h>
#include <spdlog/sinks/ostream_sink.h>
#include <spdlog/spdlog.h>

#include <filesystem>
#include <future>
#include <sstream>

#include <nlohmann/json.hpp>

#include "serve/module_params.h"
#include "serve/probe.h"
#include "serve/server.h"
#include "tests/serve/serve_runtime_support.h"
#include "tests/serve/serve_wire_support.h"

namespace fetchlet::serve {
namespace {

using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

// A module that loads; cases append keys to it.
constexpr const char* kModule = R"(modules:
  - name: m
    kind: os
    properties: {command: '/bin/echo ${target}'}
    regex: '(.*)'
    metrics:
      - {name: v, help: h, type: info, labels: {text: 1}}
)";

TEST(ProbeConfigTest, BrokenModulesNameEachProblemWithItsPlace) {
  const struct {
    std::string text;
    Lines expected;
  } cases[] = {
      {std::string(kModule) + "    interval: 1s\n",
       {"F:8:5: unknown key 'interval' in module"}},
      {std::string(kModule) + "    params: {Port: {pattern: '1'}}\n",
       {"F:8:14: invalid param name 'Port'"}},
      {std::string(kModule) + "    params: {port: {default: '1'}}\n",
       {"F:8:20: param 'port' needs a 'pattern'"}},
      {std::string(kModule) + "    params: {port: {pattern: '(1', x: 2}}\n",
       {"F:8:30: pattern of param 'port' does not compile: missing ): (1",
        "F:8:36: unknown key 'x' in param 'port'"}},
      {std::string(kModule) + "    params: {port: {pattern: '[0-9]+', default: '-1'}}\n",
       {"F:8:49: default of param 'port' begins with '-'"}},
      {std::string(kModule) + "    params: {module: {pattern: 'a'}}\n",
       {"F:8:14: invalid param name 'module'"}},
      {"modules:\n  - name: m\n    kind: os\n    properties: {command: "
       "'/bin/echo ${port} ${target'}\n    format: prometheus\n",
       {"F:4:17: property 'command' has a '${' without '}'",
        "F:4:17: property 'command' uses '${port}', which is not among the "
        "module's params"}},
      {std::string(kModule) + "      - {name: probe_success, help: h, value: {column: 1}}\n",
       {"F:8:9: family 'probe_success' is one every probe answers with"}},
      {std::string(kModule) + "  - {name: m, kind: os, format: prometheus, "
                              "properties: {command: x}}\n",
       {"F:8:5: module 'm' is already defined at line 2"}},
      {"modules:\n  - {name: M, kind: os, format: prometheus, cache_for: 0}\n",
       {"F:2:5: a module needs the property 'command'",
        "F:2:12: module name 'M' is not [a-z0-9_]+",
        "F:2:56: 'cache_for' must be a duration above zero (500ms, 10s, 5m, "
        "1h)"}},
      {std::string("max_concurrent_probes: 0\n") + kModule,
       {"F:1:24: 'max_concurrent_probes' must be at least 1"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(qvetest::ConfigProblems(c.text), c.expected);
  }
}

TEST(ProbeParamsTest, QueriesDecodeAndValuesStandWhole) {
  ParamValues pairs;
  ASSERT_TRUE(DecodeQuery("/probe?module=m&target=a%2Db+c&&x", &pairs));
  EXPECT_EQ(pairs, (ParamValues{{"module", "m"}, {"target", "a-b c"}, {"x", ""}}));
  EXPECT_FALSE(DecodeQuery("/probe?target=%4", &pairs));
  EXPECT_FALSE(DecodeQuery("/probe?target=%zz", &pairs));
  EXPECT_EQ(Substitute("-H ${target} -p ${port} ${other} ${", {{"target", "${port}"}, {"port", "1"}}),
            "-H ${port} -p 1 ${other} ${");
}

class ProbeServerTest : public testing::Test {
 protected:
  void Start(const std::string& modules, const std::string& web = "") {
    const std::string web_path =
        web.empty() ? "" : qvetest::WriteServeFile("probe-web.yml", web);
    const std::string path = qvetest::WriteServeFile(
        "probe.yaml", "max_concurrent_probes: 2\nmodules:\n" + modules);
    server_ = std::make_unique<Server>(path, "127.0.0.1:0",
                                       qvetest::EntryPoints, web_path);
    std::string error;
    ASSERT_TRUE(server_->Start(&error)) << error;
  }
  httplib::Result Get(const std::string& target,
                      const httplib::Headers& headers = {}) {
    httplib::Client client("127.0.0.1", server_->port());
    client.set_read_timeout(60s);
    return client.Get(target, headers);
  }
  std::string Metrics() {
    const auto response = Get("/metrics");
    return response ? response->body : "FAILED";
  }
  void TearDown() override {
    if (server_) server_->Stop();
  }

  std::unique_ptr<Server> server_;
};

bool Has(const std::string& text, const std::string& line) {
  return text.find(line) != std::string::npos;
}

// Whatever a pattern admits ('.*' for port), a value never holds what would
// split it or make it an option; a refusal says why and runs nothing.
TEST_F(ProbeServerTest, RefusedRequestsRunNothing) {
  const std::string ran = qvetest::ServeTempPath("probe-ran");
  std::filesystem::remove(ran);
  Start("  - name: touch\n    kind: os\n    format: prometheus\n"
        "    properties: {command: '/usr/bin/touch " + ran +
        "', ENVPROBE_TARGET: '${target}', ENVPROBE_PORT: '${port}'}\n"
        "    params: {port: {pattern: '.*', default: '443'}}\n");
  const std::string quote = "parameter 'target' holds a blank or a quote";
  const std::string unmatched = "parameter 'target' does not match its pattern";
  const std::string dash = "parameter 'target' begins with '-'";
  const struct {
    std::string query;
    std::string why;
  } cases[] = {
      {"module=touch&target=a%20b", quote},
      {"module=touch&target=%27a%27", quote},
      {"module=touch&target=a%22b", quote},
      {"module=touch&target=%24(id)", unmatched},
      {"module=touch&target=-x", dash},
      {"module=touch&target=a%0Ab",
       "parameter 'target' holds a control character"},
      {"module=touch&target=", unmatched},
      {"module=touch&target=" + std::string(3000, 'a'),
       "parameter 'target' is too long"},
      {"module=touch&target=a&port=1%202",
       "parameter 'port' holds a blank or a quote"},
      {"module=touch&target=a&port=-1", "parameter 'port' begins with '-'"},
      {"module=touch&target=a&target=b", "parameter 'target' is given twice"},
      {"module=touch&target=a&user=root",
       "a parameter is not among the module's params"},
      {"module=touch", "parameter 'target' is missing"},
      {"module=other&target=a", "'module' names no configured module"},
      {"target=a", "'module' names no configured module"},
      {"module=touch&target=%G1", "the query is not well encoded"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.query.substr(0, 60));
    const auto response = Get("/probe?" + c.query);
    ASSERT_TRUE(response);
    EXPECT_EQ(response->status, 400);
    EXPECT_TRUE(response->body.ends_with(c.why + "\n")) << response->body;
    EXPECT_FALSE(std::filesystem::exists(ran));
  }
  const std::string metrics = Metrics();
  EXPECT_TRUE(Has(metrics, "fetchlet_probes_total{module=\"touch\"} 0\n"));
  EXPECT_TRUE(Has(metrics, "fetchlet_probe_refusals_total{module=\"touch\","
                           "reason=\"invalid_parameter\"} 13\n"));
  EXPECT_TRUE(Has(metrics, "fetchlet_probe_refusals_total{module=\"\","
                           "reason=\"unknown_module\"} 2\n"));
  EXPECT_TRUE(Has(metrics, "fetchlet_probe_refusals_total{module=\"\","
                           "reason=\"invalid_parameter\"} 1\n"));
  // The same module runs for a target its pattern admits.
  const auto admitted = Get("/probe?module=touch&target=host.example:8080");
  ASSERT_TRUE(admitted);
  EXPECT_EQ(admitted->status, 200);
  EXPECT_TRUE(Has(admitted->body, "probe_success 1\n"));
  EXPECT_TRUE(std::filesystem::exists(ran));
  std::filesystem::remove(ran);
}

// What a pattern admits reaches the command as it stands: no shell expands
// it, nothing splits it.
TEST_F(ProbeServerTest, AdmittedValuesReachTheCommandWhole) {
  Start("  - name: echo\n    kind: os\n"
        "    properties: {command: '/bin/echo <${word}>'}\n"
        "    params: {word: {pattern: '.*'}}\n"
        "    regex: '<(.*)>'\n    metrics:\n"
        "      - {name: word, help: h, type: info, labels: {text: 1}}\n");
  const struct {
    std::string value;
    std::string label;  // as the exposition escapes it
  } cases[] = {
      {"$HOME", "$HOME"},   {"*", "*"},         {"a;b|c&d", "a;b|c&d"},
      {"`id`", "`id`"},     {"$(id)", "$(id)"}, {"a\\b", "a\\\\b"},
      {"~root", "~root"},   {"%s%n", "%s%n"},   {"a=b", "a=b"},
      {"${target}", "${target}"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.value);
    const auto response = Get(httplib::append_query_params(
        "/probe", {{"module", "echo"}, {"target", "a"}, {"word", c.value}}));
    ASSERT_TRUE(response);
    EXPECT_EQ(response->status, 200);
    EXPECT_TRUE(Has(response->body, "word_info{text=\"" + c.label + "\"} 1\n"))
        << response->body;
  }
}

// The deadline is the shorter of the module's timeout and the scraper's
// less the offset; at it every process of the run ends.
TEST_F(ProbeServerTest, RunsEndAtTheirDeadlineWithNoProcessLeft) {
  const std::string marker = qvetest::UniqueSleep(40);
  const std::string sleep = "    properties: {command: '/bin/sleep " + marker + "'}\n";
  Start("  - name: slow\n    kind: os\n    format: prometheus\n    timeout: 1h\n" +
        sleep + "  - name: short\n    kind: os\n    format: prometheus\n"
        "    timeout: 300ms\n" + sleep +
        "  - name: quick\n    kind: os\n    format: prometheus\n    timeout: 1h\n"
        "    properties: {command: /bin/true}\n");
  const struct {
    std::string module;
    std::string header;  // "": none
    bool success;
  } cases[] = {
      {"slow", "1", false},
      {"slow", "0.2", false},
      {"short", "", false},
      {"short", "3600", false},
      // Read as a day at most, or as no header: never an overflowed deadline.
      {"quick", "inf", true},
      {"quick", "1e300", true},
      {"quick", "nan", true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.module + " " + c.header);
    httplib::Headers headers;
    if (!c.header.empty()) {
      headers.emplace("X-Prometheus-Scrape-Timeout-Seconds", c.header);
    }
    const auto response = Get("/probe?module=" + c.module + "&target=a", headers);
    ASSERT_TRUE(response);
    EXPECT_EQ(response->status, 200);
    EXPECT_TRUE(Has(response->body, c.success ? "probe_success 1\n" : "probe_success 0\n"));
    EXPECT_TRUE(qvetest::WaitFor([&] { return qvetest::ProcessesWith(marker) == 0; }, 5s));
  }
  const std::string metrics = Metrics();
  EXPECT_TRUE(Has(metrics, "fetchlet_probe_failures_total{module=\"slow\",kind=\"timeout\"} 2\n"));
  EXPECT_TRUE(Has(metrics, "fetchlet_probe_failures_total{module=\"short\",kind=\"timeout\"} 2\n"));
}

TEST_F(ProbeServerTest, BeyondTheCapAnswers503AtOnce) {
  const std::string marker = qvetest::UniqueSleep(41);
  Start("  - name: slow\n    kind: os\n    format: prometheus\n    timeout: 1h\n"
        "    properties: {command: '/bin/sleep " + marker + "'}\n");
  std::vector<std::future<int>> held;
  for (const char* target : {"a", "b"}) {
    held.push_back(std::async(std::launch::async, [this, target] {
      const auto response = Get(std::string("/probe?module=slow&target=") + target);
      return response ? response->status : 0;
    }));
  }
  ASSERT_TRUE(qvetest::WaitFor([&] { return qvetest::ProcessesWith(marker) == 2; }, 10s));
  const auto refused = Get("/probe?module=slow&target=c");
  ASSERT_TRUE(refused);
  EXPECT_EQ(refused->status, 503);
  // /metrics keeps workers of its own.
  EXPECT_TRUE(Has(Metrics(), "fetchlet_probe_refusals_total{module=\"slow\","
                             "reason=\"concurrency\"} 1\n"));
  server_->prober().Stop();  // ends both runs; their answers still go out
  for (auto& status : held) EXPECT_EQ(status.get(), 200);
  EXPECT_TRUE(qvetest::WaitFor([&] { return qvetest::ProcessesWith(marker) == 0; }, 5s));
}

TEST_F(ProbeServerTest, CacheForKeepsOneAnswerPerModuleTargetAndParams) {
  Start("  - name: clock\n    kind: os\n    cache_for: 1h\n"
        "    properties: {command: '/bin/date +%N'}\n"
        "    params: {port: {pattern: '[0-9]+', default: '1'}}\n"
        "    regex: '([0-9]+)'\n    metrics:\n"
        "      - {name: clock_ns, help: h, value: {column: 1}}\n");
  const struct {
    std::string query;
    int run;  // the answer is the same as run's; -1: a run of its own
  } steps[] = {
      {"target=a", -1}, {"target=a", 0}, {"target=a&port=1", 0},
      {"target=b", -1}, {"target=a&port=2", -1}, {"target=b", 3},
  };
  std::vector<std::string> answers;
  for (const auto& step : steps) {
    SCOPED_TRACE(step.query);
    const auto response = Get("/probe?module=clock&" + step.query);
    ASSERT_TRUE(response);
    const std::string body = response->body;
    answers.push_back(body.substr(body.find("clock_ns ")));
    if (step.run >= 0) {
      EXPECT_EQ(answers.back(), answers[static_cast<size_t>(step.run)]);
    }
  }
  EXPECT_TRUE(Has(Metrics(), "fetchlet_probes_total{module=\"clock\"} 3\n"));
}

TEST_F(ProbeServerTest, ProbesAreGuardedAndNegotiatedAsMetrics) {
  Start("  - name: echo\n    kind: os\n    format: prometheus\n"
        "    properties: {command: '/bin/echo up_total 1'}\n",
        std::string("basic_auth_users:\n  alice: ") + qvetest::kAlice + "\n");
  const std::string probe = "/probe?module=echo&target=a";
  const auto anonymous = Get(probe);
  ASSERT_TRUE(anonymous);
  EXPECT_EQ(anonymous->status, 401);
  httplib::Client client("127.0.0.1", server_->port());
  client.set_basic_auth("alice", "s3cret pass");
  const auto open = client.Get(probe, {{"Accept", "application/openmetrics-text; version=1.0.0"}});
  ASSERT_TRUE(open);
  EXPECT_EQ(open->status, 200);
  EXPECT_TRUE(Has(open->get_header_value("Content-Type"), "openmetrics"));
  EXPECT_TRUE(Has(open->body, "probe_success 1\n"));
  EXPECT_TRUE(Has(open->body, "up_total 1\n"));
  EXPECT_TRUE(open->body.ends_with("# EOF\n"));
}

TEST_F(ProbeServerTest, AReloadReplacesTheModules) {
  const std::string module = "kind: os, format: prometheus, properties: {command: /bin/true}}\n";
  Start("  - {name: old, " + module);
  qvetest::WriteServeFile("probe.yaml", "max_concurrent_probes: 2\nmodules:\n"
                                        "  - {name: new, " + module);
  ASSERT_TRUE(server_->Reload());
  const struct {
    const char* name;
    int status;
  } cases[] = {{"old", 400}, {"new", 200}};
  for (const auto& c : cases) {
    const auto response = Get(std::string("/probe?module=") + c.name + "&target=a");
    ASSERT_TRUE(response);
    EXPECT_EQ(response->status, c.status) << c.name;
  }
  EXPECT_TRUE(Has(Metrics(), "fetchlet_probes_total{module=\"new\"} 1\n"));
}

// A failed probe is logged at debug level only, with the values that made
// it; the status page counts each module's probes.
TEST_F(ProbeServerTest, FailuresLogAtDebugAndModulesShowOnTheStatusPage) {
  std::ostringstream log;
  auto sink = std::make_shared<spdlog::sinks::ostream_sink_mt>(log);
  sink->set_pattern("[%l] %v");
  auto logger = std::make_shared<spdlog::logger>("test", sink);
  logger->set_level(spdlog::level::debug);
  const auto saved = spdlog::default_logger();
  spdlog::set_default_logger(logger);
  Start("  - name: fails\n    kind: os\n    format: prometheus\n"
        "    properties: {command: \"sh -c 'echo down >&2; exit 3' ${target}\"}\n"
        "    params: {port: {pattern: '[0-9]+', default: '80'}}\n");
  const auto response = Get("/probe?module=fails&target=db1");
  const auto page = Get("/");
  server_->Stop();
  spdlog::set_default_logger(saved);
  ASSERT_TRUE(response && page);
  EXPECT_TRUE(Has(response->body, "probe_success 0\n"));
  EXPECT_TRUE(Has(log.str(), "[debug] probe fails target=db1 port=80: "
                             "failed (kind 12): down\\n\n"))
      << log.str();
  EXPECT_TRUE(Has(page->body, "<tr><td>fails</td><td>target, port=80</td>"
                              "<td>1</td><td>1</td><td>0</td></tr>"))
      << page->body;
}

qvetest::Ran RunTest(std::vector<std::string> args) {
  const std::string config = qvetest::WriteServeFile(
      "probe-cli.yaml", std::string(kModule) +
                            "  - {name: down, kind: os, format: prometheus, "
                            "properties: {command: /bin/false}}\n");
  args.insert(args.begin(), {QVE_FETCHLET_BIN, "test", "--config", config});
  return qvetest::RunProgram(std::move(args));
}

TEST(ProbeCommandTest, TestRunsOneProbeWithTheChecksOfProbe) {
  const struct {
    std::vector<std::string> args;
    int status;
    std::string out;  // a line of standard output, or of standard error
    bool on_err;
  } cases[] = {
      {{"--module", "m", "--target", "db1.example.org"}, 0,
       "v_info{text=\"db1.example.org\"} 1\n", false},
      {{"--module", "m", "--target", "a", "--format", "openmetrics"}, 0,
       "probe_success 1\n", false},
      {{"--module", "down", "--target", "a"}, 1, "probe_success 0\n", false},
      {{"--module", "m", "--target", "-x"}, 2,
       "fetchlet: parameter 'target' begins with '-'\n", true},
      {{"--module", "m", "--target", "a", "--param", "port"}, 2,
       "fetchlet: --param takes NAME=VALUE\n", true},
      {{"--module", "m", "--target", "a", "--param", "port=1"}, 2,
       "fetchlet: a parameter is not among the module's params\n", true},
      {{"--module", "nope", "--target", "a"}, 2, "fetchlet: no module named 'nope'", true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args[1] + " " + c.args.back());
    const qvetest::Ran ran = RunTest(c.args);
    EXPECT_EQ(ran.status, c.status) << ran.err;
    EXPECT_TRUE(Has(c.on_err ? ran.err : ran.out, c.out)) << ran.out << ran.err;
  }
  const qvetest::Ran json = RunTest({"--module", "m", "--target", "a", "--json"});
  const auto object = nlohmann::json::parse(json.out);
  EXPECT_EQ(object["module"], "m");
  EXPECT_EQ(object["samples"][0]["name"], "probe_success");
  EXPECT_EQ(object["samples"][0]["value"], 1.0);
}

}  // namespace
}  // namespace fetchlet::serve
