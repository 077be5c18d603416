// Counters of live host objects, one per type, for the leak report.
#include <cxxabi.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <memory>
#include <vector>

#include "host_internal.h"

namespace qvehost::internal {

namespace {

// Newest first; counters are never unlinked, so readers need no lock.
std::atomic<const ObjectCount*> g_counts{nullptr};

}  // namespace

ObjectCount::ObjectCount(const char* mangled_type_name) {
  int status = 0;
  std::unique_ptr<char, decltype(&std::free)> readable(
      abi::__cxa_demangle(mangled_type_name, nullptr, nullptr, &status),
      &std::free);
  type_name_ = readable != nullptr ? readable.get() : mangled_type_name;
  next_ = g_counts.load(std::memory_order_relaxed);
  while (!g_counts.compare_exchange_weak(next_, this, std::memory_order_release,
                                         std::memory_order_relaxed)) {
  }
}

std::vector<const ObjectCount*> LiveObjectCounts() {
  std::vector<const ObjectCount*> live;
  for (const ObjectCount* count = g_counts.load(std::memory_order_acquire);
       count != nullptr; count = count->next()) {
    if (count->live() > 0) live.push_back(count);
  }
  std::sort(live.begin(), live.end(),
            [](const ObjectCount* a, const ObjectCount* b) {
              return a->type_name() < b->type_name();
            });
  return live;
}

}  // namespace qvehost::internal
