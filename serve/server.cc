#include "serve/server.h"

#include <spdlog/spdlog.h>

#include <thread>

#include "qve/embedded.h"
#include "serve/http.h"
#include "serve/http_server.h"
#include "serve/probe.h"

namespace fetchlet::serve {

Server::Server(std::string config_path, std::string listen_override,
               EntryPointFinder finder, std::string web_config_path)
    : config_path_(std::move(config_path)),
      listen_override_(std::move(listen_override)),
      finder_(std::move(finder)),
      web_config_path_(std::move(web_config_path)) {}

Server::~Server() { Stop(); }

std::optional<Config> Server::Load() {
  std::vector<ConfigProblem> problems;
  std::vector<ConfigProblem> warnings;
  std::optional<Config> config = LoadConfig(config_path_, &problems, &warnings);
  for (const ConfigProblem& warning : warnings) {
    spdlog::warn("{}", warning.ToWarning());
  }
  for (const ConfigProblem& problem : problems) {
    spdlog::error("{}", problem.ToString());
  }
  return config;
}

std::optional<WebConfig> Server::LoadWeb() const {
  if (web_config_path_.empty()) return WebConfig{};
  std::vector<ConfigProblem> problems;
  std::optional<WebConfig> web = LoadWebConfig(web_config_path_, &problems);
  for (const ConfigProblem& problem : problems) {
    spdlog::error("{}", problem.ToString());
  }
  return web;
}

std::shared_ptr<const BasicAuth> Server::auth() const {
  std::lock_guard lock(auth_mutex_);
  return auth_;
}

// The collectors of config; one defined as before keeps its state.
bool Server::Collectors(const Config& config, std::vector<CollectorPtr>* out) {
  std::vector<CollectorPtr> running;
  if (scheduler_) running = scheduler_->collectors();
  for (const CollectorConfig& collector : config.collectors) {
    CollectorPtr kept;
    for (const CollectorPtr& old : running) {
      if (old->config().name == collector.name &&
          SameDefinition(old->config(), collector)) {
        kept = old;
      }
    }
    if (kept) {
      out->push_back(kept);
      continue;
    }
    const auto entry_points = finder_(collector.kind);
    if (!entry_points) {
      spdlog::error("collector {}: the plug-in lacks its fetchlet",
                    collector.name);
      return false;
    }
    out->push_back(std::make_shared<Collector>(collector, *entry_points, claims_));
  }
  return true;
}

bool Server::Modules(const Config& config, std::vector<ProbeModule>* out) const {
  for (const ModuleConfig& module : config.modules) {
    const auto entry_points = finder_(module.collector.kind);
    if (!entry_points) {
      spdlog::error("module {}: the plug-in lacks its fetchlet",
                    module.collector.name);
      return false;
    }
    out->push_back({module, *entry_points});
  }
  return true;
}

bool Server::Start(std::string* error) {
  config_ = Load();
  std::vector<CollectorPtr> collectors;
  std::vector<ProbeModule> modules;
  if (!config_ || !Collectors(*config_, &collectors) ||
      !Modules(*config_, &modules)) {
    *error = "cannot use configuration " + config_path_;
    return false;
  }
  web_ = LoadWeb();
  if (!web_) {
    *error = "cannot use web configuration " + web_config_path_;
    return false;
  }
  auth_ = std::make_shared<BasicAuth>(std::move(web_->basic_auth_users));
  qvehost::SetOutputLimit(config_->output_limit);
  const int workers = config_->max_concurrent > 0
                          ? config_->max_concurrent
                          : static_cast<int>(std::thread::hardware_concurrency());
  scheduler_ = std::make_unique<Scheduler>(workers, config_->jitter);
  claims_->Configure(config_->collectors);
  prober_ = std::make_unique<Prober>(config_->max_concurrent_probes);
  prober_->SetModules(std::move(modules), config_->probe_timeout_offset);
  max_connections_ =
      ConnectionBudget(workers + config_->max_concurrent_probes);
  scheduler_->SetCollectors(std::move(collectors));
  const std::string listen =
      listen_override_.empty() ? config_->listen : listen_override_;
  if (!Listen(listen, error)) {
    Stop();
    return false;
  }
  spdlog::info("{}", Status());
  LogContainment();
  return true;
}

// Said once at the default level: without cgroups an operator must know
// that a command's escaped descendants outlive its run.
void Server::LogContainment() {
  if (qvehost::CgroupContainment()) {
    spdlog::info("containment: each command runs in a cgroup of its own; "
                 "every process it starts ends with its run");
  } else {
    spdlog::warn("containment: process groups only (no writable cgroup v2 "
                 "hierarchy); a process that leaves its command's group, "
                 "such as a daemon or a setsid child, outlives its run");
  }
}

// Bound and listening when it returns true: a client may connect at once.
bool Server::Listen(const std::string& listen, std::string* error) {
  if (!ParseListen(listen, &host_, &port_)) {
    *error = "bad listen address '" + listen + "'";
    return false;
  }
  if (!web_ || !config_) return false;  // Start loads them first
  http_ = MakeListener(*web_, max_connections_, error);
  if (!http_) return false;
  // Probes run on the listener's workers: as many more as may run at once,
  // so that /metrics always finds one free.
  ListenerLimits limits = http_->limits();
  limits.workers += config_->max_concurrent_probes;
  http_->SetLimits(limits);
  if (!web_config_path_.empty()) {
    RequireBasicAuth(*http_, [this] { return auth(); });
  }
  AddRoutes(*http_, *scheduler_, last_reload_successful_, prober_.get());
  std::string why;
  if (!http_->Bind(host_, port_, &why)) {
    *error = "cannot listen on " + listen + ": " + why;
    return false;
  }
  port_ = http_->port();
  listener_ = std::thread([this] { http_->Run(); });
  return true;
}

std::string Server::Status() const {
  const size_t count = config_ ? config_->collectors.size() : 0;
  const size_t modules = config_ ? config_->modules.size() : 0;
  return "serving " + std::to_string(count) +
         (count == 1 ? " collector" : " collectors") +
         (modules == 0 ? std::string()
                       : " and " + std::to_string(modules) +
                             (modules == 1 ? " module" : " modules")) +
         " on " + host_ + ":" + std::to_string(port_);
}

// Users may change at once; certificates are in the listener's TLS context,
// made once.
bool Server::ReloadWeb() {
  std::optional<WebConfig> web = LoadWeb();
  if (!web) {
    spdlog::error("reload of {} failed; the running web configuration stays",
                  web_config_path_);
    return false;
  }
  if (web_ && web->tls != web_->tls) {
    spdlog::warn("tls_server_config changes only on restart");
  }
  if (web_ && web->rate_limit != web_->rate_limit) {
    spdlog::warn("rate_limit changes only on restart");
  }
  auto auth = std::make_shared<const BasicAuth>(std::move(web->basic_auth_users));
  std::lock_guard lock(auth_mutex_);
  auth_ = std::move(auth);
  return true;
}

bool Server::Reload() {
  const bool web_reloaded = ReloadWeb();
  std::optional<Config> config = Load();
  std::vector<CollectorPtr> collectors;
  std::vector<ProbeModule> modules;
  if (!config || !Collectors(*config, &collectors) ||
      !Modules(*config, &modules)) {
    spdlog::error("reload of {} failed; the running configuration stays",
                  config_path_);
    last_reload_successful_ = false;
    return false;
  }
  if (config_ && (config->listen != config_->listen ||
                  config->max_concurrent != config_->max_concurrent ||
                  config->jitter != config_->jitter ||
                  config->max_concurrent_probes !=
                      config_->max_concurrent_probes)) {
    spdlog::warn("listen, max_concurrent, max_concurrent_probes and jitter "
                 "change only on restart");
  }
  qvehost::SetOutputLimit(config->output_limit);
  claims_->Configure(config->collectors);
  scheduler_->SetCollectors(std::move(collectors));
  prober_->SetModules(std::move(modules), config->probe_timeout_offset);
  config_ = std::move(config);
  last_reload_successful_ = web_reloaded;
  spdlog::info("configuration {} reloaded", config_path_);
  return web_reloaded;
}

// The scheduler first: a scrape waiting for an on_scrape collector returns
// at once instead of holding the listener until its deadline.
void Server::Stop() {
  if (scheduler_) scheduler_->Stop();
  if (prober_) prober_->Stop();
  if (http_) http_->Stop();
  if (listener_.joinable()) listener_.join();
}

}  // namespace fetchlet::serve
