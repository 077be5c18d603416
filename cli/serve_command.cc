#include "serve_command.h"

#include <signal.h>

#include <iostream>

#include <spdlog/spdlog.h>

#include "agent/plugin.h"
#include "log_level.h"
#include "serve/notify.h"
#include "serve/server.h"

namespace fetchlet {
namespace {

constexpr int kFailed = 1;
constexpr int kUsageError = 2;

sigset_t ServeSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGHUP);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  return signals;
}

// Reloads on SIGHUP until SIGTERM or SIGINT; the work happens here, on the
// main thread, never in a handler.
void WaitForSignals(serve::Server& server) {
  const sigset_t signals = ServeSignals();
  for (;;) {
    int signal = 0;
    if (sigwait(&signals, &signal) != 0) continue;
    if (signal != SIGHUP) {
      serve::NotifyStopping();
      spdlog::info("stopping on signal {}", signal);
      return;
    }
    serve::NotifyReloading();
    const bool applied = server.Reload();
    serve::NotifyStatus(applied ? server.Status()
                                : server.Status() + "; last reload failed");
    serve::NotifyReady();
  }
}

}  // namespace

CLI::App* DefineServe(CLI::App& app, ServeOptions& o) {
  CLI::App* serve = app.add_subcommand(
      "serve", "evaluate the configured collectors and serve them over HTTP");
  serve->add_option("--config", o.config, "the serving configuration");
  serve->add_option("--listen", o.listen,
                    "ADDR:PORT, instead of the configuration's listen");
  serve->add_option("--web-config", o.web_config,
                    "TLS and basic auth for every route (exporters' format)");
  serve->add_option("--check-config", o.check_config,
                    "check FILE, print each problem, exit 0 or 1");
  serve->add_option("--log-level", o.log_level,
                    "trace | debug | info | warn | error | off (default info)");
  serve->add_option("--fetchlet-lib", o.plugin_path, "the plug-in to load");
  return serve;
}

int RunServe(const ServeOptions& o) {
  // Before any thread starts, so every thread inherits the mask.
  const sigset_t signals = ServeSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  if (!o.check_config.empty()) return serve::CheckConfig(o.check_config);
  if (o.config.empty()) {
    std::cerr << "fetchlet: serve needs --config FILE\n";
    return kUsageError;
  }
  const auto level = LogLevelNamed(o.log_level);
  if (!level) {
    std::cerr << "fetchlet: unknown log level '" << o.log_level << "'\n";
    return kUsageError;
  }
  qvehost::SetLogLevel(level->host);
  spdlog::default_logger()->set_level(level->own);
  const std::string path =
      o.plugin_path.empty() ? agent::DefaultPluginPath() : o.plugin_path;
  std::string error;
  std::unique_ptr<agent::Plugin> plugin = agent::Plugin::Load(path, &error);
  if (!plugin) {
    std::cerr << "fetchlet: cannot load " << path << ": " << error << "\n";
    return kUsageError;
  }
  serve::Server server(
      o.config, o.listen,
      [&](agent::Kind kind) { return plugin->Find(kind); },
      o.web_config);
  if (!server.Start(&error)) {
    std::cerr << "fetchlet: " << error << "\n";
    return kFailed;
  }
  serve::NotifyStatus(server.Status());
  serve::NotifyReady();
  WaitForSignals(server);
  server.Stop();
  return 0;
}

}  // namespace fetchlet
