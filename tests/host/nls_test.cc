// The national-language family: identifiers, strict and tolerant
// conversion, the operating system's set and the conversion fault switch.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdint>
#include <optional>
#include <random>
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

struct LookupCase {
  std::string_view name;
  std::optional<int32_t> length;  // absent: the whole name
  int32_t want;
};

TEST(NlsCsidLookup, NamesAliasesLetterCaseAndLength) {
  const LookupCase cases[] = {
      {"UTF-8", {}, kUtf8},
      {"utf-8", {}, kUtf8},
      {"Utf8", {}, kUtf8},
      {"ISO-8859-1", {}, kLatin1},
      {"latin1", {}, kLatin1},
      {"ISO_8859-1:1987", {}, kLatin1},
      {"Shift_JIS", {}, kShiftJis},
      {"SJIS", {}, kShiftJis},
      {"MS_Kanji", {}, kShiftJis},
      {"eucjp", {}, kEucJp},
      {"ANSI_X3.4-1968", {}, kAscii},
      {"us-ascii", {}, kAscii},
      {"windows-1252", {}, 2252},
      {"CP1252", {}, 2252},
      {"ISO-8859-15", {}, kLatin9},
      {"latin-9", {}, kLatin9},
      {"koi8-r", {}, 2084},
      {"GB18030", {}, 114},
      {"gbk", {}, 113},
      {"EUC-CN", {}, 2025},
      {"big5", {}, 2026},
      {"EUC-KR", {}, 38},
      {"UTF-16", {}, 1015},
      {"utf-16le", {}, 1014},
      {"ISO-8859-9", {}, 12},
      {"latin2", {}, 5},
      {"UTF-8 and more", 5, kUtf8},
      {"UTF-8", 3, 0},
      {"latin1", 5, 0},
      {"", 0, 0},
      {"klingon", {}, 0},
      {"UTF-8", 0, 0},
      {"UTF-8", -4, 0},
  };
  for (const LookupCase& c : cases) {
    int32_t length = c.length.value_or(static_cast<int32_t>(c.name.size()));
    SCOPED_TRACE(testing::Message() << c.name << " length " << length);
    EXPECT_EQ(
        csidlookup(c.name.data(), length, qveulx_getLanguageGlobal(nullptr)),
        c.want);
  }
  EXPECT_EQ(csidlookup(nullptr, 5, nullptr), 0);
}

struct ConversionCase {
  const char* label;
  int32_t from;
  int32_t to;
  std::string input;
  std::optional<std::string> strict;    // nullopt: fails
  std::optional<std::string> tolerant;  // nullopt: fails
};

TEST(NlsConvert, StrictAndTolerant) {
  const std::string kNihon = "\xE6\x97\xA5\xE6\x9C\xAC";
  const std::string kBoundaries =
      "\xC2\x80\xDF\xBF\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF"
      "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF";
  const ConversionCase cases[] = {
      {"ascii", kUtf8, kUtf8, "plain text", "plain text", "plain text"},
      {"empty", kUtf8, kUtf8, "", "", ""},
      {"code point boundaries", kUtf8, kUtf8, kBoundaries, kBoundaries,
       kBoundaries},
      {"lone continuation", kUtf8, kUtf8, "a\x80z", {}, "az"},
      {"overlong two bytes", kUtf8, kUtf8, "a\xC1\xBFz", {}, "az"},
      {"overlong three bytes", kUtf8, kUtf8, "\xE0\x80\xAF", {}, ""},
      {"overlong four bytes", kUtf8, kUtf8, "\xF0\x8F\xBF\xBF", {}, ""},
      {"surrogate", kUtf8, kUtf8, "x\xED\xA0\x80", {}, "x"},
      {"above U+10FFFF", kUtf8, kUtf8, "\xF4\x90\x80\x80", {}, ""},
      {"lead F5", kUtf8, kUtf8, "\xF5\x80\x80\x80z", {}, "z"},
      {"byte FF", kUtf8, kUtf8, "\xFF", {}, ""},
      {"truncated at the end", kUtf8, kUtf8, "ok\xE2\x82", {}, "ok"},
      {"truncated inside", kUtf8, kUtf8, "\xE2\x82x", {}, "x"},
      {"latin1", kLatin1, kUtf8, "caf\xE9", "caf\xC3\xA9", "caf\xC3\xA9"},
      {"latin1 to itself", kLatin1, kLatin1, "caf\xE9\x80", "caf\xE9\x80",
       "caf\xE9\x80"},
      {"shift_jis", kShiftJis, kUtf8, "\x93\xFA\x96\x7B", kNihon, kNihon},
      {"shift_jis unassigned", kShiftJis, kUtf8, "ab\x85@cd", {}, "ab@cd"},
      {"shift_jis truncated", kShiftJis, kUtf8, "ab\x81", {}, "ab"},
      {"sjis to itself", kShiftJis, kShiftJis, "\x93\xFA\xA0", {}, "\x93\xFA"},
      {"no latin1 euro", kUtf8, kLatin1, "a\xE2\x82\xACz", {}, "az"},
      {"utf-8 to latin1", kUtf8, kLatin1, "caf\xC3\xA9", "caf\xE9", "caf\xE9"},
      {"ascii to itself", kAscii, kAscii, "a\xC3\xA9", {}, "a"},
      {"unknown source", 0, kUtf8, "abc", {}, {}},
      {"unknown target", kUtf8, 9999, "abc", {}, {}},
  };
  for (const ConversionCase& c : cases) {
    SCOPED_TRACE(c.label);
    EXPECT_EQ(Convert(kStrict, c.from, c.input, c.to), c.strict);
    EXPECT_EQ(Convert(kTolerant, c.from, c.input, c.to), c.tolerant);
  }
}

