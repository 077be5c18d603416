// Pieces shared by the embedded host's families; not part of any API.
#ifndef QVE_HOST_SRC_HOST_INTERNAL_H_
#define QVE_HOST_SRC_HOST_INTERNAL_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <typeinfo>
#include <utility>
#include <vector>

#include "qve/host.h"

// The language handle of a context. The national-language family reads it;
// the context family makes one per context.
struct qveulx_LangHandle {
  int32_t reserved = 0;
};

namespace qvehost::internal {

// Module name under which the host charges blocks it makes and hands over
// (qve_alloc0(size, kHostModule, __LINE__)).
inline constexpr const char* kHostModule = "host";

// Fault switches set through the control API; each family reads its own.
// ResetFaults clears them all.
int32_t ForcedStartResult();  // 0: start for real
bool ConversionFailureArmed();  // true: the next conversion fails (one-shot)
void DisarmConversionFailure();
bool NewFetchletRefused();
bool MetricResultRefused();
// Disarms the allocation switch and zeroes the allocation counters.
void ResetAllocationFaults();

// The host's fetchlet context: the contract's two leading fields first, so
// a qvefet_Context* of the host converts back to its Context.
struct Context {
  qvefet_Context base;
  qveulx_LangHandle language;
};

// The one log source of the host; every context points at it.
qveulm_LogSource* HostLogSource();

// Live host objects of one type (results, rows, exceptions, ...). Objects
// carry no ledger block, which would cost more than a small row itself; the
// leak check reads these counters instead and names the types still alive.
class ObjectCount {
 public:
  // Registers the counter for the leak report; counters are never destroyed.
  explicit ObjectCount(const char* mangled_type_name);
  ObjectCount(const ObjectCount&) = delete;
  ObjectCount& operator=(const ObjectCount&) = delete;

  void Add() { live_.fetch_add(1, std::memory_order_relaxed); }
  void Remove() { live_.fetch_sub(1, std::memory_order_relaxed); }
  int64_t live() const { return live_.load(std::memory_order_relaxed); }
  const std::string& type_name() const { return type_name_; }
  const ObjectCount* next() const { return next_; }

 private:
  std::atomic<int64_t> live_{0};
  std::string type_name_;
  const ObjectCount* next_ = nullptr;
};

// The counters with live objects, by type name.
std::vector<const ObjectCount*> LiveObjectCounts();

// The counter of T, made on first use.
template <typename T>
ObjectCount& CountOf() {
  static ObjectCount* count = new ObjectCount(typeid(T).name());
  return *count;
}

// Constructs a counted T; null when memory or the constructor fails.
// Released with DeleteObject.
template <typename T, typename... Args>
T* NewObject(Args&&... args) {
  try {
    ObjectCount& count = CountOf<T>();
    T* object = new T(std::forward<Args>(args)...);
    count.Add();
    return object;
  } catch (...) {
    return nullptr;
  }
}

template <typename T>
void DeleteObject(T* object) {
  if (object == nullptr) return;
  delete object;
  CountOf<T>().Remove();
}

// Row storage (value_row.cc) as results and metric values see it.
struct RowCell {
  enum class Kind { kUnset, kNull, kString, kValue };
  Kind kind = Kind::kUnset;
  std::string_view text;
  qvedrmv_MetricValue* value = nullptr;
};
// The row's columns from 0 to the highest set. Throws std::bad_alloc.
std::vector<RowCell> RowCells(const qvedrvr_ValueRow& row);
// Gives back the room a row no longer needs once it has an owner.
void CompactRow(qvedrvr_ValueRow* row);
void DeleteRow(qvedrvr_ValueRow* row);
// A row releases the metric values it holds through this.
void DeleteMetricValue(qvedrmv_MetricValue* value);

}  // namespace qvehost::internal

#endif  // QVE_HOST_SRC_HOST_INTERNAL_H_
