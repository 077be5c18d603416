#include "serve/server.h"

#include <httplib.h>
#include <spdlog/spdlog.h>

#include <thread>

#include "qve/embedded.h"
#include "serve/http.h"

namespace fetchlet::serve {

Server::Server(std::string config_path, std::string listen_override,
               EntryPointFinder finder)
    : config_path_(std::move(config_path)),
      listen_override_(std::move(listen_override)),
      finder_(std::move(finder)) {}

Server::~Server() { Stop(); }

std::optional<Config> Server::Load() {
  std::vector<ConfigProblem> problems;
  std::vector<ConfigProblem> warnings;
  std::optional<Config> config = LoadConfig(config_path_, &problems, &warnings);
  for (const ConfigProblem& warning : warnings) {
    spdlog::warn("{}:{}:{}: warning: {}", warning.where.file,
                 warning.where.line, warning.where.column, warning.message);
  }
  for (const ConfigProblem& problem : problems) {
    spdlog::error("{}", problem.ToString());
  }
  return config;
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
    out->push_back(std::make_shared<Collector>(collector, *entry_points));
  }
  return true;
}

bool Server::Start(std::string* error) {
  config_ = Load();
  std::vector<CollectorPtr> collectors;
  if (!config_ || !Collectors(*config_, &collectors)) {
    *error = "cannot use configuration " + config_path_;
    return false;
  }
  const std::string listen =
      listen_override_.empty() ? config_->listen : listen_override_;
  std::string host;
  if (!ParseListen(listen, &host, &port_)) {
    *error = "bad listen address '" + listen + "'";
    return false;
  }
  qvehost::SetOutputLimit(config_->output_limit);
  const int workers = config_->max_concurrent > 0
                          ? config_->max_concurrent
                          : static_cast<int>(std::thread::hardware_concurrency());
  scheduler_ = std::make_unique<Scheduler>(workers, config_->jitter);
  scheduler_->SetCollectors(std::move(collectors));
  http_ = MakeHttpServer();
  AddRoutes(*http_, *scheduler_, last_reload_successful_);
  if (port_ == 0) {
    port_ = http_->bind_to_any_port(host);
  } else if (!http_->bind_to_port(host, port_)) {
    port_ = -1;
  }
  if (port_ < 0) {
    *error = "cannot listen on " + listen;
    Stop();
    return false;
  }
  listener_ = std::thread([this] { http_->listen_after_bind(); });
  spdlog::info("serving {} collectors on {}:{}", config_->collectors.size(),
               host, port_);
  return true;
}

bool Server::Reload() {
  std::optional<Config> config = Load();
  std::vector<CollectorPtr> collectors;
  if (!config || !Collectors(*config, &collectors)) {
    spdlog::error("reload of {} failed; the running configuration stays",
                  config_path_);
    last_reload_successful_ = false;
    return false;
  }
  if (config->listen != config_->listen ||
      config->max_concurrent != config_->max_concurrent) {
    spdlog::warn("listen and max_concurrent change only on restart");
  }
  qvehost::SetOutputLimit(config->output_limit);
  scheduler_->SetCollectors(std::move(collectors));
  config_ = std::move(config);
  last_reload_successful_ = true;
  spdlog::info("configuration {} reloaded", config_path_);
  return true;
}

// The scheduler first: a scrape waiting for an on_scrape collector returns
// at once instead of holding the listener until its deadline.
void Server::Stop() {
  if (scheduler_) scheduler_->Stop();
  if (http_) http_->stop();
  if (listener_.joinable()) listener_.join();
}

}  // namespace fetchlet::serve
