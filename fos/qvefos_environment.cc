// The command's environment: entries from the "ENV" and
// "KTAgentConditionContext" properties, then from the ENV_ARRAY block.
//
// The builder reports to the process's standard error, not to the log: the
// caller goes on without an environment whatever happened.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "fos/qvefos_environment.h"
#include "fos/qvefos_memory.h"
#include "fos/qvefos_request.h"

namespace {

using qvefos::kFosMemory;

constexpr char kEnvArrayName[] = "ENV_ARRAY";
constexpr std::string_view kEnvPrefix = "ENV";
constexpr std::string_view kConditionPrefix = "KTAgentConditionContext";
constexpr char kNullValue[] = "qvefos: NULL value for name = %s\n";
constexpr char kAllocationError[] = "qvefos: Memory allocation error for %s\n";
constexpr char kNoArray[] =
    "qvefos: Could not create array of strings for return";

// A fresh "name=value", or null after writing the allocation message.
char* MakeEntry(std::string_view name, const char* value,
                const char* reported_name) {
  const size_t value_length = std::strlen(value);
  auto* entry =
      static_cast<char*>(kFosMemory.Alloc(name.size() + value_length + 2));
  if (entry == nullptr) {
    std::fprintf(stderr, kAllocationError, reported_name);
    return nullptr;
  }
  std::memcpy(entry, name.data(), name.size());
  entry[name.size()] = '=';
  // The block is zero-filled: the NUL after the value is already there.
  // NOLINTNEXTLINE(bugprone-not-null-terminated-result)
  std::memcpy(entry + name.size() + 1, value, value_length);
  return entry;
}

// The entries collected so far; owns them until Release hands them over.
class EntryList {
 public:
  EntryList() : vector_(qveuv_Vector_new()) {}
  ~EntryList() {
    if (vector_ == nullptr) return;
    for (int32_t i = 0; i < Size(); ++i) {
      kFosMemory.Free(qveuv_Vector_elementAt(vector_, i));
    }
    qveuv_Vector_delete(vector_);
  }
  EntryList(const EntryList&) = delete;
  EntryList& operator=(const EntryList&) = delete;

  bool valid() const { return vector_ != nullptr; }
  int32_t Size() const { return qveuv_Vector_size(vector_); }
  bool Holds(const char* name) const {
    return qveuv_Vector_findIndex(vector_, name, qvefos_envEntryMatches) != -1;
  }
  void Add(char* entry) { qveuv_Vector_addElement(vector_, entry); }

  // The entries as a null-terminated array that now owns them, or null.
  char** Release() {
    const auto size = static_cast<size_t>(Size());
    char** array = kFosMemory.AllocArray<char*>(size + 1);
    if (array == nullptr) {
      std::fputs(kNoArray, stderr);
      return nullptr;
    }
    for (size_t i = 0; i < size; ++i) {
      array[i] = static_cast<char*>(
          qveuv_Vector_elementAt(vector_, static_cast<int32_t>(i)));
    }
    qveuv_Vector_delete(vector_);
    vector_ = nullptr;
    return array;
  }

 private:
  qveuv_Vector* vector_;
};

// One name/value pair of the block, both fresh strings.
struct Pair {
  char* name;
  char* value;
};

// The pairs of an ENV_ARRAY block, parsed on a private copy of it. There is
// one slot per "{" and each pair takes one "{", so the table never overflows.
class PairTable {
 public:
  PairTable() = default;
  ~PairTable() {
    for (size_t i = 0; i < count_; ++i) {
      kFosMemory.Free(pairs_[i].name);
      kFosMemory.Free(pairs_[i].value);
    }
    if (pairs_ != nullptr) kFosMemory.Free(pairs_);
  }
  PairTable(const PairTable&) = delete;
  PairTable& operator=(const PairTable&) = delete;

  // False after an allocation failure, which it has reported.
  bool Parse(const char* block);

  const Pair* begin() const { return pairs_; }
  const Pair* end() const { return pairs_ + count_; }

 private:
  bool ParseCopy(char* text, size_t length);
  bool AddPair(const char* name, const char* value);

