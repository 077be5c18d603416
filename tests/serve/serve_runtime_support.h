// The plug-in's entry points and process checks for the scheduling and
// server tests.
#ifndef QVE_TESTS_SERVE_SERVE_RUNTIME_SUPPORT_H_
#define QVE_TESTS_SERVE_SERVE_RUNTIME_SUPPORT_H_

#include <dirent.h>
#include <dlfcn.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <thread>

#include "cli/plugin.h"
#include "serve/config.h"
#include "serve/evaluate.h"
#include "tests/serve/serve_test_support.h"

namespace qvetest {

// The built plug-in, opened once, as the program opens it.
inline std::optional<fetchlet::Family> EntryPoints(
    fetchlet::serve::CollectorKind kind) {
  static void* handle = [] {
    const auto bin = std::filesystem::path(QVE_FETCHLET_BIN).parent_path();
    return dlopen((bin / "../lib/libqvefos.so").c_str(), RTLD_NOW);
  }();
  if (handle == nullptr) return std::nullopt;
  const std::string prefix = fetchlet::serve::EntryPointPrefix(kind);
  fetchlet::Family family;
  family.getFetchlet = reinterpret_cast<qvefet_GetFetchletFn>(
      dlsym(handle, (prefix + "_getFetchlet").c_str()));
  family.getMetric = reinterpret_cast<qvefet_GetMetricFn>(
      dlsym(handle, (prefix + "_getMetric").c_str()));
  family.freeFetchlet = reinterpret_cast<qvefet_FreeFetchletFn>(
      dlsym(handle, (prefix + "_freeFetchlet").c_str()));
  if (!family.getFetchlet || !family.getMetric || !family.freeFetchlet) {
    return std::nullopt;
  }
  return family;
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
  int count = 0;
  DIR* proc = opendir("/proc");
  while (const dirent* entry = readdir(proc)) {
    const std::string dir = std::string("/proc/") + entry->d_name;
    if (entry->d_name[0] < '0' || entry->d_name[0] > '9') continue;
    std::string cmdline = ReadServeFile(dir + "/cmdline");
    const std::string stat = ReadServeFile(dir + "/stat");
    const size_t paren = stat.rfind(')');
    if (paren == std::string::npos || stat.substr(paren + 2, 1) == "Z") continue;
    for (char& c : cmdline) c = c == '\0' ? ' ' : c;
    if (cmdline.find(marker) != std::string::npos) ++count;
  }
  closedir(proc);
  return count;
}

// A number no other process on the machine has in its command line.
inline std::string UniqueSleep(int which) {
  return std::to_string(3600 + which) + "." + std::to_string(getpid());
}

}  // namespace qvetest

#endif  // QVE_TESTS_SERVE_SERVE_RUNTIME_SUPPORT_H_
