// The plug-in as an agent reaches it: loaded by path, its entry points
// looked up by the kind's prefix.
#ifndef FETCHLET_AGENT_PLUGIN_H_
#define FETCHLET_AGENT_PLUGIN_H_

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "qve/host.h"

namespace fetchlet::agent {

enum class Kind { kOs, kOsLine, kOsLineToken, kUdm };

// "os", "osline", "oslinetoken", "udm"; nullopt for any other name.
std::optional<Kind> KindNamed(std::string_view name);
const char* KindName(Kind kind);
// The prefix of the kind's exports: "qvefos", "qvefosl", ...
const char* KindPrefix(Kind kind);
// "os, osline, oslinetoken, udm", for messages.
const char* KindNames();

// The three entry points of one kind's fetchlet.
struct EntryPoints {
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

  // The kind's entry points, or nullopt when the library lacks any of them.
  std::optional<EntryPoints> Find(Kind kind) const;

 private:
  explicit Plugin(void* handle) : handle_(handle) {}
  void* handle_;
};

// The plug-in beside the running program (build tree or installed layout),
// else the installed one.
std::string DefaultPluginPath();

}  // namespace fetchlet::agent

#endif  // FETCHLET_AGENT_PLUGIN_H_
