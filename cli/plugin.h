// The plug-in, loaded the way an agent loads it: by path, with its exported
// entry points looked up by name.
#ifndef QVE_CLI_PLUGIN_H_
#define QVE_CLI_PLUGIN_H_

#include <memory>
#include <optional>
#include <string>

#include "qve/host.h"

namespace fetchlet {


// One family's three entry points.
struct Family {
  qvefet_GetFetchletFn getFetchlet = nullptr;
  qvefet_GetMetricFn getMetric = nullptr;
  qvefet_FreeFetchletFn freeFetchlet = nullptr;
};

class Plugin {
 public:
  // Null with *error set when the library cannot be loaded.
  static std::unique_ptr<Plugin> Load(const std::string& path,
                                      std::string* error);
  ~Plugin();
  Plugin(const Plugin&) = delete;
  Plugin& operator=(const Plugin&) = delete;

  // The family whose exports start with prefix ("qvefos", ...), or nullopt
  // when the library does not export it.
  std::optional<Family> Find(const std::string& prefix) const;

 private:
  explicit Plugin(void* handle) : handle_(handle) {}
  void* handle_;
};

// The plug-in beside this program (build tree or installed layout).
std::string DefaultPluginPath();

}  // namespace fetchlet

#endif  // QVE_CLI_PLUGIN_H_
