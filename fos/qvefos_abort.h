// The abort callback that runners register under a request identifier, and
// the run's abort cell it writes.
#ifndef QVE_FOS_QVEFOS_ABORT_H_
#define QVE_FOS_QVEFOS_ABORT_H_

#include <atomic>
#include <cstdint>

#include "qve/host.h"

// Stores 1 in the abort cell given as abortCell when requestId is not null.
// Called by the host from any thread; always returns 1.
int32_t qvefos_abortFetchlet(qvefet_Context* fetchletContext,
                             const char* requestId, void* abortCell);

namespace qvefos {

// The cell is written by another thread while the run reads it.
inline void MarkAborted(int32_t* cell) {
  std::atomic_ref<int32_t>(*cell).store(1, std::memory_order_relaxed);
}
inline bool IsAborted(int32_t* cell) {
  return std::atomic_ref<int32_t>(*cell).load(std::memory_order_relaxed) > 0;
}

}  // namespace qvefos

#endif  // QVE_FOS_QVEFOS_ABORT_H_
