// The line splitter on fuzzed texts.
//
// The input, NULs included, is the buffer; the text ends at its first NUL.
// Allocation faults are the fault sweep's.
//
// What must hold: the count is the number of line feeds plus one for a
// non-empty last line without one (0 and no array for an empty text); line i starts right after the i-th line
// feed; its text is the line without a carriage return right before its
// line feed; afterwards each line feed and each carriage return right
// before one is NUL and every other byte of the buffer is as it was.
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "fosl/qvefosl_lines.h"
#include "fuzz_support.h"

namespace {

using qvefuzz::Check;

std::vector<size_t> LineStarts(std::string_view text) {
  std::vector<size_t> starts;
  size_t start = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\n') continue;
    starts.push_back(start);
    start = i + 1;
  }
  if (start < text.size()) starts.push_back(start);
  return starts;
}

std::string Cut(std::string buffer, size_t length) {
  for (size_t i = 0; i < length; ++i) {
    if (buffer[i] != '\n') continue;
    buffer[i] = '\0';
    if (i > 0 && buffer[i - 1] == '\r') buffer[i - 1] = '\0';
  }
  return buffer;
}

void CheckLines(char** lines, uint32_t count, const std::string& before,
                const std::string& buffer) {
  const std::string_view text(before.c_str());
  const std::vector<size_t> starts = LineStarts(text);
  const std::vector<std::string> expected = qvefuzz::SplitLines(text);
  Check(count == starts.size(), "line count differs");
  for (uint32_t i = 0; i < count; ++i) {
    Check(lines[i] == buffer.data() + starts[i], "line start differs");
    Check(expected[i] == lines[i], "line text differs");
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
  const size_t length = std::strlen(before.c_str());
  if (count == 0) {
    Check(lines == nullptr, "no lines but an array");
    Check(length == 0, "a text without lines");
    Check(buffer == before, "buffer changed without lines");
    return 0;
  }
  Check(lines != nullptr, "lines without an array");
  CheckLines(lines, count, before, buffer);
  Check(buffer == Cut(before, length), "buffer not cut as expected");
  qve_free0(lines, "fuzz", __LINE__);
  return 0;
}
