// A collector's snapshot, counters and log lines, and serve's own families
// built from them.
#include "serve/collector.h"

#include <gtest/gtest.h>
#include <spdlog/sinks/ostream_sink.h>
#include <spdlog/spdlog.h>

#include <sstream>

#include "common/result_json.h"
#include "serve/http.h"
#include "serve/meta_metrics.h"
#include "serve/schedule.h"
#include "serve_test_support.h"

namespace fetchlet::serve {
namespace {

using Json = nlohmann::json;

CollectorPtr Load() {
  const Config config = qvetest::LoadServeConfig(
      "collectors:\n  - {name: c, kind: osline, interval: 1s, properties: "
      "{command: x}, metrics: [{name: v, help: h, value: {column: 0}}]}\n");
  return std::make_shared<Collector>(config.collectors.at(0),
                                     agent::EntryPoints{});
}

agent::Outcome Failed(const char* message) {
  agent::Outcome outcome;
  outcome.status = -1;
  outcome.exception.reset(qveue_Exception_new_init(12, message));
  return outcome;
}

agent::Outcome Rows(const Json& rows) {
  agent::Outcome outcome;
  outcome.result.reset(qvetest::NewResult(rows));
  return outcome;
}

// The samples of family name in MetaFamilies, as "labels value" lines.
std::vector<std::string> Meta(const CollectorPtr& collector,
                              const std::string& name) {
  std::vector<std::string> lines;
  for (const Family& family : MetaFamilies({collector}, true)) {
    if (family.name != name) continue;
    for (const Sample& sample : family.samples) {
      std::ostringstream line;
      for (const auto& [label, value] : sample.labels) {
        line << label << "=" << value << " ";
      }
      line << sample.value;
      lines.push_back(line.str());
    }
  }
  return lines;
}

using Lines = std::vector<std::string>;

TEST(CollectorTest, UpOnlyOnceEvaluatedAndFailuresByKind) {
  const CollectorPtr collector = Load();
  // Not run yet (every restart with jitter): neither up nor down.
  EXPECT_EQ(Meta(collector, "fetchlet_collector_up"), Lines{});
  collector->Publish(Failed("gone"));
  EXPECT_EQ(Meta(collector, "fetchlet_collector_up"), Lines{"collector=c 0"});
  collector->Publish(Rows({{"1"}, {"x"}, {"y"}}));
  EXPECT_EQ(Meta(collector, "fetchlet_collector_up"), Lines{"collector=c 1"});
  EXPECT_EQ(Meta(collector, "fetchlet_collector_failures_total"),
            (Lines{"collector=c kind=timeout 0", "collector=c kind=run 1",
                   "collector=c kind=invalid_request 0",
                   "collector=c kind=process_limit 0",
                   "collector=c kind=no_result 0", "collector=c kind=no_value 0",
                   "collector=c kind=parse 2",
                   "collector=c kind=resource 0"}));
  EXPECT_EQ(Meta(collector, "fetchlet_build"),
            Lines{"version=" QVE_PROJECT_VERSION " 1"});
}

// A failure is a warning; a udm's message is the script's word, at info. A
// command's text is escaped so that it cannot begin a log line of its own.
TEST(CollectorTest, LogLinesOfFailuresAndMessages) {
  const CollectorPtr udm = std::make_shared<Collector>(
      qvetest::LoadServeConfig(
          "collectors:\n  - {name: u, kind: udm, interval: 1s, properties: "
          "{command: x, valuetype: NUMBER}, value: {name: v, help: h}}\n")
          .collectors.at(0),
      agent::EntryPoints{});
  const struct {
    CollectorPtr collector;
    agent::Outcome outcome;
    std::string log;
  } cases[] = {
      {Load(), Failed("boom\n[error] forged line\r\x1b[2Jback\\slash\tend"),
       "[warning] collector c: failed (kind 12): boom\\n[error] forged "
       "line\\r\\x1b[2Jback\\\\slash\\tend\n"},
      {udm, Rows({{"u", "87", nullptr, "disk\nfull"}}),
       "[info] collector u: message: disk\\nfull\n"},
  };
  for (auto& c : cases) {
    std::ostringstream log;
    auto sink = std::make_shared<spdlog::sinks::ostream_sink_mt>(log);
    sink->set_pattern("[%l] %v");
    auto logger = std::make_shared<spdlog::logger>("test", sink);
    logger->set_level(spdlog::level::info);
    const auto saved = spdlog::default_logger();
    spdlog::set_default_logger(logger);
    c.collector->Publish(c.outcome);
    spdlog::set_default_logger(saved);
    EXPECT_EQ(log.str(), c.log);
  }
}

// A plug-in's first line is shown on the status page, escaped and cut, and
// is never a label.
TEST(CollectorTest, PluginsFirstLineOnTheStatusPage) {
  const std::string long_line(5000, 'x');
  const struct {
    std::string first_line;
    std::string cell;
  } cases[] = {
      {"CHECK <b>OK</b> & 'fine' | t=1", "<td>CHECK &lt;b&gt;OK&lt;/b&gt; &amp; &#39;fine&#39;</td>"},
      {"bad \xff byte", "<td>bad \xef\xbf\xbd byte</td>"},
      {"\xc3\xa9" + long_line, "<td>\xc3\xa9" + long_line.substr(0, 1022) + "...</td>"},
  };
  for (const auto& c : cases) {
    const CollectorPtr collector = std::make_shared<Collector>(
        qvetest::LoadServeConfig(
            "collectors:\n  - {name: n, kind: os, on_scrape: {}, format: nagios, "
            "properties: {command: x}}\n")
            .collectors.at(0),
        agent::EntryPoints{});
    collector->Publish(Rows({{c.first_line + "\nfetchlet-exit-status 0\n"}}));
    Scheduler scheduler(1, 0);
    scheduler.SetCollectors({collector});
    const std::string page = StatusPage(scheduler, nullptr);
    scheduler.Stop();
    EXPECT_NE(page.find(c.cell), std::string::npos) << page.substr(0, 2000);
    for (const Family& family : *collector->snapshot()->families) {
      for (const Sample& sample : family.samples) {
        for (const auto& [label, value] : sample.labels) {
          EXPECT_EQ(value.find("CHECK"), std::string::npos) << family.name;
        }
      }
    }
  }
}

}  // namespace
}  // namespace fetchlet::serve
