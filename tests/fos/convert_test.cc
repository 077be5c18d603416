// Conversion of captured output, standard error and the exception message
// to UTF-8, against the host's real iconv-based conversion.
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "fos/qvefos_convert.h"
#include "qve/embedded.h"
#include "qve/host.h"

namespace {

using qvehost::LogLevel;
using Text = std::optional<std::string>;

constexpr const char* kLogName = "fetchlets.os";
constexpr const char* kMessageFailed =
    "Error while converting result error message from native language to "
    "UTF-8.";
const std::string kCafeLatin1 = "caf\xE9";
const std::string kCafe = "caf\xC3\xA9";
const std::string kNihonSjis = "\x93\xFA\x96\x7B";
const std::string kNihon = "\xE6\x97\xA5\xE6\x9C\xAC";

char* HostCopy(const Text& text) {
  return text.has_value() ? qve_allocpy0(text->c_str(), "test", __LINE__)
                          : nullptr;
}

Text TakeText(char* text) {
  if (text == nullptr) return std::nullopt;
  std::string copy(text);
  qve_free0(text, "test", __LINE__);
  return copy;
}

class ConvertTest : public testing::Test {
 protected:
  ~ConvertTest() override {
    qvehost::SetOsCharset("");
    qvehost::DeleteContext(context_);
  }

  struct Outcome {
    Text out, err, message;
    std::vector<std::string> trace, debug, errors;
  };

  // One call with the given properties (name, value; an absent value is not
  // set), slots and exception message (nullopt: no exception).
  Outcome Run(const std::vector<std::pair<const char*, Text>>& properties,
              const Text& out, const Text& err, const Text& message) {
    qvlnv_NVList* list = qvehost::NewPropertyList();
    for (const auto& [name, value] : properties) {
      if (value.has_value()) qvehost::SetProperty(list, name, *value);
    }
    char* out_slot = HostCopy(out);
    char* err_slot = HostCopy(err);
    qveue_Exception* exception =
        message.has_value() ? qveue_Exception_new_init(12, message->c_str())
                            : nullptr;
    qvehost::LogCapture capture;
    EXPECT_EQ(qvefos_convertOutputToUTF8(context_, list, &out_slot, &err_slot,
                                         exception, log_),
              0);
    Outcome outcome{TakeText(out_slot),
                    TakeText(err_slot),
                    std::nullopt,
                    capture.Texts(LogLevel::kTrace, kLogName),
                    capture.Texts(LogLevel::kDebug, kLogName),
                    capture.Texts(LogLevel::kError, kLogName)};
    if (exception != nullptr) {
      const char* text = qveue_Exception_getErrorMessage(exception);
      if (text != nullptr) outcome.message = text;
      qveue_Exception_delete(exception);
    }
    qvehost::DeletePropertyList(list);
    return outcome;
  }

