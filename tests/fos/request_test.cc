// Request assembly: argument splitting, the command line, the time limit,
// the request identifier, the runner choice and the standard-input text.
#include <gtest/gtest.h>

#include <climits>

#include "fos/qvefos_request.h"
#include "fos/run_support.h"

namespace qvetest {
namespace {

using qvehost::LogLevel;

// "KIND: MESSAGE" of an exception, which is released; "" for none.
std::string Described(qveue_Exception* exception) {
  if (exception == nullptr) return "";
  const std::string text = std::to_string(qveue_Exception_getKind(exception)) +
                           ": " + qveue_Exception_getErrorMessage(exception);
  qveue_Exception_delete(exception);
  return text;
}

// The tokens of a vector, which is released, each in brackets.
std::string Tokens(char** argv) {
  std::string tokens;
  for (char** slot = argv; *slot != nullptr; ++slot) {
    tokens += "[" + std::string(*slot) + "]";
  }
  qvefos_freeArguments(argv);
  return tokens;
}

class RequestTest : public PluginTest {
 protected:
  qveulm_LogCtx* log_ = qveulm_getLogCtx(context_->logSource, "fetchlets.os");
  qveue_Exception* exception_ = nullptr;
};

TEST_F(RequestTest, SplitsAtBlanksAndTabsOutsideQuotes) {
  const std::pair<const char*, std::string> cases[] = {
      {"run \"x y\" 'z w'", "[run][x y][z w]"},
      {"p\"q r\"s", "[p\"q r\"s]"},
      // A token that starts with a quote loses its first and last byte.
      {"\"pq\"rs", "[pq\"r]"},
      {"\"a b\"c d", "[a b\"][d]"},
      {"''", "[]"},
      {"", ""},
      {" \t a \t b\t", "[a][b]"},
      {"a\t'b\tc' d\ne", "[a][b\tc][d\ne]"},
      // The two quote characters share one state.
      {"echo 'it\"s'", "11: Argument 'echo 'it\"s'' has mismatch quotes"},
  };
  for (const auto& [line, expected] : cases) {
    char** argv = qvefos_splitArguments(line, &exception_);
    EXPECT_EQ(argv != nullptr ? Tokens(argv) + Described(exception_)
                              : Described(exception_),
              expected);
    exception_ = nullptr;
  }
}

TEST_F(RequestTest, SplitRefusalsAndTheirExceptions) {
  // A null line still gives a vector: one null slot.
  EXPECT_EQ(Tokens(qvefos_splitArguments(nullptr, &exception_)), "");
  EXPECT_EQ(Described(exception_), "11: Command for fetchlet is NULL");
  EXPECT_EQ(Tokens(qvefos_splitArguments(nullptr, nullptr)), "");
  EXPECT_EQ(qvefos_splitArguments("'", nullptr), nullptr);
  // The message is cut to its buffer.
  const std::string line = "'" + std::string(1000, 'x');
  EXPECT_EQ(qvefos_splitArguments(line.c_str(), &exception_), nullptr);
  EXPECT_EQ(Described(exception_),
            "11: " + ("Argument '" + line).substr(0, 511));
  // The second token's copy fails: the first goes with the vector.
  qvehost::FailAllocation("qvefos", 3, false);
  EXPECT_EQ(qvefos_splitArguments("a 'b c' d", &exception_), nullptr);
  EXPECT_EQ(Described(exception_), "12: Unable to allocate memory");
}

TEST_F(RequestTest, CommandLineIsTrimmedInPlaceAndExtendedOrRefused) {
  // clang-format off
  const std::tuple<Props, std::string, std::string> cases[] = {
      // The properties, the line or exception, the command property after.
      {{{"command", "  ls -l \n"}}, "ls -l", "  ls -l"},
      {{{"command", "ls"}, {"args", ""}}, "ls ", "ls"},
      {{{"args", "-a"}, {"command", "ls\t"}, {"script", "s"}}, "ls s -a", "ls"},
      {{{"command", " \n\t "}}, "", " \n\t "},
      {{{"command", ""}}, "11: Command for fetchlet is NULL", ""},
      {{{"args", "x"}}, "11: Command for fetchlet is NULL", "(absent)"},
  };
  // clang-format on
  for (const auto& [props, expected, commandAfter] : cases) {
    const auto list = NewList(props);
    char* line = nullptr;
    if (qvefos::BuildCommandLine(list.get(), log_, &line, &exception_) == 0) {
      EXPECT_EQ(line, expected);
      qve_free0(line, "tests", __LINE__);
    } else {
      EXPECT_EQ(Described(exception_), expected);
      EXPECT_EQ(line, nullptr);
      // Without a slot the refusal is the status alone.
      EXPECT_EQ(qvefos::BuildCommandLine(list.get(), log_, &line, nullptr), -1);
    }
    const char* command = qvlnvlgv_getValue(list.get(), "command");
    EXPECT_EQ(command != nullptr ? command : "(absent)", commandAfter);
  }
  const auto list = NewList({{"command", "ls"}});
  qvehost::FailAllocation("qvefos", 1, false);
  char* line = nullptr;
  EXPECT_EQ(qvefos::BuildCommandLine(list.get(), log_, &line, &exception_), -1);
  EXPECT_EQ(Described(exception_), "12: Unable to allocate memory");
  EXPECT_EQ(Logged(LogLevel::kError),
            Strings{"Memory could not be allocated\n"});
}

TEST_F(RequestTest, TimeLimitReadsLikeStrtolAndSaturates) {
  // clang-format off
  const std::pair<Text, int32_t> cases[] = {
      {std::nullopt, -1}, {"", -1}, {"30s", 30}, {"abc", 0}, {"- 5", 0},
      {" \t\n-5", -5}, {"+7", 7}, {"-2147483648", INT32_MIN},
      {"99999999999999999999", INT32_MAX}, {"-99999999999999999999", INT32_MIN},
  };
  // clang-format on
  for (const auto& [value, seconds] : cases) {
    const auto list =
        NewList(value ? Props{{"KT_METRIC_TIMEOUT", *value}} : Props{});
    EXPECT_EQ(qvefos::ReadTimeoutSeconds(list.get()), seconds)
        << value.value_or("(absent)");
  }
}

TEST_F(RequestTest, RequestIdPointsIntoTheListAndIsLogged) {
  for (const char* id : {"", "r-17"}) {
    const auto list = NewList({{"KTDCLIENT_REQUEST_ID", id}});
    EXPECT_EQ(
        qvefos::ReadRequestId(list.get(), log_),
        *id ? qvlnvlgv_getValue(list.get(), "KTDCLIENT_REQUEST_ID") : nullptr);
  }
  EXPECT_EQ(qvefos::ReadRequestId(NewList({}).get(), log_), nullptr);
  EXPECT_EQ(Logged(LogLevel::kDebug),
            (Strings{"Request ID not found",
                     "Metric evaluation for KTD request ID  r-17",
                     "Request ID not found"}));
}

TEST_F(RequestTest, RunnerChoiceFollowsIsSecureCommandAndCredentials) {
  using qvefos::Runner;
  // clang-format off
  const std::pair<Props, Runner> cases[] = {
      {{}, Runner::kPlain},
      {{{"isSecureCommand", "yes"}, {"username", "u"}}, Runner::kPlain},
      {{{"isSecureCommand", "TRUE"}, {"username", "u"}, {"password", "p"}},
       Runner::kAuthenticated},
      {{{"isSecureCommand", "true"}, {"username", ""}, {"password", ""}},
       Runner::kAuthenticated},
      {{{"isSecureCommand", "TrUe"}, {"username", "u"}},
       Runner::kMissingCredentials},
  };
  // clang-format on
  for (const auto& [props, runner] : cases) {
    SCOPED_TRACE(testing::PrintToString(props));
    const auto list = NewList(props);
    capture_.Clear();
    const qvefos::RunnerChoice choice = qvefos::ChooseRunner(list.get(), log_);
    EXPECT_EQ(choice.runner, runner);
    const bool given = runner == Runner::kAuthenticated;
    EXPECT_EQ(choice.username,
              given ? qvlnvlgv_getValue(list.get(), "username") : nullptr);
    EXPECT_EQ(choice.password,
              given ? qvlnvlgv_getValue(list.get(), "password") : nullptr);
    EXPECT_EQ(Logged(LogLevel::kError),
              Strings(runner == Runner::kMissingCredentials ? 1 : 0,
                      "Error running secure command. Either username or "
                      "password isn't provided while isSecureCommand is set "
                      "to TRUE."));
  }
}

TEST_F(RequestTest, StdinTextHasOneLinePerPropertyWithMarkers) {
  // clang-format off
  const std::pair<Props, Text> cases[] = {
      {{{"command", "x"}, {"stdinA", "1"}, {"XSTDIN", "2"}}, std::nullopt},
      {{{"STDINuser", "alice"}, {"command", "x"}, {"STDINq", "one\ntwo"}},
       "user=alice\nq=__BeginProp__\none\ntwo\n__EndProp__\n"},
      {{{"STDINa", ""}, {"STDINb", "b=c"}, {"STDIN", "x\n"}},
       "a=\nb=b=c\n=__BeginProp__\nx\n\n__EndProp__\n"},
  };
  // clang-format on
  for (const auto& [props, text] : cases) {
    const auto list = NewList(props);
    qveusb_StringBuffer* buffer = qvefos_getStdinParameters(list.get(), log_);
    EXPECT_EQ(buffer != nullptr ? Text(qveusb_StringBuffer_getBuffer(buffer))
                                : std::nullopt,
              text);
    if (buffer != nullptr) qveusb_StringBuffer_delete(buffer);
  }
  EXPECT_EQ(Logged(LogLevel::kTrace, "fetchlets.os"),
            Strings(3,
                    "qvefos : Entering function - "
                    "qvefos_getStdinParameters\n"));
}

}  // namespace
}  // namespace qvetest
