#include "agent/plugin.h"

#include <dlfcn.h>

#include <array>
#include <filesystem>

namespace fetchlet::agent {
namespace {

struct KindRow {
  Kind kind;
  const char* name;
  const char* prefix;
};

constexpr std::array<KindRow, 4> kKinds = {{
    {Kind::kOs, "os", "qvefos"},
    {Kind::kOsLine, "osline", "qvefosl"},
    {Kind::kOsLineToken, "oslinetoken", "qvefoslt"},
    {Kind::kUdm, "udm", "qvefosud"},
}};

const KindRow& Row(Kind kind) {
  for (const KindRow& row : kKinds) {
    if (row.kind == kind) return row;
  }
  return kKinds[0];
}

template <typename Fn>
Fn Symbol(void* handle, const std::string& name) {
  return reinterpret_cast<Fn>(dlsym(handle, name.c_str()));
}

}  // namespace

std::optional<Kind> KindNamed(std::string_view name) {
  for (const KindRow& row : kKinds) {
    if (name == row.name) return row.kind;
  }
  return std::nullopt;
}

const char* KindName(Kind kind) { return Row(kind).name; }
const char* KindPrefix(Kind kind) { return Row(kind).prefix; }
const char* KindNames() { return "os, osline, oslinetoken, udm"; }

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

std::optional<EntryPoints> Plugin::Find(Kind kind) const {
  const std::string prefix = KindPrefix(kind);
  EntryPoints entry_points{
      Symbol<qvefet_GetFetchletFn>(handle_, prefix + "_getFetchlet"),
      Symbol<qvefet_GetMetricFn>(handle_, prefix + "_getMetric"),
      Symbol<qvefet_FreeFetchletFn>(handle_, prefix + "_freeFetchlet")};
  if (!entry_points.getFetchlet || !entry_points.getMetric ||
      !entry_points.freeFetchlet) {
    return std::nullopt;
  }
  return entry_points;
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

}  // namespace fetchlet::agent
