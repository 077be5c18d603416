// The counting allocator. Every block carries a small header in front that
// links it into the ledger of live blocks, so allocation and release cost a
// malloc/free plus a few pointer moves under one spin lock: it sits on the
// path of every cell of every table the plug-in builds. Host objects carry no
// header; they are counted per type (ObjectCount) and reported beside the
// blocks.
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "guard.h"
#include "host_internal.h"
#include "qve/embedded.h"
#include "qve/host.h"

namespace {

struct Module {
  std::string name;
  uint64_t count = 0;  // allocations since the last ResetFaults
};

constexpr uint32_t kLiveMagic = 0x51564531;
constexpr uint32_t kFreedMagic = 0xdeadf4ee;

// 48 bytes, so the caller's block keeps malloc's 16-byte alignment.
struct alignas(16) Header {
  Header* prev;
  Header* next;
  Module* module;
  size_t size;
  int32_t line;
  uint32_t magic;
};
static_assert(sizeof(Header) % 16 == 0);

constexpr size_t kMaxRequest = SIZE_MAX - sizeof(Header);

struct AllocationSwitch {
  bool armed = false;
  Module* module = nullptr;  // null: every module's allocations count
  uint64_t fail_at = 0;
  bool persistent = false;
};

// Modules by the address of the name the caller passed, so that the usual
// call with a literal costs no search; the name is still compared, as the
// same address may hold another name later.
class ModuleCache {
 public:
  Module* Find(const char* name) const {
    const Slot& slot = slots_[IndexOf(name)];
    if (slot.name != name || slot.module == nullptr) return nullptr;
    return SameName(slot.module->name, name) ? slot.module : nullptr;
  }
  void Put(const char* name, Module* module) {
    slots_[IndexOf(name)] = Slot{name, module};
  }

 private:
  struct Slot {
    const char* name = nullptr;
    Module* module = nullptr;
  };
  static constexpr size_t kSlots = 8;
  // Reads name no further than its first difference from known.
  static bool SameName(const std::string& known, const char* name) {
    for (char c : known) {
      if (*name++ != c) return false;
    }
    return *name == '\0';
  }
  static size_t IndexOf(const char* name) {
    return (reinterpret_cast<uintptr_t>(name) >> 3) % kSlots;
  }
  Slot slots_[kSlots];
};

// Guards sections of a few pointer moves: one atomic exchange to take, a
// plain store to give back. A holder that lost its processor is waited for
// with yields rather than spins.
class SpinLock {
 public:
  void lock() {
    while (locked_.exchange(true, std::memory_order_acquire)) {
      for (int spins = 0; locked_.load(std::memory_order_relaxed);) {
        if (spins < kSpins) {
          ++spins;
        } else {
          std::this_thread::yield();
        }
      }
    }
  }
  void unlock() { locked_.store(false, std::memory_order_release); }

 private:
  static constexpr int kSpins = 100;
  std::atomic<bool> locked_{false};
};

struct Ledger {
  SpinLock lock;
  Header head{&head, &head, nullptr, 0, 0, 0};  // sentinel of a ring
  std::vector<std::unique_ptr<Module>> modules;
  ModuleCache cache;
  uint64_t total = 0;
  AllocationSwitch fault;

  // Never destroyed: blocks may be released by static destructors of the
  // program after this file's statics would be gone.
  static Ledger& Get() {
    static Ledger* ledger = new Ledger;
    return *ledger;
  }

  Module* Find(std::string_view name) {
    for (auto& module : modules) {
      if (module->name == name) return module.get();
    }
    return nullptr;
  }

  // Throws std::bad_alloc when a new name cannot be stored.
  Module* FindOrAdd(std::string_view name) {
    if (Module* found = Find(name)) return found;
    modules.push_back(std::make_unique<Module>(Module{std::string(name), 0}));
    return modules.back().get();
  }

