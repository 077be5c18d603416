// The line splitter on fuzzed texts.
//
// The input, NULs included, is the buffer; the text ends at its first NUL.
// Allocation faults are the fault sweep's.
//
// What must hold: the lines tile the text in order, each ending at a line
// feed (a carriage return right before it dropped) or at the text's end, so
// that there is one line per line feed plus one for a last line without one
// (no array for an empty text); only those line feeds and carriage returns
// become NUL, and every other byte of the buffer stays as it was.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "fosl/qvefosl_lines.h"
#include "fuzz_support.h"

namespace {

using qvefuzz::Check;

// Checks line i, which must start at offset at of the text; the offset of
// the line after it.
size_t CheckLine(const char* line, size_t at, std::string_view text,
                 const std::string& buffer) {
  Check(line == buffer.data() + at, "a line does not start after the last");
  const size_t length = std::strlen(line);
  const size_t end = at + length;  // a NUL of the buffer, within the text
  Check(end <= text.size(), "a line runs past the text");
  Check(text.substr(at, length).find('\n') == std::string_view::npos,
        "a line holds a line feed");
  if (end == text.size()) return end;
  const bool carriage = text[end] == '\r' && end + 1 < text.size() &&
                        text[end + 1] == '\n';
  Check(carriage || text[end] == '\n', "a line ends before its line feed");
  return end + (carriage ? 2 : 1);
}

// Each byte of the buffer stays, or was a line feed or the carriage return
// right before one and is NUL.
void CheckCut(const std::string& before, const std::string& buffer) {
  for (size_t i = 0; i < before.size(); ++i) {
    if (buffer[i] == before[i]) continue;
    const bool ending = before[i] == '\n' ||
                        (before[i] == '\r' && before[i + 1] == '\n');
    Check(buffer[i] == '\0' && ending, "a byte other than a line end changed");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qvefuzz::Session session;
  qvefuzz::Input input(data, size);
  char** none = reinterpret_cast<char**>(&input);
  Check(qvefosl_getLines(nullptr, &none) == 0 && none == nullptr,
        "a null text has lines");
  const std::string before(reinterpret_cast<const char*>(data), size);
  std::string buffer = before;  // c_str adds the NUL that ends the text
  char** lines = reinterpret_cast<char**>(&buffer);  // a missed store shows
  const uint32_t count = qvefosl_getLines(buffer.data(), &lines);
  const std::string_view text(before.c_str());
  const size_t feeds = static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
  Check(count == feeds + (!text.empty() && text.back() != '\n' ? 1 : 0),
        "line count differs");
  Check((count == 0) == (lines == nullptr), "lines and array disagree");
  size_t at = 0;
  for (uint32_t i = 0; i < count; ++i) at = CheckLine(lines[i], at, text, buffer);
  Check(at == text.size(), "the lines end before the text");
  CheckCut(before, buffer);
  if (lines != nullptr) qve_free0(lines, "fuzz", __LINE__);
  return 0;
}
