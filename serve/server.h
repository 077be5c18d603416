// The running service: its configuration, collectors, workers and HTTP
// listener; reloads on request and stops with every command ended.
#ifndef FETCHLET_SERVE_SERVER_H_
#define FETCHLET_SERVE_SERVER_H_

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "agent/plugin.h"
#include "serve/config.h"
#include "serve/family_claims.h"
#include "serve/schedule.h"
#include "serve/web_config.h"

namespace fetchlet::serve {

class HttpServer;
class Prober;
struct ProbeModule;

// The plug-in's entry points for a kind, or nullopt when it lacks them.
using EntryPointFinder =
    std::function<std::optional<agent::EntryPoints>(CollectorKind)>;

class Server {
 public:
  // web_config_path "" serves plain HTTP to everyone.
  Server(std::string config_path, std::string listen_override,
         EntryPointFinder finder, std::string web_config_path = "");
  ~Server();  // Stop()

  // Loads the configuration, starts the workers and listens; false with
  // *error set when any of it fails.
  bool Start(std::string* error);
  // Checks the file again and applies it when valid; an invalid one keeps
  // the running configuration. The web configuration's users are read
  // again the same way; its TLS settings change only on restart. True when
  // both files were applied.
  bool Reload();
  // Ends every run, stops listening, joins every thread.
  void Stop();

  int port() const { return port_; }
  // "serving N collectors on HOST:PORT", for logs and the service manager.
  std::string Status() const;
  Scheduler& scheduler() { return *scheduler_; }
  Prober& prober() { return *prober_; }

 private:
  std::optional<Config> Load();
  std::optional<WebConfig> LoadWeb() const;
  bool Listen(const std::string& listen, std::string* error);
  static void LogContainment();
  bool ReloadWeb();
  std::shared_ptr<const BasicAuth> auth() const;
  bool Collectors(const Config& config, std::vector<CollectorPtr>* out);
  bool Modules(const Config& config, std::vector<ProbeModule>* out) const;

  const std::string config_path_;
  const std::string listen_override_;
  const EntryPointFinder finder_;
  const std::string web_config_path_;
  std::optional<WebConfig> web_;  // its users moved to auth_
  mutable std::mutex auth_mutex_;
  std::shared_ptr<const BasicAuth> auth_;  // guarded by auth_mutex_
  std::string host_;
  std::optional<Config> config_;
  std::unique_ptr<Scheduler> scheduler_;
  // The family names each collector prints, across reloads.
  const std::shared_ptr<FamilyClaims> claims_ = std::make_shared<FamilyClaims>();
  std::unique_ptr<Prober> prober_;
  std::unique_ptr<HttpServer> http_;
  std::thread listener_;
  std::atomic<bool> last_reload_successful_{true};
  int port_ = 0;
  std::size_t max_connections_ = 0;
};

}  // namespace fetchlet::serve

#endif  // FETCHLET_SERVE_SERVER_H_