  qvefet_Context* context_ = qvehost::NewContext();
  qveulm_LogCtx* log_ = qveulm_getLogCtx(context_->logSource, kLogName);
};

// Standard output, standard error and the exception's message (nullopt: no
// exception).
struct Texts {
  Text out, err, message;
};

struct ConvertCase {
  const char* label;
  Text need;          // "needCharsetConvert"
  Text from_charset;  // "ConvertFromCharset"
  const char* os_charset;
  bool fail_next_conversion;
  Texts given, want;
  std::vector<std::string> want_errors;
  std::vector<std::string> want_failure_lines;  // debug "cannot convert ..."
};

TEST_F(ConvertTest, ConvertsReplacesOrKeepsEachText) {
  const std::string kLatin1 = kCafeLatin1;
  // clang-format off
  const ConvertCase cases[] = {
      {"latin1 standard output through ConvertFromCharset",
       "TRUE", "ISO-8859-1", "UTF-8", false,
       {kLatin1, "\xE9t\xE9", "m\xE9"}, {kCafe, "t", "m"}, {}, {}},
      {"shift_jis standard output through ConvertFromCharset",
       "true", "shift_jis", "UTF-8", false,
       {kNihonSjis, "plain", {}}, {kNihon, "plain", {}}, {}, {}},
      {"operating system's set for all three",
       "TrUe", {}, "ISO-8859-1", false,
       {kLatin1, "\xE9", "d\xE9j\xE0"},
       {kCafe, "\xC3\xA9", "d\xC3\xA9j\xC3\xA0"}, {}, {}},
      {"unknown set: standard output from the operating system's set",
       "TRUE", "klingon", "ISO-8859-1", false,
       {kLatin1, {}, {}}, {kCafe, {}, {}},
       {"unknown charset klingon, will try to convert from  os charset\n"},
       {}},
      {"invalid bytes: output kept, error cleaned",
       "TRUE", {}, "UTF-8", false,
       {"ok\xFF", "bad\xFF", {}}, {"ok\xFF", "bad", {}}, {},
       {"cannot convert result output ok\xFF to UTF8\n"}},
      {"not asked: absent",
       {}, "ISO-8859-1", "ISO-8859-1", false,
       {kLatin1, kLatin1, kLatin1}, {kLatin1, kLatin1, kLatin1}, {}, {}},
      {"not asked: another word",
       "yes", {}, "ISO-8859-1", false,
       {kLatin1, {}, kLatin1}, {kLatin1, {}, kLatin1}, {}, {}},
      {"not asked: TRUE with a blank",
       "TRUE ", {}, "ISO-8859-1", false,
       {kLatin1, {}, {}}, {kLatin1, {}, {}}, {}, {}},
      {"failed run: null texts, message unconvertible",
       "TRUE", {}, "UTF-8", true,
       {{}, {}, "boom"}, {{}, {}, kMessageFailed}, {},
       {"cannot convert result error message boom to UTF8\n"}},
      {"standard output unconvertible, the rest converted",
       "TRUE", {}, "ISO-8859-1", true,
       {kLatin1, "\xE9", "\xE9"}, {kLatin1, "\xC3\xA9", "\xC3\xA9"}, {},
       {"cannot convert result output " + kLatin1 + " to UTF8\n"}},
      {"null texts without exception",
       "TRUE", {}, "UTF-8", false, {}, {}, {}, {}},
  };
  // clang-format on
  for (const ConvertCase& c : cases) {
    SCOPED_TRACE(c.label);
    qvehost::SetOsCharset(c.os_charset);
    if (c.fail_next_conversion) qvehost::FailNextConversion();
    Outcome outcome = Run({{"needCharsetConvert", c.need},
                           {"ConvertFromCharset", c.from_charset}},
                          c.given.out, c.given.err, c.given.message);
    EXPECT_EQ(outcome.out, c.want.out);
    EXPECT_EQ(outcome.err, c.want.err);
    EXPECT_EQ(outcome.message, c.want.message);
    EXPECT_EQ(outcome.errors, c.want_errors);
    std::vector<std::string> failures;
    for (const std::string& line : outcome.debug) {
      if (line.starts_with("cannot convert")) failures.push_back(line);
    }
    EXPECT_EQ(failures, c.want_failure_lines);
  }
}

TEST_F(ConvertTest, LogsTheChosenSets) {
  qvehost::SetOsCharset("UTF-8");
  struct LogCase {
    Text need, from_charset;
    std::vector<std::string> want_debug;
  };
  const LogCase cases[] = {
      {"TRUE",
       "Shift_JIS",
       {"needCharsetConvert = TRUE\n", "convertFromCharset = Shift_JIS\n",
        "csidlookup returns convert_from_lang_id = 17\n",
        "convert_from_lang_id is 17\n", "os_lang_id is 106\n"}},
      {"TRUE",
       "nope",
       {"needCharsetConvert = TRUE\n", "convertFromCharset = nope\n",
        "convert_from_lang_id is 106\n", "os_lang_id is 106\n"}},
      {"true",
       {},
       {"needCharsetConvert = true\n", "convertFromCharset is NULL\n",
        "convert_from_lang_id is 106\n", "os_lang_id is 106\n"}},
      {{}, "Shift_JIS", {"needCharsetConvert = (null)\n"}},
      {"FALSE", {}, {"needCharsetConvert = FALSE\n"}},
  };
  for (const LogCase& c : cases) {
    SCOPED_TRACE(c.need.value_or("(absent)"));
    Outcome outcome = Run({{"needCharsetConvert", c.need},
                           {"ConvertFromCharset", c.from_charset}},
                          "out", "err", {});
    EXPECT_EQ(outcome.debug, c.want_debug);
    EXPECT_EQ(outcome.trace,
              std::vector<std::string>{
                  "qvefos : Entering function - qvefos_convertOutputToUTF8\n"});
  }
}

}  // namespace
