// The fetchlet framework: contexts, handles, the server version and the
// abort-callback registry.
#include <atomic>
#include <mutex>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_map>

#include "guard.h"
#include "host_internal.h"
#include "qve/embedded.h"
#include "qve/host.h"

struct qvefet_Fetchlet {
  qvefet_GetMetricFn get_metric;
  qvefet_Context* context;
  qvefet_FreeFetchletFn free_fetchlet;
};

namespace {

static_assert(std::is_standard_layout_v<qvehost::internal::Context>);

std::atomic<int32_t> g_server_version{QVE_SERVER_VERSION_CURRENT};

struct AbortEntry {
  qvefet_Context* context;
  qvefet_AbortCallback callback;
  void* user_data;
};

// Callbacks run under the registry's lock: once removal has taken the lock
// and dropped the entry, no call is running and none can start, so the
// caller may free the user data as soon as removal returns.
class AbortRegistry {
 public:
  static AbortRegistry& Get() {
    static AbortRegistry* registry = new AbortRegistry;
    return *registry;
  }

  int32_t Add(qvefet_Context* context, const char* id,
              qvefet_AbortCallback callback, void* user_data) {
    std::lock_guard lock(mutex_);
    bool added =
        entries_.try_emplace(id, AbortEntry{context, callback, user_data})
            .second;
    return added ? 0 : -1;
  }

  int32_t Remove(qvefet_Context* context, const char* id) {
    std::lock_guard lock(mutex_);
    auto found = entries_.find(id);
    if (found == entries_.end() || found->second.context != context) return -1;
    entries_.erase(found);
    return 0;
  }

  void RemoveAll(qvefet_Context* context) {
    std::lock_guard lock(mutex_);
    std::erase_if(entries_,
                  [&](const auto& entry) { return entry.second.context == context; });
  }

  bool Abort(std::string_view id) {
    std::lock_guard lock(mutex_);
    auto found = entries_.find(std::string(id));
    if (found == entries_.end()) return false;
    const AbortEntry& entry = found->second;
    entry.callback(entry.context, found->first.c_str(), entry.user_data);
    return true;
  }

 private:
  std::mutex mutex_;
  std::unordered_map<std::string, AbortEntry> entries_;
};

}  // namespace

using qvehost::internal::Guarded;

extern "C" {

qvefet_Fetchlet* qvefet_newFetchlet(qvefet_GetMetricFn getMetric,
                                    qvefet_Context* fetchletContext,
                                    qvefet_FreeFetchletFn freeFetchlet) {
  return Guarded<qvefet_Fetchlet*>(
      __func__, nullptr, [&]() -> qvefet_Fetchlet* {
    if (qvehost::internal::NewFetchletRefused()) return nullptr;
    return qvehost::internal::NewObject<qvefet_Fetchlet>(
        qvefet_Fetchlet{getMetric, fetchletContext, freeFetchlet});
  });
}

qvefet_Context* qvefet_getFetchletContext(qvefet_Fetchlet* fetchlet) {
  return Guarded<qvefet_Context*>(__func__, nullptr, [&]() -> qvefet_Context* {
    return fetchlet != nullptr ? fetchlet->context : nullptr;
  });
}

int32_t qvefet_freeFetchlet(qvefet_Fetchlet* fetchlet) {
  return Guarded<int32_t>(__func__, 0, [&]() -> int32_t {
    qvehost::internal::DeleteObject(fetchlet);
    return 0;
  });
}

int32_t qvefet_addAbortCallback(qvefet_Context* fetchletContext,
                                const char* requestId,
                                qvefet_AbortCallback callback,
                                void* userData) {
  return Guarded<int32_t>(__func__, -1, [&]() -> int32_t {
    if (requestId == nullptr || callback == nullptr) return -1;
    return AbortRegistry::Get().Add(fetchletContext, requestId, callback,
                                    userData);
  });
}

int32_t qvefet_removeAbortCallback(qvefet_Context* fetchletContext,
                                   const char* requestId) {
  return Guarded<int32_t>(__func__, -1, [&]() -> int32_t {
    if (requestId == nullptr) return -1;
    return AbortRegistry::Get().Remove(fetchletContext, requestId);
  });
}

int32_t qvectx_getPLBVersion(qvefet_Context* /*fetchletContext*/) {
  return Guarded<int32_t>(
      __func__, QVE_SERVER_VERSION_CURRENT, [&]() -> int32_t {
    return g_server_version.load();
  });
}

}  // extern "C"

namespace qvehost {

qvefet_Context* NewContext() {
  auto* context = new internal::Context{};
  context->base.langHandle = &context->language;
  context->base.logSource = internal::HostLogSource();
  return &context->base;
}

void DeleteContext(qvefet_Context* context) {
  if (context == nullptr) return;
  AbortRegistry::Get().RemoveAll(context);
  delete reinterpret_cast<internal::Context*>(context);
}

void SetServerVersion(int32_t version) { g_server_version.store(version); }

bool AbortRequest(std::string_view requestId) {
  try {
    return AbortRegistry::Get().Abort(requestId);
  } catch (...) {
    return false;
  }
}

}  // namespace qvehost
