// The running service: its configuration, collectors, workers and HTTP
// listener; reloads on request and stops with every command ended.
#ifndef FETCHLET_SERVE_SERVER_H_
#define FETCHLET_SERVE_SERVER_H_

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "cli/plugin.h"
#include "serve/config.h"
#include "serve/schedule.h"

namespace httplib {
class Server;
}

namespace fetchlet::serve {

// The plug-in's entry points for a kind, or nullopt when it lacks them.
using EntryPointFinder =
    std::function<std::optional<::fetchlet::Family>(CollectorKind)>;

class Server {
 public:
  Server(std::string config_path, std::string listen_override,
         EntryPointFinder finder);
  ~Server();  // Stop()

  // Loads the configuration, starts the workers and listens; false with
  // *error set when any of it fails.
  bool Start(std::string* error);
  // Checks the file again and applies it when valid; an invalid one keeps
  // the running configuration. True when applied.
  bool Reload();
  // Ends every run, stops listening, joins every thread.
  void Stop();

  int port() const { return port_; }
  Scheduler& scheduler() { return *scheduler_; }

 private:
  std::optional<Config> Load();
  bool Collectors(const Config& config, std::vector<CollectorPtr>* out);

  const std::string config_path_;
  const std::string listen_override_;
  const EntryPointFinder finder_;
  std::optional<Config> config_;
  std::unique_ptr<Scheduler> scheduler_;
  std::unique_ptr<httplib::Server> http_;
  std::thread listener_;
  std::atomic<bool> last_reload_successful_{true};
  int port_ = 0;
};

}  // namespace fetchlet::serve

#endif  // FETCHLET_SERVE_SERVER_H_
