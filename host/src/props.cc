// Property lists: name/value byte strings in insertion order. Values are
// writable in place because the plug-in shortens "command" by storing a NUL
// through the pointer it was given.
#include <cstring>
#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>

#include "guard.h"
#include "host_internal.h"
#include "qve/embedded.h"
#include "qve/host.h"

// Entries live in a deque, which never moves them, so the index can key on
// views of their names.
struct qvlnv_NVList {
  struct Entry {
    std::string name;
    std::string value;
  };
  std::deque<Entry> entries;
  std::unordered_map<std::string_view, Entry*> index;

  Entry* Find(std::string_view name) {
    const auto found = index.find(name);
    return found != index.end() ? found->second : nullptr;
  }

  void Add(std::string_view name, std::string_view value) {
    Entry& entry = entries.emplace_back(Entry{std::string(name),
                                              std::string(value)});
    try {
      index.emplace(entry.name, &entry);
    } catch (...) {
      entries.pop_back();
      throw;
    }
  }
};

struct qvlsl_Iterator {
  explicit qvlsl_Iterator(const qvlnv_NVList* of) : list(of) {}
  const qvlnv_NVList* list;
  size_t next = 0;
};

using qvehost::internal::Guarded;

extern "C" {

char* qvlnvlgv_getValue(qvlnv_NVList* properties, const char* name) {
  return Guarded<char*>(__func__, nullptr, [&]() -> char* {
    if (properties == nullptr || name == nullptr) return nullptr;
    qvlnv_NVList::Entry* entry = properties->Find(name);
    return entry != nullptr ? entry->value.data() : nullptr;
  });
}

// A null list gives an iterator that ends at once.
qvlsl_Iterator* qvlslci_createIterator(qvlnv_NVList* properties) {
  return Guarded<qvlsl_Iterator*>(__func__, nullptr, [&]() -> qvlsl_Iterator* {
    return qvehost::internal::NewObject<qvlsl_Iterator>(properties);
  });
}

const char* qvlnvinn_iteratorNextName(qvlsl_Iterator* iterator) {
  return Guarded<const char*>(__func__, nullptr, [&]() -> const char* {
    if (iterator == nullptr || iterator->list == nullptr) return nullptr;
    if (iterator->next >= iterator->list->entries.size()) return nullptr;
    return iterator->list->entries[iterator->next++].name.c_str();
  });
}

void qvlsldi_destroyIterator(qvlsl_Iterator* iterator) {
  Guarded(__func__, [&] {
    qvehost::internal::DeleteObject(iterator);
  });
}

}  // extern "C"

namespace qvehost {

qvlnv_NVList* NewPropertyList() { return new qvlnv_NVList; }

void SetProperty(qvlnv_NVList* list, std::string_view name,
                 std::string_view value) {
  if (list == nullptr) return;
  if (qvlnv_NVList::Entry* entry = list->Find(name)) {
    entry->value = std::string(value);
    return;
  }
  list->Add(name, value);
}

void DeletePropertyList(qvlnv_NVList* list) { delete list; }

}  // namespace qvehost
