// The conversion of a run's texts and exception message to UTF-8 on fuzzed
// texts, sets and properties.
//
// Header: byte 0 flags: 1 "needCharsetConvert" present, 2
// "ConvertFromCharset" present, 4 standard output present, 8 standard error
// present, 16 an exception, 32 "ConvertFromCharset" names kSets[byte 1]
// instead of its field; byte 1 that index; byte 2 the operating system's
// set, kSets[byte 2] (one past the end: the locale's); byte 3: 255 makes the
// next conversion fail. Allocation faults are the fault sweep's.
// Fields: needCharsetConvert, ConvertFromCharset, standard output, standard
// error, exception message.
//
// What must hold: the result is 0; without "needCharsetConvert" TRUE in any
// letter case nothing changes; otherwise every replaced text and the
// message are valid UTF-8, a text that stays is unchanged, an unknown set
// replaces nothing, and valid UTF-8 from UTF-8 comes out unchanged.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "fos/qvefos_convert.h"
#include "fuzz_support.h"

namespace {

using qvefuzz::Check;

constexpr const char* kSets[] = {
    "UTF-8",  "ISO-8859-1",   "US-ASCII", "Shift_JIS", "EUC-JP",
    "KOI8-R", "windows-1252", "GB18030",  "UTF-16",    "no-such-set",
};
constexpr size_t kSetCount = sizeof kSets / sizeof kSets[0];
constexpr int32_t kUtf8 = QVE_CSID_UTF8;
constexpr char kMessageFailed[] =
    "Error while converting result error message from native language to "
    "UTF-8.";

bool EqualsTrueIgnoringCase(const std::optional<std::string>& value) {
  if (!value.has_value() || value->size() != 4) return false;
  for (size_t i = 0; i < 4; ++i) {
    char c = (*value)[i];
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    if (c != "TRUE"[i]) return false;
  }
  return true;
}

int32_t Lookup(const std::string& name) {
  return csidlookup(name.c_str(), static_cast<int32_t>(name.size()),
                    qveulx_getLanguageGlobal(nullptr));
}

// A host-allocated text in a slot, and what it held before the call.
struct Slot {
  explicit Slot(const std::optional<std::string>& text)
      : before(text),
        held(text.has_value() ? qve_allocpy0(text->c_str(), "fuzz", __LINE__)
                              : nullptr),
        original(held) {}
  ~Slot() {
    if (held != nullptr) qve_free0(held, "fuzz", __LINE__);
  }
  Slot(const Slot&) = delete;
  Slot& operator=(const Slot&) = delete;

  bool Replaced() const { return held != original; }

  std::optional<std::string> before;
  char* held;
  char* original;
};

// A text that stays keeps its bytes; a replaced one is valid UTF-8 and,
// without a fault, what an unknown set or valid UTF-8 decides.
void CheckSlot(const Slot& slot, int32_t fromId, bool fault) {
  const std::optional<std::string> now = qvefuzz::Text(slot.held);
  if (!slot.Replaced()) {
    Check(now == slot.before, "a kept text changed");
  } else {
    Check(slot.before.has_value(), "a null text was replaced");
    Check(qvefuzz::IsValidUtf8(*now), "a converted text is not UTF-8");
  }
  if (fault || !slot.before.has_value()) return;
  if (fromId == 0) Check(!slot.Replaced(), "an unknown set converted");
  if (fromId == kUtf8 && qvefuzz::IsValidUtf8(*slot.before)) {
    Check(now == slot.before, "valid UTF-8 changed");
  }
}

void CheckMessage(qveue_Exception* exception, const std::string& before,
                  int32_t osId, bool fault) {
  const std::string message = qveue_Exception_getErrorMessage(exception);
  Check(qvefuzz::IsValidUtf8(message), "message is not UTF-8", message);
  if (fault) return;
  if (osId == 0) Check(message == kMessageFailed, "message differs", message);
  if (osId == kUtf8 && qvefuzz::IsValidUtf8(before)) {
    Check(message == before, "valid message changed", message);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qvefuzz::Session session;
  qvefuzz::Input input(data, size);
  const uint8_t flags = input.Byte();
  const std::string named = kSets[input.Byte() % kSetCount];
  const size_t os_index = input.Byte() % (kSetCount + 1);
  const uint8_t fault_code = input.Byte();
  qvehost::SetOsCharset(os_index < kSetCount ? kSets[os_index] : "");

  qvefuzz::Properties properties;
  const std::optional<std::string> need = input.FieldIf((flags & 1) != 0);
  properties.SetIf("needCharsetConvert", need);
  std::optional<std::string> from_name = input.FieldIf((flags & 2) != 0);
  if (from_name.has_value() && (flags & 32) != 0) from_name = named;
  properties.SetIf("ConvertFromCharset", from_name);
  Slot out(input.FieldIf((flags & 4) != 0));
  Slot err(input.FieldIf((flags & 8) != 0));
  const std::string message = input.Field();
  qveue_Exception* exception =
      (flags & 16) != 0 ? qveue_Exception_new_init(12, message.c_str())
                        : nullptr;

  const int32_t osId = qveulx_get_OS_LangID(nullptr);
  const int32_t named_id = from_name.has_value() ? Lookup(*from_name) : 0;
  const int32_t fromId = named_id != 0 ? named_id : osId;
  const bool fault = fault_code == 255;
  if (fault) qvehost::FailNextConversion();
  const int32_t status = qvefos_convertOutputToUTF8(
      session.context(), properties.list(), &out.held, &err.held, exception,
      session.Log("fetchlets.os"));
  qvehost::ResetFaults();

  Check(status == 0, "conversion reported a failure");
  if (!EqualsTrueIgnoringCase(need)) {
    Check(!out.Replaced() && !err.Replaced(), "converted without the flag");
    if (exception != nullptr) {
      Check(qveue_Exception_getErrorMessage(exception) == message,
            "message changed without the flag");
    }
  } else {
    CheckSlot(out, fromId, fault);
    CheckSlot(err, osId, fault);
    if (exception != nullptr) CheckMessage(exception, message, osId, fault);
  }
  if (exception != nullptr) qveue_Exception_delete(exception);
  return 0;
}
