// The host's character-set conversions on fuzzed texts and set pairs.
//
// Header: byte 0 the source set and byte 1 the target set, each an index
// into kSets below modulo its size plus one (the extra index passes the
// byte itself as the identifier); byte 2 flags: 1 tolerant instead of
// strict, 2 also convert a null text, 4|8 put 16384 - (1, 2 or 3) ASCII
// bytes in front of the text so that its characters straddle the host's
// scan blocks.
// Fields: the text.
//
// What must hold: a failed conversion leaves no result; unknown sets fail;
// tolerant conversions between known sets never fail; whatever is converted
// to UTF-8 is valid UTF-8; within UTF-8 or ASCII a strict conversion
// succeeds exactly when the text is valid in the set and then gives it back,
// and a tolerant one gives the text with bytes left out (all of it when
// valid); a set where every byte is a character converts to itself
// unchanged; ASCII text passes unchanged into ASCII-compatible sets; and
// what converts strictly out of UTF-8 (or Latin-1) comes back unchanged.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "fuzz_support.h"

namespace {

using qvefuzz::Check;

struct Set {
  const char* name;
  bool ascii_compatible;  // ASCII text is the same bytes in this set
  // glibc maps back what it mapped from UTF-8. Not so for Shift_JIS, which
  // reads 0x5C and 0x7E back as the yen sign and the overline.
  bool round_trip;
};

// ISO-2022 sets switch with these bytes, so text holding them is no longer
// plain text in the set.
bool HasShiftBytes(std::string_view text) {
  return text.find_first_of("\x0e\x0f\x1b") != std::string_view::npos;
}

bool SwitchesWithShiftBytes(const Set& set) {
  return std::string_view(set.name).starts_with("ISO-2022");
}

constexpr Set kSets[] = {
    {"UTF-8", true, true},        {"US-ASCII", true, true},
    {"ISO-8859-1", true, true},   {"ISO-8859-2", true, true},
    {"ISO-8859-7", true, true},   {"ISO-8859-15", true, true},
    {"KOI8-R", true, true},       {"KOI8-U", true, true},
    {"windows-1252", true, true}, {"windows-1251", true, true},
    {"windows-1255", true, true}, {"IBM037", false, true},
    {"IBM866", true, true},       {"macintosh", true, true},
    {"Shift_JIS", true, false},   {"CP932", true, true},
    {"EUC-JP", true, true},       {"ISO-2022-JP", true, true},
    {"EUC-KR", true, true},       {"ISO-2022-KR", false, true},
    {"GB2312", true, true},       {"GBK", true, true},
    {"GB18030", true, true},      {"Big5", true, true},
    {"Big5-HKSCS", true, true},   {"TIS-620", true, true},
    {"windows-1258", true, true}, {"UTF-16", false, false},
    {"UTF-16LE", false, false},   {"UTF-32BE", false, false},
    {"UCS-2", false, false},      {"no-such-set", false, false},
};
constexpr size_t kSetCount = sizeof kSets / sizeof kSets[0];

constexpr int32_t kUtf8 = QVE_CSID_UTF8;

struct Side {
  const Set* set = nullptr;  // null: a raw identifier
  int32_t id = 0;
};

Side ReadSide(uint8_t byte) {
  const size_t index = byte % (kSetCount + 1);
  if (index == kSetCount) return {nullptr, byte};
  const std::string_view name = kSets[index].name;
  return {&kSets[index],
          csidlookup(name.data(), static_cast<int32_t>(name.size()),
                     qveulx_getLanguageGlobal(nullptr))};
}

struct Outcome {
  int32_t status;
  std::optional<std::string> text;
};

Outcome Convert(int32_t from, const char* text, int32_t to, bool tolerant) {
  char* result = reinterpret_cast<char*>(&from);  // a missed store shows
  const int32_t status =
      tolerant
          ? qveulx_Convert_CharsetID_ignrerr(nullptr, from, text, to, &result)
          : qveulx_Convert_CharsetID(nullptr, from, text, to, &result);
  Outcome outcome{status, qvefuzz::Text(result)};
  if (result != nullptr) qve_free0(result, "fuzz", __LINE__);
  Check(status == 0 || !outcome.text.has_value(), "a failure left a result");
  return outcome;
}

bool IsAscii(std::string_view text) {
  for (const char c : text) {
    if (static_cast<unsigned char>(c) >= 0x80) return false;
  }
  return true;
}

bool Named(const Side& side, std::string_view name) {
  return side.set != nullptr && side.set->name == name;
}

// Conversions within one set whose outcome the text alone decides.
void CheckWithinSet(const Side& side, const std::string& text, bool tolerant,
                    const Outcome& got) {
  bool valid = false;
  if (Named(side, "UTF-8")) {
    valid = qvefuzz::IsValidUtf8(text);
  } else if (Named(side, "US-ASCII")) {
    valid = IsAscii(text);
  } else if (Named(side, "ISO-8859-1") || Named(side, "KOI8-R") ||
             Named(side, "KOI8-U")) {
    valid = true;
  } else {
    return;
  }
  Check(got.status == 0 || (!tolerant && !valid), "a valid text failed");
  if (got.status != 0) return;
  Check(valid ? got.text == text : tolerant, "an invalid text converted");
  Check(qvefuzz::IsSubsequence(*got.text, text), "bytes were added");
}

void CheckRoundTrip(const Side& from, const Side& to, const std::string& text,
                    const Outcome& there) {
  if (!to.set->round_trip || there.status != 0) return;
  const Outcome back = Convert(to.id, there.text->c_str(), from.id, false);
  Check(back.status == 0, "no way back from the set", to.set->name);
  Check(back.text == text, "round trip differs", to.set->name);
}

void CheckConversion(const Side& from, const Side& to, const std::string& text,
                     bool tolerant) {
  const Outcome got = Convert(from.id, text.c_str(), to.id, tolerant);
  if (from.set == nullptr || to.set == nullptr) return;
  const bool known = from.id != 0 && to.id != 0;
  Check(known || got.status != 0, "an unknown set converted");
  if (!known) return;
  Check(!tolerant || got.status == 0, "a tolerant conversion failed");
  if (got.status != 0) return;
  if (to.id == kUtf8) {
    Check(qvefuzz::IsValidUtf8(*got.text), "invalid UTF-8 produced");
  }
  if (from.id == to.id) CheckWithinSet(from, text, tolerant, got);
  if (Named(from, "ISO-8859-1") && to.id == kUtf8 && !tolerant) {
    CheckRoundTrip(from, to, text, got);
  }
  if (from.id != kUtf8 || tolerant || !qvefuzz::IsValidUtf8(text)) return;
  if (SwitchesWithShiftBytes(*to.set) && HasShiftBytes(text)) return;
  if (to.set->ascii_compatible && IsAscii(text)) {
    Check(got.text == text, "ASCII changed", to.set->name);
  }
  CheckRoundTrip(from, to, text, got);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qvefuzz::Session session;
  qvefuzz::Input input(data, size);
  const Side from = ReadSide(input.Byte());
  const Side to = ReadSide(input.Byte());
  const uint8_t flags = input.Byte();
  const bool tolerant = (flags & 1) != 0;
  std::string text = input.Field();
  if (const unsigned pad = (flags >> 2) & 3u; pad != 0) {
    text.insert(0, std::string(16384 - pad, 'a'));
  }
  if ((flags & 2) != 0) {
    const Outcome none = Convert(from.id, nullptr, to.id, tolerant);
    Check(none.status == 0 && !none.text.has_value(), "a null text converted");
  }
  CheckConversion(from, to, text, tolerant);
  return 0;
}