  // Throws std::bad_alloc when a new name cannot be stored.
  Module* Intern(const char* name) {
    if (name == nullptr) name = "";
    if (Module* cached = cache.Find(name)) return cached;
    Module* module = FindOrAdd(name);
    cache.Put(name, module);
    return module;
  }

  // Counts one allocation of name; null when the switch fails it.
  Module* Admit(const char* name) {
    Module* module = Intern(name);
    ++module->count;
    ++total;
    if (!fault.armed) return module;
    uint64_t n = fault.module == nullptr ? total
                 : fault.module == module ? module->count
                                          : 0;
    if (n == 0) return module;
    bool fails = n == fault.fail_at || (fault.persistent && n > fault.fail_at);
    return fails ? nullptr : module;
  }

  void Link(Header* header) {
    header->prev = &head;
    header->next = head.next;
    head.next->prev = header;
    head.next = header;
  }

  static void Unlink(Header* header) {
    header->prev->next = header->next;
    header->next->prev = header->prev;
  }
};

Header* HeaderOf(void* block) {
  Header* header = static_cast<Header*>(block) - 1;
  if (header->magic != kLiveMagic) {
    std::fprintf(stderr, "qvehost: %p is not a live block of the host\n",
                 block);
    std::abort();
  }
  return header;
}

// Zero-filled room for a header and size bytes. Small blocks come from
// malloc, whose per-thread cache calloc passes by; large ones from calloc,
// which need not touch fresh pages to zero them.
Header* ZeroedBlock(size_t size) {
  constexpr size_t kSmall = 1024;
  if (size > kSmall) {
    return static_cast<Header*>(std::calloc(1, sizeof(Header) + size));
  }
  auto* header = static_cast<Header*>(std::malloc(sizeof(Header) + size));
  if (header != nullptr) std::memset(header + 1, 0, size);
  return header;
}

// Makes a linked block, counted and subject to the allocation switch.
void* Allocate(size_t size, const char* module, int line) {
  if (size > kMaxRequest) return nullptr;
  Header* header = ZeroedBlock(size);
  if (header == nullptr) return nullptr;
  Ledger& ledger = Ledger::Get();
  try {
    std::lock_guard guard(ledger.lock);
    Module* owner = ledger.Admit(module);
    if (owner != nullptr) {
      *header = Header{nullptr, nullptr, owner, size, line, kLiveMagic};
      ledger.Link(header);
      return header + 1;
    }
  } catch (...) {
  }
  std::free(header);
  return nullptr;
}

void Release(void* block) {
  if (block == nullptr) return;
  Header* header = HeaderOf(block);
  Ledger& ledger = Ledger::Get();
  {
    std::lock_guard guard(ledger.lock);
    Ledger::Unlink(header);
  }
  header->magic = kFreedMagic;
  std::free(header);
}

// The block leaves the ring while realloc may move it, and returns to it
// moved or not; the copy happens outside the lock.
void* Resize(void* block, size_t size, const char* module, int line) {
  Header* header = HeaderOf(block);
  if (size > kMaxRequest) return nullptr;
  Ledger& ledger = Ledger::Get();
  Module* owner = nullptr;
  try {
    std::lock_guard guard(ledger.lock);
    owner = ledger.Admit(module);
    if (owner == nullptr) return nullptr;
    Ledger::Unlink(header);
  } catch (...) {
    return nullptr;
  }
  size_t old_size = header->size;
  auto* moved =
      static_cast<Header*>(std::realloc(header, sizeof(Header) + size));
  Header* live = moved != nullptr ? moved : header;
  if (moved != nullptr) {
    if (size > old_size) {
      std::memset(reinterpret_cast<char*>(moved + 1) + old_size, 0,
                  size - old_size);
    }
    moved->size = size;
    moved->module = owner;
    moved->line = line;
  }
  {
    std::lock_guard guard(ledger.lock);
    ledger.Link(live);
  }
  return moved != nullptr ? moved + 1 : nullptr;
}

}  // namespace

using qvehost::internal::Guarded;

