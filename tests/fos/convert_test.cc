// Conversion of captured output, standard error and the exception message
// to UTF-8, against the host's real iconv-based conversion.
#include <gtest/gtest.h>

#include "fos/qvefos_convert.h"
#include "common/run_support.h"

namespace qvetest {
namespace {

using qvehost::LogLevel;

const std::string kLatin1 = "caf\xE9";
const std::string kCafe = "caf\xC3\xA9";

// Standard output, standard error and the exception's message (nullopt: no
// exception).
using Converted = std::tuple<Text, Text, Text>;

class ConvertTest : public PluginTest {
 protected:
  void TearDown() override { qvehost::SetOsCharset(""); }

  // One call; an absent property value is not set.
  Converted Convert(const Text& need, const Text& from,
                    const Converted& given) {
    Props props;
    if (need) props.emplace_back("needCharsetConvert", *need);
    if (from) props.emplace_back("ConvertFromCharset", *from);
    const auto list = NewList(props);
    auto copy = [](const Text& t) {
      return t ? qve_allocpy0(t->c_str(), "tests", __LINE__) : nullptr;
    };
    char* out = copy(std::get<0>(given));
    char* err = copy(std::get<1>(given));
    const Text& message = std::get<2>(given);
    qveue_Exception* exception =
        message ? qveue_Exception_new_init(12, message->c_str()) : nullptr;
    EXPECT_EQ(qvefos_convertOutputToUTF8(context_, list.get(), &out, &err,
                                         exception, log_),
              0);
    Converted now{TakeText(out), TakeText(err), std::nullopt};
    if (exception != nullptr) {
      std::get<2>(now) = qveue_Exception_getErrorMessage(exception);
      qveue_Exception_delete(exception);
    }
    return now;
  }

  // The error lines, then the debug lines about a failed conversion.
  Strings Problems() const {
    Strings lines = Logged(LogLevel::kError);
    for (const std::string& line : Logged(LogLevel::kDebug)) {
      if (line.starts_with("cannot convert")) lines.push_back(line);
    }
    return lines;
  }

  qveulm_LogCtx* log_ = qveulm_getLogCtx(context_->logSource, "fetchlets.os");
};

TEST_F(ConvertTest, ConvertsReplacesOrKeepsEachText) {
  // clang-format off
  const struct {
    Text need, from;
    const char* osCharset;
    bool failNext;
    Converted given, want;
    Strings problems;
  } cases[] = {
      // Standard output from ConvertFromCharset, the rest from the system's.
      {"TRUE", "ISO-8859-1", "UTF-8", false, {kLatin1, "\xE9t\xE9", "m\xE9"},
       {kCafe, "t", "m"}, {}},
      {"TrUe", {}, "ISO-8859-1", false, {kLatin1, "\xE9", "d\xE9j\xE0"},
       {kCafe, "\xC3\xA9", "d\xC3\xA9j\xC3\xA0"}, {}},
      {"TRUE", "klingon", "ISO-8859-1", false, {kLatin1, {}, {}},
       {kCafe, {}, {}},
       {"unknown charset klingon, will try to convert from  os charset\n"}},
      // Invalid bytes: standard output is kept, standard error cleaned.
      {"TRUE", {}, "UTF-8", false, {"ok\xFF", "bad\xFF", {}},
       {"ok\xFF", "bad", {}},
       {"cannot convert result output ok\xFF to UTF8\n"}},
      // Not asked for.
      {"TRUE ", {}, "ISO-8859-1", false, {kLatin1, {}, kLatin1},
       {kLatin1, {}, kLatin1}, {}},
      // A failed conversion keeps the output but replaces the message.
      {"TRUE", {}, "ISO-8859-1", true, {kLatin1, "\xE9", "\xE9"},
       {kLatin1, "\xC3\xA9", "\xC3\xA9"},
       {"cannot convert result output " + kLatin1 + " to UTF8\n"}},
      {"TRUE", {}, "UTF-8", true, {{}, {}, "boom"},
       {{}, {}, "Error while converting result error message from native "
                "language to UTF-8."},
       {"cannot convert result error message boom to UTF8\n"}},
  };
  // clang-format on
  for (const auto& c : cases) {
    SCOPED_TRACE(c.need.value_or("(absent)") + " " + c.osCharset);
    qvehost::SetOsCharset(c.osCharset);
    if (c.failNext) qvehost::FailNextConversion();
    capture_.Clear();
    EXPECT_EQ(Convert(c.need, c.from, c.given), c.want);
    EXPECT_EQ(Problems(), c.problems);
  }
}

TEST_F(ConvertTest, LogsTheChosenSets) {
  qvehost::SetOsCharset("UTF-8");
  Convert("TRUE", "Shift_JIS", {"out", "err", {}});
  EXPECT_EQ(Logged(LogLevel::kDebug),
            (Strings{"needCharsetConvert = TRUE\n",
                     "convertFromCharset = Shift_JIS\n",
                     "csidlookup returns convert_from_lang_id = 17\n",
                     "convert_from_lang_id is 17\n", "os_lang_id is 106\n"}));
}

}  // namespace
}  // namespace qvetest