// Sequences at offsets around the word-at-a-time ASCII scan and around the
// 16 KiB blocks in which a text is scanned and copied.
TEST(NlsConvert, Utf8SequencesJudgedAtAnyOffset) {
  const std::string kPlain(17000, 'a');
  const std::string bad[] = {"\x80",         "\xC0\xAF",
                             "\xED\xA0\x80", "\xF4\x90\x80\x80",
                             "\xE2\x82",     "\xFF"};
  const std::string good[] = {"\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x98\x80"};
  for (size_t offset : {0, 1, 7, 8, 15, 16, 31, 32, 33, 63, 64, 100, 16380,
                        16381, 16382, 16383, 16384, 16385, 17000}) {
    for (const std::string& sequence : bad) {
      std::string text = kPlain;
      text.insert(offset, sequence);
      SCOPED_TRACE(testing::Message()
                   << "offset " << offset << " bad " << sequence.size());
      EXPECT_EQ(Convert(kStrict, kUtf8, text, kUtf8), std::nullopt);
      EXPECT_EQ(Convert(kTolerant, kUtf8, text, kUtf8), kPlain);
    }
    for (const std::string& sequence : good) {
      std::string text = kPlain;
      text.insert(offset, sequence);
      SCOPED_TRACE(testing::Message()
                   << "offset " << offset << " good " << sequence.size());
      EXPECT_EQ(Convert(kStrict, kUtf8, text, kUtf8), text);
    }
  }
}

// Whatever the bytes: strict succeeds exactly when the tolerant cleaning
// changes nothing, and a cleaned text always passes strictly.
TEST(NlsConvert, StrictAndTolerantAgreeOnRandomBytes) {
  const unsigned char alphabet[] = {'a',  0x7F, 0x80, 0x8F, 0x90, 0x9F,
                                    0xA0, 0xBF, 0xC0, 0xC2, 0xDF, 0xE0,
                                    0xED, 0xEF, 0xF0, 0xF4, 0xF5, 0xFF};
  std::mt19937 random(20240611);
  std::uniform_int_distribution<size_t> pick(0, sizeof alphabet - 1);
  std::uniform_int_distribution<size_t> length(0, 48);
  for (int round = 0; round < 3000; ++round) {
    std::string text(length(random), 'a');
    for (char& c : text) c = static_cast<char>(alphabet[pick(random)]);
    std::optional<std::string> cleaned = Convert(kTolerant, kUtf8, text, kUtf8);
    ASSERT_TRUE(cleaned.has_value());
    std::optional<std::string> strict = Convert(kStrict, kUtf8, text, kUtf8);
    ASSERT_EQ(strict.has_value(), *cleaned == text)
        << testing::PrintToString(text);
    ASSERT_EQ(Convert(kStrict, kUtf8, *cleaned, kUtf8), cleaned);
  }
}

