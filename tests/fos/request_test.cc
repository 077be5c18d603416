// Request assembly: argument splitting, the command line, the time limit,
// the request identifier, the runner choice, the standard-input text and
// the environment.
#include <gtest/gtest.h>

#include <climits>

#include "fos/qvefos_environment.h"
#include "fos/qvefos_request.h"
#include "common/run_support.h"

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

class RequestTest : public PluginTest {
 protected:
  // The tokens of line, each in brackets ("null" for no vector), then the
  // exception.
  static std::string Split(const char* line) {
    qveue_Exception* exception = nullptr;
    char** argv = qvefos_splitArguments(line, &exception);
    std::string tokens = argv != nullptr ? "" : "null ";
    for (char** slot = argv; slot != nullptr && *slot != nullptr; ++slot) {
      tokens += "[" + std::string(*slot) + "]";
    }
    if (argv != nullptr) qvefos_freeArguments(argv);
    return tokens + Described(exception);
  }
  qveulm_LogCtx* log_ = qveulm_getLogCtx(context_->logSource, "fetchlets.os");
  qveue_Exception* exception_ = nullptr;
};

TEST_F(RequestTest, SplitsAtBlanksAndTabsOutsideQuotes) {
  const std::string longLine = "'" + std::string(1000, 'x');
  // clang-format off
  const std::pair<const char*, std::string> cases[] = {
      {"run \"x y\" 'z w'", "[run][x y][z w]"},
      {"p\"q r\"s", "[p\"q r\"s]"},
      // A token that starts with a quote loses its first and last byte.
      {"\"pq\"rs", "[pq\"r]"},
      {"''", "[]"},
      {"", ""},
      {" \t a \t b\t", "[a][b]"},
      {"a\t'b\tc' d\ne", "[a][b\tc][d\ne]"},
      // The two quote characters share one state.
      {"echo 'it\"s'", "null 11: Argument 'echo 'it\"s'' has mismatch quotes"},
      // A null line still gives a vector.
      {nullptr, "11: Command for fetchlet is NULL"},
      // The message is cut to its buffer.
      {longLine.c_str(),
       "null 11: " + ("Argument '" + longLine).substr(0, 511)},
  };
  // clang-format on
  for (const auto& [line, expected] : cases) {
    EXPECT_EQ(Split(line), expected) << (line ? line : "(null)");
  }
  EXPECT_EQ(qvefos_splitArguments("'", nullptr), nullptr);
  // The second token's copy fails: the first goes with the vector.
  qvehost::FailAllocation("qvefos", 3, false);
  EXPECT_EQ(Split("a 'b c' d"), "null 12: Unable to allocate memory");
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

TEST_F(RequestTest, TimeLimitAndRequestId) {
  // clang-format off
  const std::pair<Text, int32_t> cases[] = {
      {std::nullopt, -1}, {"", -1}, {"30s", 30}, {"abc", 0}, {"- 5", 0},
      {" \t\n-5", -5}, {"99999999999999999999", INT32_MAX},
      {"-99999999999999999999", INT32_MIN},
  };
  // clang-format on
  for (const auto& [value, seconds] : cases) {
    const auto list =
        NewList(value ? Props{{"KT_METRIC_TIMEOUT", *value}} : Props{});
    EXPECT_EQ(qvefos::ReadTimeoutSeconds(list.get()), seconds)
        << value.value_or("(absent)");
  }
  // The identifier points into the list; an empty one is none.
  const auto list = NewList({{"KTDCLIENT_REQUEST_ID", "r-17"}});
  EXPECT_EQ(qvefos::ReadRequestId(list.get(), log_),
            qvlnvlgv_getValue(list.get(), "KTDCLIENT_REQUEST_ID"));
  EXPECT_EQ(qvefos::ReadRequestId(NewList({{"KTDCLIENT_REQUEST_ID", ""}}).get(),
                                  log_),
            nullptr);
  EXPECT_EQ(Logged(LogLevel::kDebug),
            (Strings{"Metric evaluation for KTD request ID  r-17",
                     "Request ID not found"}));
}

TEST_F(RequestTest, RunnerChoiceFollowsIsSecureCommandAndCredentials) {
  using qvefos::Runner;
  // clang-format off
  const std::pair<Props, Runner> cases[] = {
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
    capture_.Clear();
    EXPECT_EQ(qvefos::ChooseRunner(NewList(props).get(), log_).runner, runner)
        << testing::PrintToString(props);
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
}

// The entries built from props, released; none for a null environment.
Strings BuildFrom(const Props& props) {
  const auto list = NewList(props);
  char** envp = qvefos_buildEnvironment(list.get());
  Strings entries;
  for (char** slot = envp; slot != nullptr && *slot != nullptr; ++slot) {
    entries.emplace_back(*slot);
  }
  EXPECT_TRUE(envp == nullptr || !entries.empty()) << "empty but not null";
  qvefos_freeEnvironment(&envp);
  EXPECT_EQ(envp, nullptr);
  return entries;
}

TEST(EnvironmentTest, PropertyEntriesThenTheBlocksNewNames) {
  // clang-format off
  const std::pair<Props, Strings> cases[] = {
      // Properties in list order, never compared with each other.
      {{{"ENVB", "2"}, {"command", "c"}, {"ENVA", ""}, {"ENV", "x"}},
       {"B=2", "A=", "=x"}},
      {{{"KTAgentConditionContextId", "7"},
        {"ENVKTAgentConditionContextId", "1"}},
       {"KTAgentConditionContextId=7", "KTAgentConditionContextId=1"}},
      {{{"ENV_ARRAYX", "v"}, {"env", "1"}, {"KTAgentCondition", "3"}},
       {"_ARRAYX=v"}},
      // The block adds, in its order, the first pair of each name that no
      // entry holds yet; names compare whole and with their case.
      {{{"ENV_ARRAY", "{PATH=/x}{PATHX=1}{path=2}{A=1}{A=2}"},
        {"ENVPATH", "/y"}},
       {"PATH=/y", "PATHX=1", "path=2", "A=1"}},
      {{{"ENV_ARRAY", "  {A=x=y}, {B=} junk{=v}"}}, {"A=x=y", "B=", "=v"}},
      {{{"ENV_ARRAY", "{A=1"}}, {"A=1"}},
      {{{"ENV_ARRAY", "A=1"}}, {}},
      // Braces that nest or do not balance, read as the groups fall; a
      // group with no "=" after it yields nothing.
      {{{"ENV_ARRAY", "{A}{B=1}"}}, {"A}{B=1"}},
      {{{"ENV_ARRAY", "}{{A=1}}{B=2}"}}, {"{A=1", "B=2"}},
      {{{"ENV_ARRAY", "{A=1}{B}"}}, {"A=1"}},
  };
  // clang-format on
  for (const auto& [props, entries] : cases) {
    EXPECT_EQ(BuildFrom(props), entries) << testing::PrintToString(props);
  }
}

TEST(EnvironmentTest, EachAllocationFailureIsToldOnStandardError) {
  const Props props = {{"ENVA", "1"}, {"ENV_ARRAY", "{C=3}"}};
  // In order: entry A, the pair table, the block's copy, name C, value 3,
  // entry C, the array.
  const std::pair<uint64_t, std::string> cases[] = {
      {1, "qvefos: Memory allocation error for ENVA\n"},
      {2, "qvefos: Memory allocation error for ENV_ARRAY\n"},
      {4, "qvefos: Memory allocation error for C\n"},
      {6, "qvefos: Memory allocation error for C\n"},
      {7, "qvefos: Could not create array of strings for return"},
      {8, ""},
  };
  for (const auto& [k, told] : cases) {
    qvehost::ResetFaults();
    qvehost::FailAllocation("qvefos", k, false);
    testing::internal::CaptureStderr();
    const size_t entries = BuildFrom(props).size();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), told) << k;
    EXPECT_EQ(entries, told.empty() ? 2u : 0u) << k;
  }
}

}  // namespace
}  // namespace qvetest
