// The in-place line splitter behind the table parser and the UDM fetchlet.
#include "fosl/qvefosl_lines.h"

#include <cstring>

#include "fos/qvefos_memory.h"
#include "qve/host.h"

namespace {

using qvefos::kFoslMemory;

// Line feeds, plus one for a last line that has none. memchr outruns a
// byte-wise count on lines of typical length.
uint32_t CountLines(const char* text, size_t length) {
  const char* const end = text + length;
  uint32_t count = 0;
  const char* at = text;
  while (const auto* feed = static_cast<const char*>(
             std::memchr(at, '\n', static_cast<size_t>(end - at)))) {
    ++count;
    at = feed + 1;
  }
  return count + (end[-1] != '\n' ? 1U : 0U);
}

// Stores the start of every line and cuts each line end to NUL.
void CutLines(char* text, size_t length, char** lines, uint32_t count) {
  char* const end = text + length;
  char* start = text;
  uint32_t stored = 0;
  while (auto* feed = static_cast<char*>(
             std::memchr(start, '\n', static_cast<size_t>(end - start)))) {
    if (feed != text && feed[-1] == '\r') feed[-1] = '\0';
    lines[stored++] = start;
    *feed = '\0';
    start = feed + 1;
  }
  if (stored < count) lines[count - 1] = start;
}

}  // namespace

QVEFOS_EXPORT uint32_t qvefosl_getLines(char* text, char*** linesOut) {
  *linesOut = nullptr;
  if (text == nullptr || text[0] == '\0') return 0;
  const size_t length = std::strlen(text);
  const uint32_t count = CountLines(text, length);
  char** lines = kFoslMemory.AllocArray<char*>(count);
  if (lines == nullptr) return 0;
  CutLines(text, length, lines, count);
  *linesOut = lines;
  return count;
}
