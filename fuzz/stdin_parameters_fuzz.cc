// The standard-input text on fuzzed property lists.
//
// Header: none. Fields: NAME, VALUE pairs.
//
// What must hold: read back line by line, the text gives every property
// whose name begins with "STDIN", in list order, as "REST=VALUE" (REST the
// name after "STDIN"), a value holding a line feed standing between
// "__BeginProp__" and "__EndProp__" lines; no buffer when there is no such
// property. The buffer's size is the text's length and its copy equals it.
#include <cstdint>
#include <string>
#include <string_view>

#include "fos/qvefos_request.h"
#include "fuzz_support.h"

namespace {

using qvefuzz::Check;

constexpr std::string_view kStdinPrefix = "STDIN";
constexpr std::string_view kBegin = "__BeginProp__\n";
constexpr std::string_view kEnd = "\n__EndProp__\n";

// Reads the entry of one property from the front of text.
void ReadBack(std::string_view& text, const std::string& rest,
              const std::string& value) {
  Check(text.starts_with(rest + "="), "an entry's name differs", rest);
  text.remove_prefix(rest.size() + 1);
  const bool framed = value.find('\n') != std::string::npos;
  if (framed) {
    Check(text.starts_with(kBegin), "a multi-line value is not framed");
    text.remove_prefix(kBegin.size());
  }
  Check(text.starts_with(value), "an entry's value differs", value);
  text.remove_prefix(value.size());
  const std::string_view end = framed ? kEnd : "\n";
  Check(text.starts_with(end), "an entry does not end its line");
  text.remove_prefix(end.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qvefuzz::Session session;
  qvefuzz::Input input(data, size);
  qvefuzz::Properties properties;
  properties.SetPairs(input);

  qveusb_StringBuffer* buffer =
      qvefos_getStdinParameters(properties.list(), session.Log("fetchlets.os"));
  const std::string text =
      buffer != nullptr ? qveusb_StringBuffer_getBuffer(buffer) : "";
  std::string_view unread = text;
  bool any = false;
  for (const auto& [name, value] : properties.pairs()) {
    if (!std::string_view(name).starts_with(kStdinPrefix)) continue;
    any = true;
    ReadBack(unread, name.substr(kStdinPrefix.size()), value);
  }
  Check(unread.empty(), "the text holds more than its entries", text);
  Check(any == (buffer != nullptr), "a buffer without entries, or none");
  if (buffer == nullptr) return 0;
  Check(qveusb_StringBuffer_size(buffer) == static_cast<int32_t>(text.size()),
        "buffer size differs from its text");
  char* copy = qveusb_StringBuffer_toString(buffer);
  Check(copy != nullptr && text == copy, "buffer copy differs");
  qve_free0(copy, "fuzz", __LINE__);
  qveusb_StringBuffer_delete(buffer);
  return 0;
}
