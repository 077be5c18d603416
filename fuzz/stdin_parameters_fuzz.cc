// The standard-input text on fuzzed property lists.
//
// Header: none. Fields: NAME, VALUE pairs.
//
// What must hold: the text is one "REST=VALUE" line per property whose name
// begins with "STDIN", in list order, where REST is the name after "STDIN"
// and a value holding a line feed stands between "__BeginProp__" and
// "__EndProp__" lines; no buffer when there is no such property. The
// buffer's size is the text's length and its copy equals it.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "fos/qvefos_request.h"
#include "fuzz_support.h"

namespace {

using qvefuzz::Check;

constexpr std::string_view kStdinPrefix = "STDIN";

std::optional<std::string> ExpectedText(const qvefuzz::Pairs& properties) {
  std::optional<std::string> text;
  for (const auto& [name, value] : properties) {
    if (!std::string_view(name).starts_with(kStdinPrefix)) continue;
    std::string entry = name.substr(kStdinPrefix.size()) + "=";
    if (value.find('\n') != std::string::npos) {
      entry += "__BeginProp__\n" + value + "\n__EndProp__";
    } else {
      entry += value;
    }
    text = text.value_or("") + entry + "\n";
  }
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qvefuzz::Session session;
  qvefuzz::Input input(data, size);
  qvefuzz::Properties properties;
  properties.SetPairs(input);

  const std::optional<std::string> expected = ExpectedText(properties.pairs());
  qveusb_StringBuffer* buffer =
      qvefos_getStdinParameters(properties.list(), session.Log("fetchlets.os"));
  if (buffer == nullptr) {
    Check(!expected.has_value(), "no standard-input text");
    return 0;
  }
  Check(expected.has_value(), "standard-input text without STDIN entries");
  const std::string text = qveusb_StringBuffer_getBuffer(buffer);
  Check(text == *expected, "standard-input text differs", text);
  Check(qveusb_StringBuffer_size(buffer) == static_cast<int32_t>(text.size()),
        "buffer size differs from its text");
  char* copy = qveusb_StringBuffer_toString(buffer);
  Check(copy != nullptr && text == copy, "buffer copy differs");
  qve_free0(copy, "fuzz", __LINE__);
  qveusb_StringBuffer_delete(buffer);
  return 0;
}
