// fetchlet test --module M --target T [--param NAME=VALUE]: one probe, with
// the checks /probe makes of what a request gives, printed as /probe would
// answer it.
#include <iostream>

#include "check_command.h"
#include "qve/embedded.h"
#include "interrupt.h"
#include "serve/config.h"
#include "serve/exposition.h"
#include "serve/probe.h"

namespace fetchlet {
namespace {

constexpr int kFailed = 1;
constexpr int kUsageError = 2;

const serve::ModuleConfig* FindModule(const serve::Config& config,
                                      const std::string& name) {
  for (const serve::ModuleConfig& module : config.modules) {
    if (module.collector.name == name) return &module;
  }
  return nullptr;
}

// --target and each --param as a request would give them.
bool QueryOf(const CheckOptions& options, serve::ParamValues* query) {
  if (!options.target.empty()) query->emplace_back("target", options.target);
  for (const std::string& param : options.params) {
    const size_t equals = param.find('=');
    if (equals == std::string::npos) {
      std::cerr << "fetchlet: --param takes NAME=VALUE\n";
      return false;
    }
    query->emplace_back(param.substr(0, equals), param.substr(equals + 1));
  }
  return true;
}

}  // namespace

int RunProbeCheck(const CheckOptions& options) {
  const auto config = serve::LoadConfig(options.config, std::cerr);
  if (!config) return kUsageError;
  const serve::ModuleConfig* module = FindModule(*config, options.module);
  if (module == nullptr) {
    std::cerr << "fetchlet: no module named '" << options.module << "' in "
              << options.config << "\n";
    return kUsageError;
  }
  serve::ParamValues query, values;
  std::string problem;
  if (!QueryOf(options, &query)) return kUsageError;
  if (!serve::BindParams(*module, query, &values, &problem)) {
    std::cerr << "fetchlet: " << problem << "\n";
    return kUsageError;
  }
  WatchInterrupts("");
  qvehost::SetLogLevel(qvehost::LogLevel::kOff);
  qvehost::SetOutputLimit(config->output_limit);
  const std::unique_ptr<agent::Plugin> plugin = LoadCheckPlugin(options);
  if (!plugin) return kUsageError;
  const auto entry_points = plugin->Find(module->collector.kind);
  if (!entry_points) {
    std::cerr << "fetchlet: the plug-in lacks the fetchlet of "
              << module->collector.name << "\n";
    return kUsageError;
  }
  serve::ProbeRun run = serve::RunProbe(
      *module, *entry_points, values,
      {1, "fetchlet-test-" + module->collector.name,
       std::chrono::steady_clock::now() + module->collector.timeout});
  for (const std::string& note : serve::NotesWithMessage(run.mapped)) {
    std::cerr << module->collector.name << ": " << note << "\n";
  }
  serve::Families families =
      serve::ProbeFamilies(run.success, run.outcome.duration_seconds);
  for (serve::Family& family : run.mapped.families) {
    families.push_back(std::move(family));
  }
  run.mapped.families = std::move(families);
  if (options.json) {
    PrintOutcome(std::cout, "module", module->collector.name, run.outcome,
                 run.mapped);
  } else {
    std::cout << serve::RenderExposition(
        {std::make_shared<const serve::Families>(run.mapped.families)},
        options.format == "openmetrics" ? serve::Format::kOpenMetrics
                                        : serve::Format::kText);
  }
  return run.success ? 0 : kFailed;
}

}  // namespace fetchlet
