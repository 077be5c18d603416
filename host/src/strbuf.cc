// The string buffer: a growing text over std::string. Growth that runs out of
// memory leaves the buffer as it was; the contract has no error result there.
#include <cstring>
#include <string>

#include "guard.h"
#include "host_internal.h"
#include "qve/host.h"

struct qveusb_StringBuffer {
  std::string text;
};

namespace {

void Append(qveusb_StringBuffer* buffer, const char* text, size_t length) {
  if (buffer == nullptr || text == nullptr) return;
  try {
    buffer->text.append(text, length);
  } catch (...) {
  }
}

}  // namespace

using qvehost::internal::Guarded;

extern "C" {

qveusb_StringBuffer* qveusb_StringBuffer_new(void) {
  return Guarded<qveusb_StringBuffer*>(
      __func__, nullptr, [&]() -> qveusb_StringBuffer* {
    return qvehost::internal::NewObject<qveusb_StringBuffer>();
  });
}

void qveusb_StringBuffer_appendStr(qveusb_StringBuffer* buffer,
                                   const char* text) {
  Guarded(__func__, [&] {
    if (text != nullptr) Append(buffer, text, std::strlen(text));
  });
}

void qveusb_StringBuffer_appendChar(qveusb_StringBuffer* buffer, char c) {
  Guarded(__func__, [&] {
    Append(buffer, &c, 1);
  });
}

void qveusb_StringBuffer_appendNewLine(qveusb_StringBuffer* buffer) {
  Guarded(__func__, [&] {
    Append(buffer, "\n", 1);
  });
}

int32_t qveusb_StringBuffer_size(qveusb_StringBuffer* buffer) {
  return Guarded<int32_t>(__func__, 0, [&]() -> int32_t {
    return buffer != nullptr ? static_cast<int32_t>(buffer->text.size()) : 0;
  });
}

const char* qveusb_StringBuffer_getBuffer(qveusb_StringBuffer* buffer) {
  return Guarded<const char*>(__func__, nullptr, [&]() -> const char* {
    return buffer != nullptr ? buffer->text.c_str() : nullptr;
  });
}

char* qveusb_StringBuffer_toString(qveusb_StringBuffer* buffer) {
  return Guarded<char*>(__func__, nullptr, [&]() -> char* {
    if (buffer == nullptr) return nullptr;
    size_t length = buffer->text.size();
    auto* copy = static_cast<char*>(
        qve_alloc0(length + 1, qvehost::internal::kHostModule, __LINE__));
    if (copy != nullptr) std::memcpy(copy, buffer->text.c_str(), length + 1);
    return copy;
  });
}

void qveusb_StringBuffer_delete(qveusb_StringBuffer* buffer) {
  Guarded(__func__, [&] {
    qvehost::internal::DeleteObject(buffer);
  });
}

}  // extern "C"