  Pair* pairs_ = nullptr;
  size_t slots_ = 0;
  size_t count_ = 0;
};

bool PairTable::Parse(const char* block) {
  const std::string_view text(block);
  slots_ = static_cast<size_t>(std::count(text.begin(), text.end(), '{'));
  if (slots_ == 0) return true;
  pairs_ = kFosMemory.AllocArray<Pair>(slots_);
  char* copy = kFosMemory.Copy(block);
  const bool parsed =
      pairs_ != nullptr && copy != nullptr && ParseCopy(copy, text.size());
  if (copy != nullptr) kFosMemory.Free(copy);
  if (pairs_ == nullptr || copy == nullptr) {
    std::fprintf(stderr, kAllocationError, kEnvArrayName);
  }
  return parsed;
}

// A group is "{", the name up to the first "=" after it, and the value up to
// the next "}" (or the end of the block). Names and values are cut out of the
// copy by storing NULs at their "=" and "}".
//
// A group with no "=" after its "{" (this covers a "{" that is the block's
// last byte) yields nothing, and parsing ends there: no later group can hold
// an "=" either.
bool PairTable::ParseCopy(char* text, size_t length) {
  size_t position = 0;
  while (position < length && count_ < slots_) {
    char* open = std::strchr(text + position, '{');
    if (open == nullptr) break;
    char* equals = std::strchr(open + 1, '=');
    if (equals == nullptr) break;
    char* close = std::strchr(equals + 1, '}');
    *equals = '\0';
    if (close != nullptr) *close = '\0';
    if (!AddPair(open + 1, equals + 1)) return false;
    position = close == nullptr ? length
                                : static_cast<size_t>(close - text) + 1;
  }
  return true;
}

bool PairTable::AddPair(const char* name, const char* value) {
  char* name_copy = kFosMemory.Copy(name);
  char* value_copy = kFosMemory.Copy(value);
  if (name_copy == nullptr || value_copy == nullptr) {
    std::fprintf(stderr, kAllocationError, name);
    if (name_copy != nullptr) kFosMemory.Free(name_copy);
    if (value_copy != nullptr) kFosMemory.Free(value_copy);
    return false;
  }
  pairs_[count_++] = {name_copy, value_copy};
  return true;
}

// The name an entry carries for a property, or null for a property that
// gives no entry of its own.
const char* EntryName(std::string_view property) {
  if (property.starts_with(kConditionPrefix)) return property.data();
  if (property.starts_with(kEnvPrefix)) {
    return property.data() + kEnvPrefix.size();
  }
  return nullptr;
}

// Adds the entries of the properties in list order and finds the ENV_ARRAY
// block. False after an allocation failure.
bool AddPropertyEntries(qvlnv_NVList* properties, EntryList& entries,
                        const char** block) {
  qvlsl_Iterator* names = qvlslci_createIterator(properties);
  if (names == nullptr) return false;
  bool added = true;
  while (const char* name = qvlnvinn_iteratorNextName(names)) {
    const char* entry_name = EntryName(name);
    if (entry_name == nullptr) continue;
    const char* value = qvlnvlgv_getValue(properties, name);
    if (value == nullptr) {
      std::fprintf(stderr, kNullValue, name);
      continue;
    }
    if (std::strcmp(name, kEnvArrayName) == 0) {
      *block = value;
      continue;
    }
    char* entry = MakeEntry(entry_name, value, name);
    if (entry == nullptr) {
      added = false;
      break;
    }
    entries.Add(entry);
  }
  qvlsldi_destroyIterator(names);
  return added;
}

// Adds the block's pairs whose names no entry holds yet, in block order.
bool AddBlockEntries(const char* block, EntryList& entries) {
  PairTable pairs;
  if (!pairs.Parse(block)) return false;
  for (const Pair& pair : pairs) {
    if (entries.Holds(pair.name)) continue;
    char* entry = MakeEntry(pair.name, pair.value, pair.name);
    if (entry == nullptr) return false;
    entries.Add(entry);
  }
  return true;
}

}  // namespace

char** qvefos_buildEnvironment(qvlnv_NVList* properties) {
  EntryList entries;
  if (!entries.valid()) return nullptr;
  const char* block = nullptr;
  if (!AddPropertyEntries(properties, entries, &block)) return nullptr;
  if (block != nullptr && *block != '\0' &&
      !AddBlockEntries(block, entries)) {
    return nullptr;
  }
  if (entries.Size() == 0) return nullptr;
  return entries.Release();
}

int32_t qvefos_envEntryMatches(const void* entry, const void* name) {
  if (entry == nullptr || name == nullptr) return 0;
  const std::string_view text(static_cast<const char*>(entry));
  const std::string_view key(static_cast<const char*>(name));
  return text.size() > key.size() && text.starts_with(key) &&
                 text[key.size()] == '='
             ? 1
             : 0;
}

void qvefos_freeEnvironment(char*** envp) {
  if (envp == nullptr || *envp == nullptr) return;
  qvefos_freeArguments(*envp);
  *envp = nullptr;
}
