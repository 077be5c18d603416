// The one way out of every extern "C" operation of the host: an exception
// (a failed allocation, mostly) becomes the operation's documented failure
// and is logged, so that none unwinds into a plug-in built without them.
#ifndef QVE_HOST_SRC_GUARD_H_
#define QVE_HOST_SRC_GUARD_H_

#include <type_traits>

namespace qvehost::internal {

// Logs the exception in flight under the operation's name; never throws.
void ReportEscaped(const char* operation) noexcept;

// body() or, when it throws, failure.
template <typename R, typename Body>
R Guarded(const char* operation, R failure, Body&& body) noexcept {
  try {
    return body();
  } catch (...) {
    ReportEscaped(operation);
    return failure;
  }
}

// For an operation that returns nothing: the exception is swallowed.
template <typename Body>
void Guarded(const char* operation, Body&& body) noexcept {
  try {
    body();
  } catch (...) {
    ReportEscaped(operation);
  }
}

}  // namespace qvehost::internal

#endif  // QVE_HOST_SRC_GUARD_H_
