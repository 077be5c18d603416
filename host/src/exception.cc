// Exceptions: a kind and a message the exception owns.
#include <string>

#include "guard.h"
#include "host_internal.h"
#include "qve/host.h"

struct qveue_Exception {
  qveue_Exception(int32_t of_kind, const char* text)
      : kind(of_kind), message(text != nullptr ? text : "") {}

  int32_t kind;
  std::string message;
};

using qvehost::internal::Guarded;

extern "C" {

qveue_Exception* qveue_Exception_new_init(int32_t kind, const char* message) {
  return Guarded<qveue_Exception*>(
      __func__, nullptr, [&]() -> qveue_Exception* {
    return qvehost::internal::NewObject<qveue_Exception>(kind, message);
  });
}

const char* qveue_Exception_getErrorMessage(qveue_Exception* exception) {
  return Guarded<const char*>(__func__, nullptr, [&]() -> const char* {
    return exception != nullptr ? exception->message.c_str() : nullptr;
  });
}

void qveue_Exception_setErrorMessage(qveue_Exception* exception,
                                     const char* text) {
  Guarded(__func__, [&] {
    if (exception == nullptr) return;
    exception->message = text != nullptr ? text : "";
  });
}

int32_t qveue_Exception_getKind(qveue_Exception* exception) {
  return Guarded<int32_t>(__func__, 0, [&]() -> int32_t {
    return exception != nullptr ? exception->kind : 0;
  });
}

void qveue_Exception_delete(qveue_Exception* exception) {
  Guarded(__func__, [&] {
    qvehost::internal::DeleteObject(exception);
  });
}

// The slot takes whatever it is given, null included, so a caller's slot
// never keeps a stale value; with no slot the exception would be lost, so it
// is released.
void qveue_propogateException(qveue_Exception** slot,
                              qveue_Exception* exception) {
  Guarded(__func__, [&] {
    if (slot != nullptr) {
      *slot = exception;
    } else {
      qvehost::internal::DeleteObject(exception);
    }
  });
}

}  // extern "C"
