// The national-language family: identifiers, strict and tolerant
// conversion, the operating system's set and the conversion fault switch.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>

#include "qve/embedded.h"
#include "qve/host.h"

namespace {

constexpr int32_t kAscii = 3, kLatin1 = 4, kShiftJis = 17, kEucJp = 18,
                  kUtf8 = 106, kLatin9 = 111, kCp1258 = 2258;

using ConvertFn = int32_t (*)(qveulx_LangHandle*, int32_t, const char*, int32_t,
                              char**);
constexpr ConvertFn kStrict = qveulx_Convert_CharsetID;
constexpr ConvertFn kTolerant = qveulx_Convert_CharsetID_ignrerr;
const std::optional<std::string> kFails;

// The converted text, or nullopt when the conversion failed (after checking
// that the slot was cleared).
std::optional<std::string> Convert(ConvertFn convert, int32_t from,
                                   const std::string& text, int32_t to) {
  static char sentinel;
  char* out = &sentinel;
  if (convert(nullptr, from, text.c_str(), to, &out) != 0) {
    EXPECT_EQ(out, nullptr);
    return kFails;
  }
  if (out == nullptr) return "(success without a text)";
  std::string converted(out);
  qve_free0(out, "test", __LINE__);
  return converted;
}

// Names and aliases in any case, and MIBenums, up to the length given.
TEST(NlsTest, CsidLookupTakesNamesAndAliasesInAnyCaseUpToLength) {
  // clang-format off
  const std::tuple<std::string_view, int32_t, int32_t> cases[] = {
      {"UTF-8", 5, kUtf8}, {"utf8", 4, kUtf8}, {"ISO_8859-1:1987", 15, kLatin1},
      {"LATIN1", 6, kLatin1}, {"ms_kanji", 8, kShiftJis}, {"eucjp", 5, kEucJp},
      {"cp1252", 6, 2252}, {"utf-16le", 8, 1014}, {"UTF-8 and more", 5, kUtf8},
      {"UTF-8", 3, 0}, {"klingon", 7, 0}, {"UTF-8", 0, 0}, {"UTF-8", -4, 0}};
  // clang-format on
  for (const auto& [name, length, want] : cases) {
    EXPECT_EQ(
        csidlookup(name.data(), length, qveulx_getLanguageGlobal(nullptr)),
        want)
        << name << " length " << length;
  }
  EXPECT_EQ(csidlookup(nullptr, 5, nullptr), 0);
}

TEST(NlsTest, StrictFailsOnWhatTolerantDrops) {
  const std::string kNihon = "\xE6\x97\xA5\xE6\x9C\xAC";
  // clang-format off
  const struct {
    int32_t from, to;
    std::string input;
    std::optional<std::string> strict, tolerant;
  } cases[] = {
      {kUtf8, kUtf8, "", "", ""},
      {kAscii, kAscii, "a\xC3\xA9", kFails, "a"},
      {kLatin1, kLatin1, "caf\xE9\x80", "caf\xE9\x80", "caf\xE9\x80"},
      {kUtf8, kLatin1, "caf\xC3\xA9", "caf\xE9", "caf\xE9"},
      {kUtf8, kLatin1, "a\xE2\x82\xACz", kFails, "az"},  // no euro
      {kShiftJis, kUtf8, "\x93\xFA\x96\x7B", kNihon, kNihon},
      {kShiftJis, kUtf8, "ab\x85@cd", kFails, "ab@cd"},  // unassigned
      {kShiftJis, kUtf8, "ab\x81", kFails, "ab"},  // cut short
      {kShiftJis, kShiftJis, "\x93\xFA\xA0", kFails, "\x93\xFA"},
      // The decoder holds a letter back for a combining mark; latin1 lacks
      // the letter, which shows only when the next byte or the end arrives.
      {kCp1258, kLatin1, "ab\xC3", kFails, "ab"},
      {kCp1258, kLatin1, "\xC3xyz", kFails, "xyz"},
      {kCp1258, kLatin1, "A\xCCz", "\xC0z", "\xC0z"},
      {0, kUtf8, "abc", kFails, kFails},
      {kUtf8, 9999, "abc", kFails, kFails},
  };
  // clang-format on
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.from << " to " << c.to << " "
                                    << testing::PrintToString(c.input));
    EXPECT_EQ(Convert(kStrict, c.from, c.input, c.to), c.strict);
    EXPECT_EQ(Convert(kTolerant, c.from, c.input, c.to), c.tolerant);
  }
}

