#include "test_command.h"

#include <condition_variable>
#include <iostream>
#include <mutex>
#include <thread>

#include "interrupt.h"
#include "plugin.h"
#include "qve/embedded.h"
#include "serve/config.h"
#include "serve/evaluate.h"
#include "serve/exposition.h"
#include "serve/mapping.h"

namespace fetchlet {
namespace {

using Json = nlohmann::ordered_json;
using serve::CollectorConfig;

constexpr int kFailed = 1;
constexpr int kUsageError = 2;

// The collector's deadline, kept the way serve keeps it: the abort reaches
// the runner's wait loop, the end of the evaluation every command it has.
serve::Evaluation EvaluateWithin(const Family& entry_points,
                                 const CollectorConfig& collector,
                                 uint64_t evaluation) {
  const std::string request_id = "fetchlet-test-" + collector.name;
  std::mutex mutex;
  std::condition_variable finished;
  bool done = false;
  bool expired = false;
  std::thread watchdog([&] {
    std::unique_lock lock(mutex);
    if (finished.wait_for(lock, collector.timeout, [&] { return done; })) {
      return;
    }
    expired = true;
    lock.unlock();
    qvehost::AbortRequest(request_id);
    qvehost::EndEvaluation(evaluation);
  });
  serve::Evaluation outcome =
      serve::Evaluate(entry_points, collector, evaluation, request_id);
  {
    std::lock_guard lock(mutex);
    done = true;
  }
  finished.notify_one();
  watchdog.join();
  outcome.timed_out = expired;
  return outcome;
}

const char* TypeName(serve::MetricType type) {
  switch (type) {
    case serve::MetricType::kCounter:
      return "counter";
    case serve::MetricType::kInfo:
      return "info";
    case serve::MetricType::kStateset:
      return "stateset";
    case serve::MetricType::kUnknown:
      return "unknown";
    case serve::MetricType::kHistogram:
      return "histogram";
    case serve::MetricType::kSummary:
      return "summary";
    case serve::MetricType::kGauge:
      break;
  }
  return "gauge";
}

Json SamplesJson(const serve::Families& families) {
  Json samples = Json::array();
  for (const serve::Family& family : families) {
    const bool info = family.type == serve::MetricType::kInfo;
    for (const serve::Sample& sample : family.samples) {
      Json labels = Json::object();
      for (const auto& [name, value] : sample.labels) labels[name] = value;
      samples.push_back({{"family", family.name},
                         {"type", TypeName(family.type)},
                         {"name", (info ? family.name + "_info" : family.name) +
                                      sample.suffix},
                         {"labels", labels},
                         {"value", sample.value}});
    }
  }
  return samples;
}

Json OutcomeJson(const CollectorConfig& collector,
                 const serve::Evaluation& evaluation,
                 const serve::Mapped& mapped) {
  Json exception = nullptr;
  if (evaluation.exception_kind != 0) {
    exception = {{"kind", evaluation.exception_kind},
                 {"message", evaluation.exception_message}};
  }
  const nlohmann::json& result = evaluation.result;
  return {{"collector", collector.name},
          {"status", evaluation.status},
          {"exception", exception},
          {"failure", mapped.failure},
          {"rows", result.is_object() ? Json(result["rows"]) : Json::array()},
          {"dropped_rows", mapped.dropped_rows},
          {"samples", SamplesJson(mapped.families)},
          {"notes", mapped.notes}};
}

// The configuration's collectors to evaluate, or an empty list with a
// message when it cannot be read.
bool LoadCollectors(const TestOptions& options, serve::Config* config) {
  std::vector<serve::ConfigProblem> problems;
  std::vector<serve::ConfigProblem> warnings;
  auto loaded = serve::LoadConfig(options.config, &problems, &warnings);
  for (const auto& warning : warnings) {
    std::cerr << warning.where.file << ":" << warning.where.line << ":"
              << warning.where.column << ": warning: " << warning.message
              << "\n";
  }
  for (const auto& problem : problems) std::cerr << problem.ToString() << "\n";
  if (!loaded) return false;
  *config = std::move(*loaded);
  if (options.collector.empty()) return true;
  std::erase_if(config->collectors, [&](const CollectorConfig& c) {
    return c.name != options.collector;
  });
  if (config->collectors.empty()) {
    std::cerr << "fetchlet: no collector named '" << options.collector
              << "' in " << options.config << "\n";
    return false;
  }
  return true;
}

}  // namespace

CLI::App* DefineTest(CLI::App& app, TestOptions& o) {
  CLI::App* test = app.add_subcommand(
      "test", "evaluate each configured collector once and print its samples");
  test->add_option("--config", o.config, "the serving configuration")
      ->required();
  test->add_option("--collector", o.collector, "evaluate only this one");
  test->add_option("--format", o.format, "text (0.0.4) | openmetrics")
      ->check(CLI::IsMember({"text", "openmetrics"}));
  test->add_flag("--json", o.json,
                 "one JSON object per collector: status, exception, rows, "
                 "samples, notes");
  test->add_option("--fetchlet-lib", o.pluginPath, "the plug-in to load");
  return test;
}

int RunTest(const TestOptions& options) {
  serve::Config config;
  if (!LoadCollectors(options, &config)) return kUsageError;
  WatchInterrupts("");
  // Standard error carries one line per problem, which the notes already
  // hold; the host's own lines would only repeat them.
  qvehost::SetLogLevel(qvehost::LogLevel::kOff);
  qvehost::SetOutputLimit(config.output_limit);
  const std::string path =
      options.pluginPath.empty() ? DefaultPluginPath() : options.pluginPath;
  std::string error;
  std::unique_ptr<Plugin> plugin = Plugin::Load(path, &error);
  if (!plugin) {
    std::cerr << "fetchlet: cannot load " << path << ": " << error << "\n";
    return kUsageError;
  }
  bool all_good = true;
  std::vector<serve::FamiliesPtr> exposed;
  uint64_t evaluation = 0;
  for (const CollectorConfig& collector : config.collectors) {
    const auto entry_points =
        plugin->Find(serve::EntryPointPrefix(collector.kind));
    if (!entry_points) {
      std::cerr << "fetchlet: " << path << " lacks the fetchlet of "
                << collector.name << "\n";
      return kUsageError;
    }
    const serve::Evaluation outcome =
        EvaluateWithin(*entry_points, collector, ++evaluation);
    serve::Mapped mapped = serve::MapEvaluation(collector, outcome);
    all_good = all_good && mapped.failure.empty() && mapped.dropped_rows == 0;
    for (const std::string& note : mapped.notes) {
      std::cerr << collector.name << ": " << note << "\n";
    }
    if (options.json) {
      std::cout << OutcomeJson(collector, outcome, mapped)
                       .dump(-1, ' ', false,
                             Json::error_handler_t::replace)
                << "\n";
    }
    exposed.push_back(
        std::make_shared<const serve::Families>(std::move(mapped.families)));
  }
  if (!options.json) {
    std::cout << serve::RenderExposition(
        exposed, options.format == "openmetrics" ? serve::Format::kOpenMetrics
                                                 : serve::Format::kText);
  }
  return all_good ? 0 : kFailed;
}

}  // namespace fetchlet
