// Finding fetchlet-launch: a setting, or the copy installed or built beside
// the host library. Never a PATH search: the host's PATH is no place to
// choose the program that is handed passwords.
#include "launcher_path.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <mutex>
#include <string>

#include "../launcher/launch_protocol.h"
#include "qve/embedded.h"
#include "qve/host.h"

namespace qvehost {
namespace {

// Beside the library, in the order tried. The first two are the installed
// layouts (prefix/lib and prefix/lib/<multiarch> beside prefix/libexec), the
// last the build tree (lib/ beside bin/).
constexpr const char* kCandidates[] = {
    "", "../libexec/", "../../libexec/", "../bin/"};

struct LauncherSetting {
  std::mutex mutex;
  std::string path;  // set by the program; empty: search
  std::string found;  // the search's result, kept once found
  std::string config;  // for a launcher without privilege; empty: its own
};

LauncherSetting& Setting() {
  static LauncherSetting* setting = new LauncherSetting;
  return *setting;
}

// The directory of the host library itself, resolved.
std::string LibraryDirectory() {
  Dl_info info;
  if (dladdr(reinterpret_cast<void*>(&qvejcap_Process_new), &info) == 0 ||
      info.dli_fname == nullptr) {
    return {};
  }
  char resolved[PATH_MAX];
  if (realpath(info.dli_fname, resolved) == nullptr) return {};
  std::string path(resolved);
  return path.substr(0, path.rfind('/') + 1);
}

bool IsExecutableFile(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) &&
         access(path.c_str(), X_OK) == 0;
}

std::string Search() {
  const std::string directory = LibraryDirectory();
  if (directory.empty()) return {};
  for (const char* candidate : kCandidates) {
    const std::string path = directory + candidate + qvelaunch::kProgramName;
    // Resolved, so that process lists and logs show the plain path.
    char resolved[PATH_MAX];
    if (IsExecutableFile(path) && realpath(path.c_str(), resolved) != nullptr) {
      return resolved;
    }
  }
  return {};
}

}  // namespace

void SetLauncherPath(const std::string& path) {
  LauncherSetting& setting = Setting();
  std::lock_guard lock(setting.mutex);
  setting.path = path;
}

std::string LauncherPath() { return internal::ResolveLauncherPath(); }

void SetLauncherConfig(const std::string& path) {
  LauncherSetting& setting = Setting();
  std::lock_guard lock(setting.mutex);
  setting.config = path;
}

namespace internal {

std::string ResolveLauncherPath() {
  LauncherSetting& setting = Setting();
  std::lock_guard lock(setting.mutex);
  if (!setting.path.empty()) return setting.path;
  if (setting.found.empty()) setting.found = Search();
  return setting.found;
}

std::string LauncherConfig() {
  LauncherSetting& setting = Setting();
  std::lock_guard lock(setting.mutex);
  return setting.config;
}

}  // namespace internal
}  // namespace qvehost
