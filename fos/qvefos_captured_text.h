// A captured stream's text as the runner grows it chunk by chunk.
#ifndef QVE_FOS_QVEFOS_CAPTURED_TEXT_H_
#define QVE_FOS_QVEFOS_CAPTURED_TEXT_H_

#include <cstdint>
#include <cstring>

#include "fos/qvefos_memory.h"

namespace qvefos {

// Host-allocated, NUL-terminated, grown by exactly each chunk plus one. A
// growth past the range of the length fails as a refused allocation does.
struct CapturedText {
  char* text = nullptr;
  uint32_t length = 0;

  // Copies the chunk up to its first NUL; the rest of the chunk stays NUL
  // while the length still counts it.
  bool Append(const char* chunk, uint32_t n) {
    if (!Grow(n, n + size_t{1})) return false;
    const size_t copied = strnlen(chunk, n);
    std::memcpy(text + length, chunk, copied);
    std::memset(text + length + copied, 0, n - copied + 1);
    length += n;
    return true;
  }
  // The launcher's own text, then one space before the command's.
  bool AppendWithSpace(const char* chunk, uint32_t n) {
    if (!Grow(n + size_t{1}, n + size_t{2})) return false;
    std::memcpy(text + length, chunk, n);
    text[length + n] = ' ';
    length += n + 1;
    text[length] = '\0';
    return true;
  }
  // Hands the text to a slot, or frees it when there is no slot.
  void HandTo(char** slot) {
    if (slot != nullptr) {
      *slot = text;
    } else if (text != nullptr) {
      kFosMemory.Free(text);
    }
    text = nullptr;
  }
  void Drop() {
    if (text != nullptr) kFosMemory.Free(text);
    text = nullptr;
  }

 private:
  // Room for added more counted bytes and extra bytes in all past the text.
  bool Grow(size_t added, size_t extra) {
    if (added > UINT32_MAX - length) return false;
    auto* grown = static_cast<char*>(kFosMemory.Realloc(text, length + extra));
    if (grown == nullptr) return false;
    text = grown;
    return true;
  }
};

}  // namespace qvefos

#endif  // QVE_FOS_QVEFOS_CAPTURED_TEXT_H_