// Every ill-formed kind of sequence (lone continuation, overlong forms,
// surrogate, above U+10FFFF, bad lead bytes, cut sequences), then
// well-formed ones at the edges of each range, at offsets around the
// word-at-a-time ASCII scan and the 16 KiB blocks a text is scanned in.
// Tolerant conversion drops each byte of a bad sequence.
TEST(NlsTest, Utf8SequencesAreJudgedAtAnyOffset) {
  const std::string kPlain(17000, 'a');
  // clang-format off
  const std::string sequences[] = {
      "\x80", "\xC1\xBF", "\xE0\x80\xAF", "\xF0\x8F\xBF\xBF", "\xED\xA0\x80",
      "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xE2\x82", "\xFF",
      "\xC2\x80", "\xDF\xBF", "\xE0\xA0\x80", "\xED\x9F\xBF", "\xEE\x80\x80",
      "\xEF\xBF\xBF", "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF"};
  // clang-format on
  constexpr size_t kBad = 9;  // the first ones
  for (size_t offset : {0, 1, 7, 8, 15, 16, 31, 32, 33, 63, 64, 100, 16380,
                        16381, 16382, 16383, 16384, 16385, 17000}) {
    for (size_t i = 0; i < std::size(sequences); ++i) {
      std::string text = kPlain;
      text.insert(offset, sequences[i]);
      SCOPED_TRACE(testing::Message() << "offset " << offset << " "
                                      << testing::PrintToString(sequences[i]));
      const bool bad = i < kBad;
      EXPECT_EQ(Convert(kStrict, kUtf8, text, kUtf8), bad ? kFails : text);
      EXPECT_EQ(Convert(kTolerant, kUtf8, text, kUtf8), bad ? kPlain : text);
    }
  }
}

// A null text is no conversion: null and 0, and the switch stays armed for
// the next real one, which alone fails.
TEST(NlsTest, FailNextConversionFailsOnlyTheNextTextConverted) {
  for (ConvertFn convert : {kStrict, kTolerant}) {
    qvehost::FailNextConversion();
    static char sentinel;
    char* out = &sentinel;
    EXPECT_EQ(convert(nullptr, kLatin1, nullptr, kUtf8, &out), 0);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(Convert(convert, kUtf8, "abc", kUtf8), kFails);
    EXPECT_EQ(Convert(convert, kUtf8, "abc", kUtf8), "abc");
  }
}

// The setting wins; else LC_ALL, LC_CTYPE and LANG in that order, the
// first that is set and not empty (C/POSIX: UTF-8).
TEST(NlsTest, OsCharsetIsTheSettingElseTheLocaleVariablesInPrecedence) {
  const char* const kNames[] = {"LC_ALL", "LC_CTYPE", "LANG"};
  std::optional<std::string> saved[3];
  auto put = [&](size_t i, const char* value) {
    value != nullptr ? setenv(kNames[i], value, 1) : unsetenv(kNames[i]);
  };
  for (size_t i = 0; i < 3; ++i) {
    if (const char* value = getenv(kNames[i])) saved[i] = value;
  }
  const char* const kLatin1Lang = "en_US.ISO-8859-1";
  // clang-format off
  const struct {
    const char* setting;
    const char* variables[3];  // null: unset
    int32_t want;
  } cases[] = {
      {"", {nullptr, nullptr, nullptr}, kUtf8},
      {"", {nullptr, nullptr, "de_DE.ISO-8859-15@euro"}, kLatin9},
      {"", {nullptr, "ja_JP.eucJP", kLatin1Lang}, kEucJp},
      {"", {"ja_JP.SJIS", "ja_JP.eucJP", kLatin1Lang}, kShiftJis},
      {"", {"C", "ja_JP.eucJP", kLatin1Lang}, kUtf8},
      {"", {"", "", kLatin1Lang}, kLatin1},
      {"Shift_JIS", {"", "", kLatin1Lang}, kShiftJis},
      {"no-such-set", {"", "", kLatin1Lang}, 0},
      {"", {"", "", kLatin1Lang}, kLatin1},
  };
  // clang-format on
  for (size_t n = 0; n < std::size(cases); ++n) {
    for (size_t i = 0; i < 3; ++i) put(i, cases[n].variables[i]);
    qvehost::SetOsCharset(cases[n].setting);
    EXPECT_EQ(qveulx_get_OS_LangID(nullptr), cases[n].want) << "case " << n;
  }
  qvehost::SetOsCharset("");
  for (size_t i = 0; i < 3; ++i) put(i, saved[i] ? saved[i]->c_str() : nullptr);
}

}  // namespace