TEST(NlsConvert, NullTextGivesNullAndZero) {
  for (ConvertFn convert : {kStrict, kTolerant}) {
    for (int32_t from : {kUtf8, kLatin1, kShiftJis}) {
      static char sentinel;
      char* out = &sentinel;
      EXPECT_EQ(convert(nullptr, from, nullptr, kUtf8, &out), 0);
      EXPECT_EQ(out, nullptr);
    }
  }
}

TEST(NlsConvert, ConvertedTextIsAHostBlock) {
  for (int32_t from : {kUtf8, kLatin1}) {
    char* out = nullptr;
    ASSERT_EQ(qveulx_Convert_CharsetID(nullptr, from, "text", kUtf8, &out), 0);
    EXPECT_EQ(qvehost::LiveBlocks("host").size(), 1u);
    qve_free0(out, "test", __LINE__);
  }
}

TEST(NlsFault, FailNextConversionFailsOneConversionWithText) {
  for (ConvertFn convert : {kStrict, kTolerant}) {
    qvehost::FailNextConversion();
    char* out = nullptr;
    // A null text converts nothing and leaves the switch armed.
    EXPECT_EQ(convert(nullptr, kUtf8, nullptr, kUtf8, &out), 0);
    EXPECT_EQ(Convert(convert, kUtf8, "abc", kUtf8), std::nullopt);
    EXPECT_EQ(Convert(convert, kUtf8, "abc", kUtf8), "abc");
  }
}

class NlsOsCharset : public testing::Test {
 protected:
  static constexpr const char* kVariables[] = {"LC_ALL", "LC_CTYPE", "LANG"};

  NlsOsCharset() {
    for (size_t i = 0; i < 3; ++i) {
      const char* value = getenv(kVariables[i]);
      if (value != nullptr) saved_[i] = value;
    }
  }
  ~NlsOsCharset() override {
    qvehost::SetOsCharset("");
    for (size_t i = 0; i < 3; ++i) Put(kVariables[i], saved_[i]);
  }

  static void Put(const char* name, const std::optional<std::string>& value) {
    if (value.has_value()) {
      setenv(name, value->c_str(), 1);
    } else {
      unsetenv(name);
    }
  }

  std::optional<std::string> saved_[3];
};

struct LocaleCase {
  std::optional<std::string> lc_all, lc_ctype, lang;
  int32_t want;
};

TEST_F(NlsOsCharset, FromLocaleVariablesInPrecedence) {
  const std::optional<std::string> unset;
  const LocaleCase cases[] = {
      {unset, unset, unset, kUtf8},
      {unset, unset, "C", kUtf8},
      {unset, unset, "POSIX", kUtf8},
      {unset, unset, "C.UTF-8", kUtf8},
      {unset, unset, "en_US.ISO-8859-1", kLatin1},
      {unset, unset, "de_DE.ISO-8859-15@euro", kLatin9},
      {unset, "ja_JP.eucJP", "en_US.ISO-8859-1", kEucJp},
      {"ja_JP.SJIS", "ja_JP.eucJP", "en_US.ISO-8859-1", kShiftJis},
      {"C", "ja_JP.eucJP", "en_US.ISO-8859-1", kUtf8},
      {"", "", "en_US.ISO-8859-1", kLatin1},
  };
  for (const LocaleCase& c : cases) {
    SCOPED_TRACE(testing::Message()
                 << c.lc_all.value_or("-") << " " << c.lc_ctype.value_or("-")
                 << " " << c.lang.value_or("-"));
    Put("LC_ALL", c.lc_all);
    Put("LC_CTYPE", c.lc_ctype);
    Put("LANG", c.lang);
    EXPECT_EQ(qveulx_get_OS_LangID(nullptr), c.want);
  }
}

TEST_F(NlsOsCharset, SettingWinsOverLocaleUntilCleared) {
  unsetenv("LC_ALL");
  unsetenv("LC_CTYPE");
  setenv("LANG", "en_US.ISO-8859-1", 1);
  const std::pair<std::string, int32_t> steps[] = {{"Shift_JIS", kShiftJis},
                                                   {"utf8", kUtf8},
                                                   {"", kLatin1},
                                                   {"no-such-set", 0},
                                                   {"", kLatin1}};
  for (const auto& [setting, want] : steps) {
    SCOPED_TRACE(setting);
    qvehost::SetOsCharset(setting);
    EXPECT_EQ(qveulx_get_OS_LangID(nullptr), want);
  }
  EXPECT_EQ(qveulx_get_UTF8_LangID(nullptr), kUtf8);
}

}  // namespace
