// The national-language family: identifiers, strict and tolerant
// conversion, the operating system's set and the conversion fault switch.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "qve/embedded.h"
#include "qve/host.h"

namespace {

constexpr int32_t kAscii = 3;
constexpr int32_t kLatin1 = 4;
constexpr int32_t kShiftJis = 17;
constexpr int32_t kEucJp = 18;
constexpr int32_t kUtf8 = 106;
constexpr int32_t kLatin9 = 111;
constexpr int32_t kCp1258 = 2258;

using ConvertFn = int32_t (*)(qveulx_LangHandle*, int32_t, const char*, int32_t,
                              char**);
constexpr ConvertFn kStrict = qveulx_Convert_CharsetID;
constexpr ConvertFn kTolerant = qveulx_Convert_CharsetID_ignrerr;

// The converted text, or nullopt when the conversion failed (after checking
// that the slot was cleared).
std::optional<std::string> Convert(ConvertFn convert, int32_t from,
                                   const std::string& text, int32_t to) {
  static char sentinel;
  char* out = &sentinel;
  if (convert(nullptr, from, text.c_str(), to, &out) != 0) {
    EXPECT_EQ(out, nullptr);
    return std::nullopt;
  }
  if (out == nullptr) {
    ADD_FAILURE() << "success without a text";
    return std::nullopt;
  }
  std::string converted(out);
  qve_free0(out, "test", __LINE__);
  return converted;
}

TEST(NlsTest, CsidLookupTakesNamesAndAliasesInAnyCaseUpToLength) {
  const struct {
    std::string_view name;
    int32_t length;  // -1: the whole name
    int32_t want;
  } cases[] = {
      {"UTF-8", -1, kUtf8},    {"utf8", -1, kUtf8},          {"ISO_8859-1:1987", -1, kLatin1},
      {"LATIN1", -1, kLatin1}, {"ms_kanji", -1, kShiftJis},  {"eucjp", -1, kEucJp},
      {"cp1252", -1, 2252},    {"utf-16le", -1, 1014},       {"UTF-8 and more", 5, kUtf8},
      {"UTF-8", 3, 0},         {"klingon", -1, 0},           {"UTF-8", 0, 0},
      {"UTF-8", -4, 0},
  };
  for (const auto& c : cases) {
    const int32_t length =
        c.length == -1 ? static_cast<int32_t>(c.name.size()) : c.length;
    SCOPED_TRACE(testing::Message() << c.name << " length " << length);
    EXPECT_EQ(csidlookup(c.name.data(), length, qveulx_getLanguageGlobal(nullptr)),
              c.want);
  }
  EXPECT_EQ(csidlookup(nullptr, 5, nullptr), 0);
}

TEST(NlsTest, StrictFailsOnWhatTolerantDrops) {
  const std::string kNihon = "\xE6\x97\xA5\xE6\x9C\xAC";
  const std::optional<std::string> fails;
  const struct {
    const char* label;
    int32_t from;
    int32_t to;
    std::string input;
    std::optional<std::string> strict;
    std::optional<std::string> tolerant;
  } cases[] = {
      {"empty", kUtf8, kUtf8, "", "", ""},
      {"ascii to itself", kAscii, kAscii, "a\xC3\xA9", fails, "a"},
      {"latin1 to itself", kLatin1, kLatin1, "caf\xE9\x80", "caf\xE9\x80", "caf\xE9\x80"},
      {"latin1", kLatin1, kUtf8, "caf\xE9", "caf\xC3\xA9", "caf\xC3\xA9"},
      {"utf-8 to latin1", kUtf8, kLatin1, "caf\xC3\xA9", "caf\xE9", "caf\xE9"},
      {"no latin1 euro", kUtf8, kLatin1, "a\xE2\x82\xACz", fails, "az"},
      {"shift_jis", kShiftJis, kUtf8, "\x93\xFA\x96\x7B", kNihon, kNihon},
      {"shift_jis unassigned", kShiftJis, kUtf8, "ab\x85@cd", fails, "ab@cd"},
      {"shift_jis truncated", kShiftJis, kUtf8, "ab\x81", fails, "ab"},
      {"shift_jis to itself", kShiftJis, kShiftJis, "\x93\xFA\xA0", fails, "\x93\xFA"},
      // The decoder holds a letter back for a combining mark; latin1 lacks
      // the letter, which shows only when the next byte or the end arrives.
      {"held back at the end", kCp1258, kLatin1, "ab\xC3", fails, "ab"},
      {"held back inside", kCp1258, kLatin1, "\xC3xyz", fails, "xyz"},
      {"held back and combined", kCp1258, kLatin1, "A\xCCz", "\xC0z", "\xC0z"},
      {"unknown source", 0, kUtf8, "abc", fails, fails},
      {"unknown target", kUtf8, 9999, "abc", fails, fails},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    EXPECT_EQ(Convert(kStrict, c.from, c.input, c.to), c.strict);
    EXPECT_EQ(Convert(kTolerant, c.from, c.input, c.to), c.tolerant);
  }
}

// Every ill-formed kind of sequence (lone continuation, overlong forms,
// surrogate, above U+10FFFF, bad lead bytes, cut sequences) and well-formed
// ones at the edges of each range, at offsets around the word-at-a-time
// ASCII scan and the 16 KiB blocks in which a text is scanned and copied.
// Tolerant conversion drops each byte of a bad sequence.
TEST(NlsTest, Utf8SequencesAreJudgedAtAnyOffset) {
  const std::string kPlain(17000, 'a');
  const std::string bad[] = {"\x80", "\xC1\xBF", "\xE0\x80\xAF", "\xF0\x8F\xBF\xBF",
                             "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xF5\x80\x80\x80",
                             "\xE2\x82", "\xFF"};
  const std::string good[] = {"\xC2\x80", "\xDF\xBF", "\xE0\xA0\x80", "\xED\x9F\xBF",
                              "\xEE\x80\x80", "\xEF\xBF\xBF", "\xF0\x90\x80\x80",
                              "\xF4\x8F\xBF\xBF"};
  for (size_t offset : {0, 1, 7, 8, 15, 16, 31, 32, 33, 63, 64, 100, 16380,
                        16381, 16382, 16383, 16384, 16385, 17000}) {
    for (const std::string& sequence : bad) {
      std::string text = kPlain;
      text.insert(offset, sequence);
      SCOPED_TRACE(testing::Message() << "offset " << offset << " bad " << testing::PrintToString(sequence));
      EXPECT_EQ(Convert(kStrict, kUtf8, text, kUtf8), std::nullopt);
      EXPECT_EQ(Convert(kTolerant, kUtf8, text, kUtf8), kPlain);
    }
    for (const std::string& sequence : good) {
      std::string text = kPlain;
      text.insert(offset, sequence);
      SCOPED_TRACE(testing::Message() << "offset " << offset << " good " << testing::PrintToString(sequence));
      EXPECT_EQ(Convert(kStrict, kUtf8, text, kUtf8), text);
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
    EXPECT_EQ(Convert(convert, kUtf8, "abc", kUtf8), std::nullopt);
    EXPECT_EQ(Convert(convert, kUtf8, "abc", kUtf8), "abc");
  }
}

// The setting wins; else LC_ALL, LC_CTYPE and LANG in that order, the
// first that is set and not empty. The variables are put back afterwards.
TEST(NlsTest, OsCharsetIsTheSettingElseTheLocaleVariablesInPrecedence) {
  const char* const kVariables[] = {"LC_ALL", "LC_CTYPE", "LANG"};
  std::optional<std::string> saved[3];
  auto put = [&](size_t i, const std::optional<std::string>& value) {
    value ? setenv(kVariables[i], value->c_str(), 1) : unsetenv(kVariables[i]);
  };
  for (size_t i = 0; i < 3; ++i) {
    if (const char* value = getenv(kVariables[i])) saved[i] = value;
  }
  const std::optional<std::string> unset;
  const struct {
    std::string setting;
    std::optional<std::string> variables[3];
    int32_t want;
  } cases[] = {
      {"", {unset, unset, unset}, kUtf8},
      {"", {unset, unset, "POSIX"}, kUtf8},
      {"", {unset, unset, "de_DE.ISO-8859-15@euro"}, kLatin9},
      {"", {unset, "ja_JP.eucJP", "en_US.ISO-8859-1"}, kEucJp},
      {"", {"ja_JP.SJIS", "ja_JP.eucJP", "en_US.ISO-8859-1"}, kShiftJis},
      {"", {"C", "ja_JP.eucJP", "en_US.ISO-8859-1"}, kUtf8},
      {"", {"", "", "en_US.ISO-8859-1"}, kLatin1},
      {"Shift_JIS", {"", "", "en_US.ISO-8859-1"}, kShiftJis},
      {"no-such-set", {"", "", "en_US.ISO-8859-1"}, 0},
      {"", {"", "", "en_US.ISO-8859-1"}, kLatin1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.setting << " " << c.variables[0].value_or("-") << " "
                                    << c.variables[1].value_or("-") << " "
                                    << c.variables[2].value_or("-"));
    for (size_t i = 0; i < 3; ++i) put(i, c.variables[i]);
    qvehost::SetOsCharset(c.setting);
    EXPECT_EQ(qveulx_get_OS_LangID(nullptr), c.want);
  }
  qvehost::SetOsCharset("");
  for (size_t i = 0; i < 3; ++i) put(i, saved[i]);
}

}  // namespace
