// The multiplexer: poll over the registered output streams of processes of
// either family.
#include "guard.h"
#include "iomux.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <new>
#include <vector>

#include "qve/host.h"

using qvehost::internal::SourceWatcher;
using qvehost::internal::StreamSource;

struct sqvejcx_IOMuxor final : SourceWatcher {
  struct Entry {
    StreamSource* source;
    void* handle;  // the family's process, as channel records carry it
    uint32_t kind;
  };

  explicit sqvejcx_IOMuxor(qvefet_Context* fetchletContext)
      : context(fetchletContext) {}
  ~sqvejcx_IOMuxor() {
    for (const Entry& entry : entries) entry.source->RemoveWatcher(this);
  }
  sqvejcx_IOMuxor(const sqvejcx_IOMuxor&) = delete;
  sqvejcx_IOMuxor& operator=(const sqvejcx_IOMuxor&) = delete;

  void Forget(const StreamSource* source) override {
    std::erase_if(entries, [source](const Entry& entry) {
      return entry.source == source;
    });
  }

  bool Watches(const StreamSource* source) const {
    return std::any_of(entries.begin(), entries.end(),
                       [source](const Entry& e) { return e.source == source; });
  }

  int32_t Select(int32_t bound_ms, uint32_t* count, sqvejcx_Channel** channels);

  qvefet_Context* context;
  std::vector<Entry> entries;
  // Scratch of Select, sized when streams are added so that a wait allocates
  // nothing but the channel list it hands out.
  std::vector<pollfd> polled;
  std::vector<size_t> polled_entry;
  std::vector<uint8_t> ready;
};

namespace {

constexpr uint32_t kKinds[] = {QVE_STREAM_STDOUT, QVE_STREAM_STDERR};

// poll, retried on EINTR with what is left of the bound; a negative bound
// waits without limit.
int PollRetrying(std::vector<pollfd>& fds, int32_t bound_ms) {
  using Clock = std::chrono::steady_clock;
  const auto deadline =
      Clock::now() + std::chrono::milliseconds(std::max(bound_ms, 0));
  int timeout = bound_ms < 0 ? -1 : bound_ms;
  for (;;) {
    const int rc = poll(fds.data(), fds.size(), timeout);
    if (rc >= 0 || errno != EINTR) return rc;
    if (bound_ms < 0) continue;
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    timeout = static_cast<int>(std::clamp<int64_t>(left.count(), 0, INT_MAX));
  }
}

}  // namespace

// Streams that can be read at once (held bytes, or ended) are not polled; if
// there are any, the others are only looked at, not waited for.
int32_t sqvejcx_IOMuxor::Select(int32_t bound_ms, uint32_t* count,
                                sqvejcx_Channel** channels) {
  const size_t n = entries.size();
  ready.assign(n, 0);
  polled.clear();
  polled_entry.clear();
  bool immediate = false;
  for (size_t i = 0; i < n; ++i) {
    const Entry& entry = entries[i];
    const int fd = entry.source->PollFd(entry.kind);
    if (entry.source->ReadyWithoutWait(entry.kind) || fd < 0) {
      ready[i] = 1;
      immediate = true;
      continue;
    }
    polled.push_back({fd, POLLIN, 0});
    polled_entry.push_back(i);
  }
  if (!polled.empty()) {
    if (PollRetrying(polled, immediate ? 0 : bound_ms) < 0) return -1;
    for (size_t j = 0; j < polled.size(); ++j) {
      if (polled[j].revents != 0) ready[polled_entry[j]] = 1;
    }
  }
  const auto total =
      static_cast<uint32_t>(std::count(ready.begin(), ready.end(), 1));
  if (total == 0) return 0;
  auto* list = new (std::nothrow) sqvejcx_Channel[total];
  if (list == nullptr) return -1;
  uint32_t next = 0;
  for (size_t i = 0; i < n; ++i) {
    if (ready[i] == 0) continue;
    const Entry& entry = entries[i];
    list[next++] = {entry.handle, entry.source->PollFd(entry.kind), entry.kind};
  }
  *count = total;
  *channels = list;
  return 0;
}

namespace qvehost::internal {

StreamSource::~StreamSource() {
  for (SourceWatcher* watcher : watchers_) watcher->Forget(this);
}

void StreamSource::AddWatcher(SourceWatcher* watcher) {
  if (std::find(watchers_.begin(), watchers_.end(), watcher) ==
      watchers_.end()) {
    watchers_.push_back(watcher);
  }
}

void StreamSource::RemoveWatcher(SourceWatcher* watcher) {
  std::erase(watchers_, watcher);
}

int32_t MuxAddSource(sqvejcx_IOMuxor* mux, StreamSource* source, void* handle,
                     int32_t mask) {
  if (mux == nullptr || source == nullptr || (mask & QVE_STREAM_OUTPUTS) == 0) {
    return -1;
  }
  for (uint32_t kind : kKinds) {
    if ((mask & static_cast<int32_t>(kind)) != 0 && !source->HasStream(kind)) {
      return -1;
    }
  }
  try {
    const size_t most = mux->entries.size() + 2;
    mux->entries.reserve(most);
    mux->polled.reserve(most);
    mux->polled_entry.reserve(most);
    mux->ready.reserve(most);
    source->AddWatcher(mux);
  } catch (const std::bad_alloc&) {
    return -1;
  }
  for (uint32_t kind : kKinds) {
    if ((mask & static_cast<int32_t>(kind)) == 0) continue;
    const bool known = std::any_of(
        mux->entries.begin(), mux->entries.end(),
        [&](const auto& e) { return e.source == source && e.kind == kind; });
    if (!known) mux->entries.push_back({source, handle, kind});
  }
  return 0;
}

int32_t MuxRemoveSource(sqvejcx_IOMuxor* mux, StreamSource* source,
                        int32_t kind) {
  if (mux == nullptr || source == nullptr) return -1;
  const auto removed = std::erase_if(mux->entries, [&](const auto& e) {
    return e.source == source && static_cast<int32_t>(e.kind) == kind;
  });
  if (removed == 0) return -1;
  if (!mux->Watches(source)) source->RemoveWatcher(mux);
  return 0;
}

}  // namespace qvehost::internal

using qvehost::internal::Guarded;

extern "C" {

sqvejcx_IOMuxor* sqvejcx_IOMuxor_new(qvefet_Context* fetchletContext) {
  return Guarded<sqvejcx_IOMuxor*>(
      __func__, nullptr, [&]() -> sqvejcx_IOMuxor* {
    return new (std::nothrow) sqvejcx_IOMuxor(fetchletContext);
  });
}

int32_t sqvejcx_IOMuxor_select(sqvejcx_IOMuxor* mux, int32_t waitBound,
                               uint32_t* count, sqvejcx_Channel** channels) {
  return Guarded<int32_t>(__func__, -1, [&]() -> int32_t {
    if (count != nullptr) *count = 0;
    if (channels != nullptr) *channels = nullptr;
    if (mux == nullptr || count == nullptr || channels == nullptr ||
        mux->entries.empty()) {
      return -1;
    }
    return mux->Select(waitBound, count, channels);
  });
}

void sqvejcx_IOMuxor_freeChannels(sqvejcx_Channel* channels) {
  Guarded(__func__, [&] {
    delete[] channels;
  });
}

void sqvejcx_IOMuxor_delete(sqvejcx_IOMuxor* mux) {
  Guarded(__func__, [&] {
    delete mux;
  });
}

}  // extern "C"