extern "C" {

void* qve_alloc0(size_t size, const char* module, int line) {
  return Guarded<void*>(__func__, nullptr, [&]() -> void* {
    return Allocate(size, module, line);
  });
}

char* qve_allocpy0(const char* text, const char* module, int line) {
  return Guarded<char*>(__func__, nullptr, [&]() -> char* {
    if (text == nullptr) return nullptr;
    size_t length = std::strlen(text);
    auto* copy = static_cast<char*>(Allocate(length + 1, module, line));
    if (copy != nullptr) std::memcpy(copy, text, length + 1);
    return copy;
  });
}

void* qve_realloc0(void* block, size_t size, const char* module, int line) {
  return Guarded<void*>(__func__, nullptr, [&]() -> void* {
    if (block == nullptr) return Allocate(size, module, line);
    return Resize(block, size, module, line);
  });
}

void qve_free0(void* block, const char* /*module*/, int /*line*/) {
  Guarded(__func__, [&] {
    Release(block);
  });
}

void qve_freecb(void* block) {
  Guarded(__func__, [&] {
    Release(block);
  });
}

}  // extern "C"

namespace qvehost {

namespace {

// The counters with live objects, when module takes in the host's own.
std::vector<const internal::ObjectCount*> LiveObjectCounts(
    std::string_view module) {
  if (!module.empty() && module != internal::kHostModule) return {};
  return internal::LiveObjectCounts();
}

}  // namespace

namespace internal {

void ResetAllocationFaults() {
  Ledger& ledger = Ledger::Get();
  std::lock_guard guard(ledger.lock);
  ledger.fault = AllocationSwitch{};
  ledger.total = 0;
  for (auto& module : ledger.modules) module->count = 0;
}

}  // namespace internal

void FailAllocation(std::string_view module, uint64_t nth, bool persistent) {
  Ledger& ledger = Ledger::Get();
  std::lock_guard guard(ledger.lock);
  ledger.fault = AllocationSwitch{};
  if (nth == 0) return;  // nothing to fail: the switch stays off
  Module* target = nullptr;
  if (!module.empty()) target = ledger.FindOrAdd(module);
  uint64_t base = target != nullptr ? target->count : ledger.total;
  ledger.fault = AllocationSwitch{true, target, base + nth, persistent};
}

uint64_t AllocationCount(std::string_view module) {
  Ledger& ledger = Ledger::Get();
  std::lock_guard guard(ledger.lock);
  if (module.empty()) return ledger.total;
  Module* found = ledger.Find(module);
  return found != nullptr ? found->count : 0;
}

// A live object shows as one block of the host with neither line nor size.
std::vector<LiveBlock> LiveBlocks(std::string_view module) {
  std::vector<LiveBlock> blocks;
  {
    Ledger& ledger = Ledger::Get();
    std::lock_guard guard(ledger.lock);
    for (Header* h = ledger.head.next; h != &ledger.head; h = h->next) {
      if (!module.empty() && h->module->name != module) continue;
      blocks.push_back(LiveBlock{h->module->name, h->line, h->size});
    }
  }
  for (const internal::ObjectCount* count : LiveObjectCounts(module)) {
    blocks.insert(blocks.end(), static_cast<size_t>(count->live()),
                  LiveBlock{internal::kHostModule, 0, 0});
  }
  return blocks;
}

std::string DescribeLiveBlocks(std::string_view module) {
  std::string text;
  Ledger& ledger = Ledger::Get();
  {
    std::lock_guard guard(ledger.lock);
    for (Header* h = ledger.head.next; h != &ledger.head; h = h->next) {
      if (!module.empty() && h->module->name != module) continue;
      text += h->module->name + ":" + std::to_string(h->line) + " (" +
              std::to_string(h->size) + " bytes)\n";
    }
  }
  for (const internal::ObjectCount* count : LiveObjectCounts(module)) {
    text += std::string(internal::kHostModule) + ": " +
            std::to_string(count->live()) + " " + count->type_name() +
            " not released\n";
  }
  return text;
}

}  // namespace qvehost
