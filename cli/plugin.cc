#include "plugin.h"

#include <dlfcn.h>
#include <unistd.h>

#include <filesystem>

namespace fetchlet {
namespace {

template <typename Fn>
Fn Symbol(void* handle, const std::string& name) {
  return reinterpret_cast<Fn>(dlsym(handle, name.c_str()));
}

}  // namespace

std::unique_ptr<Plugin> Plugin::Load(const std::string& path,
                                     std::string* error) {
  void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) {
    *error = dlerror();
    return nullptr;
  }
  return std::unique_ptr<Plugin>(new Plugin(handle));
}

Plugin::~Plugin() { dlclose(handle_); }

std::optional<Family> Plugin::Find(const std::string& prefix) const {
  Family family{Symbol<qvefet_GetFetchletFn>(handle_, prefix + "_getFetchlet"),
                Symbol<qvefet_GetMetricFn>(handle_, prefix + "_getMetric"),
                Symbol<qvefet_FreeFetchletFn>(handle_, prefix + "_freeFetchlet")};
  if (!family.getFetchlet || !family.getMetric || !family.freeFetchlet) {
    return std::nullopt;
  }
  return family;
}

std::string DefaultPluginPath() {
  namespace fs = std::filesystem;
  std::error_code ignored;
  const fs::path self = fs::read_symlink("/proc/self/exe", ignored);
  const fs::path dir = self.parent_path();
  for (const fs::path& candidate :
       {dir / "../lib/libqvefos.so", dir / "libqvefos.so",
        fs::path(QVE_INSTALLED_PLUGIN)}) {
    if (fs::exists(candidate, ignored)) {
      return fs::weakly_canonical(candidate, ignored).string();
    }
  }
  return QVE_INSTALLED_PLUGIN;
}

}  // namespace fetchlet
