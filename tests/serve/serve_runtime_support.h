// The plug-in's entry points and process checks for the scheduling and
// server tests.
#ifndef QVE_TESTS_SERVE_SERVE_RUNTIME_SUPPORT_H_
#define QVE_TESTS_SERVE_SERVE_RUNTIME_SUPPORT_H_

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "agent/plugin.h"
#include "serve/config.h"
#include "tests/serve/serve_test_support.h"

namespace qvetest {

// The built plug-in's entry points, loaded once, as the program loads it.
inline std::optional<fetchlet::agent::EntryPoints> EntryPoints(
    fetchlet::agent::Kind kind) {
  static const std::unique_ptr<fetchlet::agent::Plugin> plugin = [] {
    const auto bin = std::filesystem::path(QVE_FETCHLET_BIN).parent_path();
    std::string error;
    return fetchlet::agent::Plugin::Load(bin / "../lib/libqvefos.so", &error);
  }();
  if (!plugin) return std::nullopt;
  return plugin->Find(kind);
}

// One collector's YAML: an os collector reading the first number printed.
inline std::string OsCollector(const std::string& name,
                               const std::string& command,
                               const std::string& schedule,
                               const std::string& timeout,
                               const std::string& extra = "") {
  return "  - name: " + name + "\n    kind: os\n    properties: {command: '" +
         command + "'" + extra + "}\n    " + schedule + "\n    timeout: " +
         timeout + "\n    regex: '([0-9]+)'\n    metrics:\n      - {name: " +
         name + "_value, help: A value., value: {column: 1}}\n";
}

// Polls every 20 ms until done() or limit passes; done()'s last answer.
inline bool WaitFor(const std::function<bool()>& done,
                    std::chrono::milliseconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() > end) return done();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

// How many live (not zombie) processes have marker in their command line.
inline int ProcessesWith(const std::string& marker) {
  return static_cast<int>(ProcessesWhere([&](const std::string& dir) {
    std::string cmdline = FileBytes(dir + "/cmdline");
    const std::string stat = FileBytes(dir + "/stat");
    const size_t paren = stat.rfind(')');
    if (paren == std::string::npos || stat.substr(paren + 2, 1) == "Z") return false;
    std::replace(cmdline.begin(), cmdline.end(), '\0', ' ');
    return cmdline.find(marker) != std::string::npos;
  }).size());
}

// A number no other process on the machine has in its command line.
inline std::string UniqueSleep(int which) {
  return std::to_string(3600 + which) + "." + std::to_string(getpid());
}

}  // namespace qvetest

#endif  // QVE_TESTS_SERVE_SERVE_RUNTIME_SUPPORT_H_
