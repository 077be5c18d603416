// Pieces shared by the embedded host's families; not part of any API.
#ifndef QVE_HOST_SRC_HOST_INTERNAL_H_
#define QVE_HOST_SRC_HOST_INTERNAL_H_

#include <cstddef>
#include <cstdint>
#include <new>
#include <string>
#include <utility>

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

// Ledger blocks charged to "host" that the allocation switch neither counts
// nor fails: the shells of host objects, so that a test leaking a result, a
// row or an exception fails the after-test ledger check. Null when no memory.
void* ObjectAlloc(size_t size, int line);
void ObjectFree(void* block);

// Constructs a T in a ledger block; null when memory or the constructor
// fails. Released with DeleteObject.
template <typename T, typename... Args>
T* NewObject(int line, Args&&... args) {
  static_assert(alignof(T) <= 16, "ledger blocks are 16-byte aligned");
  void* block = ObjectAlloc(sizeof(T), line);
  if (block == nullptr) return nullptr;
  try {
    return new (block) T(std::forward<Args>(args)...);
  } catch (...) {
    ObjectFree(block);
    return nullptr;
  }
}

template <typename T>
void DeleteObject(T* object) {
  if (object == nullptr) return;
  object->~T();
  ObjectFree(object);
}

}  // namespace qvehost::internal

#endif  // QVE_HOST_SRC_HOST_INTERNAL_H_
