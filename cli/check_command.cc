#include "check_command.h"

#include <cmath>
#include <iostream>

#include <nlohmann/json.hpp>

#include "agent/evaluate.h"
#include "interrupt.h"
#include "render.h"
#include "run_limits.h"
#include "serve/collector.h"
#include "serve/config.h"
#include "serve/exposition.h"
#include "serve/mapping.h"

namespace fetchlet {
namespace {

using Json = nlohmann::ordered_json;
using serve::CollectorConfig;

constexpr int kFailed = 1;
constexpr int kUsageError = 2;

// JSON has no NaN or infinities: they keep their exposition names.
Json ValueJson(double value) {
  if (std::isnan(value)) return "NaN";
  if (std::isinf(value)) return value > 0 ? "+Inf" : "-Inf";
  return value;
}

Json SamplesJson(const serve::Families& families) {
  Json samples = Json::array();
  for (const serve::Family& family : families) {
    const bool info = family.type == serve::MetricType::kInfo;
    const char* type =
        serve::TypeName(family.type, serve::Format::kOpenMetrics);
    for (const serve::Sample& sample : family.samples) {
      Json labels = Json::object();
      for (const auto& [name, value] : sample.labels) labels[name] = value;
      samples.push_back({{"family", family.name},
                         {"type", type},
                         {"name", (info ? family.name + "_info" : family.name) +
                                      sample.suffix},
                         {"labels", labels},
                         {"value", ValueJson(sample.value)}});
    }
  }
  return samples;
}

std::string Dump(const Json& json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace

// The rows are written from the result as it lies.
void PrintOutcome(std::ostream& out, const char* key, const std::string& name,
                  const agent::Outcome& outcome, const serve::Mapped& mapped) {
  Json exception = nullptr;
  if (outcome.exception) {
    exception = {{"kind", outcome.ExceptionKind()},
                 {"message", std::string(outcome.ExceptionMessage())}};
  }
  out << "{" << Dump(key) << ":" << Dump(name)
      << ",\"status\":" << outcome.status
      << ",\"exception\":" << Dump(exception) << ",\"failure\":"
      << Dump(mapped.failure ? serve::FailureName(*mapped.failure) : "")
      << ",\"rows\":";
  PrintJsonRows(out, outcome.result.get());
  out << ",\"dropped_rows\":" << mapped.dropped_rows
      << ",\"duplicates\":" << mapped.duplicates
      << ",\"samples\":" << Dump(SamplesJson(mapped.families))
      << ",\"notes\":" << Dump(serve::NotesWithMessage(mapped))
      << ",\"resources\":" << Dump(ResourcesJson(outcome.resources)) << "}\n";
}

namespace {

// The configuration's collectors to evaluate; false after a message when
// it cannot be read or names no such collector.
bool LoadCollectors(const CheckOptions& options, serve::Config* config,
                    serve::FamilyClaims* claims) {
  auto loaded = serve::LoadConfig(options.config, std::cerr);
  if (!loaded) return false;
  *config = std::move(*loaded);
  // Every collector's families, as serve would print them beside the one
  // evaluated.
  claims->Configure(config->collectors);
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

CLI::App* DefineCheck(CLI::App& app, CheckOptions& o) {
  CLI::App* test = app.add_subcommand(
      "test", "evaluate each configured collector once and print its samples");
  test->add_option("--config", o.config, "the serving configuration")
      ->required();
  CLI::Option* collector =
      test->add_option("--collector", o.collector, "evaluate only this one");
  CLI::Option* module = test->add_option(
      "--module", o.module, "run one probe of this module, as /probe would");
  module->excludes(collector);
  test->add_option("--target", o.target, "the probe's target")->needs(module);
  test->add_option("--param", o.params, "NAME=VALUE, a param of the module")
      ->needs(module);
  test->add_option("--format", o.format, "text (0.0.4) | openmetrics")
      ->check(CLI::IsMember({"text", "openmetrics"}));
  test->add_flag("--json", o.json,
                 "one JSON object per collector: status, exception, rows, "
                 "samples, notes");
  test->add_option("--fetchlet-lib", o.plugin_path, "the plug-in to load");
  return test;
}

std::unique_ptr<agent::Plugin> LoadCheckPlugin(const CheckOptions& options) {
  const std::string path = options.plugin_path.empty()
                               ? agent::DefaultPluginPath()
                               : options.plugin_path;
  std::string error;
  std::unique_ptr<agent::Plugin> plugin = agent::Plugin::Load(path, &error);
  if (!plugin) {
    std::cerr << "fetchlet: cannot load " << path << ": " << error << "\n";
  }
  return plugin;
}

int RunCheck(const CheckOptions& options) {
  if (!options.module.empty()) return RunProbeCheck(options);
  serve::Config config;
  serve::FamilyClaims claims;
  if (!LoadCollectors(options, &config, &claims)) return kUsageError;
  WatchInterrupts("");
  // Standard error carries one line per problem, which the notes already
  // hold; the host's own lines would only repeat them.
  qvehost::SetLogLevel(qvehost::LogLevel::kOff);
  qvehost::SetOutputLimit(config.output_limit);
  std::unique_ptr<agent::Plugin> plugin = LoadCheckPlugin(options);
  if (!plugin) return kUsageError;
  bool all_good = true;
  std::vector<serve::FamiliesPtr> exposed;
  uint64_t evaluation = 0;
  for (const CollectorConfig& config_of : config.collectors) {
    const auto entry_points = plugin->Find(config_of.kind);
    if (!entry_points) {
      std::cerr << "fetchlet: the plug-in lacks the fetchlet of "
                << config_of.name << "\n";
      return kUsageError;
    }
    const serve::Collector collector(config_of, *entry_points);
    const agent::Outcome outcome = collector.Evaluate(
        {++evaluation, "fetchlet-test-" + config_of.name,
         std::chrono::steady_clock::now() + config_of.timeout});
    serve::Mapped mapped = serve::MapEvaluation(config_of, outcome);
    mapped.duplicates += claims.Claim(config_of.name, &mapped.families, &mapped.notes);
    claims.Settle(config_of.name, mapped.families);
    all_good = all_good && !mapped.failure && mapped.dropped_rows == 0;
    for (const std::string& note : serve::NotesWithMessage(mapped)) {
      std::cerr << config_of.name << ": " << note << "\n";
    }
    if (options.json) {
      PrintOutcome(std::cout, "collector", config_of.name, outcome, mapped);
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
