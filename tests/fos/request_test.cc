// Request assembly: argument splitting, the command line, the time limit,
// the request identifier, the runner choice and the standard-input text.
#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "fos/qvefos_request.h"
#include "qve/embedded.h"

namespace {

using qvehost::LogLevel;
using Strings = std::vector<std::string>;
using Props = std::vector<std::pair<std::string, std::string>>;

// The arguments of a vector, released; checks the second null slot that a
// line ending in a separator leaves.
Strings TakeArguments(char** argv, bool trailing_null) {
  Strings out;
  for (char** slot = argv; *slot != nullptr; ++slot) out.emplace_back(*slot);
  if (trailing_null) {
    EXPECT_EQ(argv[out.size() + 1], nullptr);
  }
  qvefos_freeArguments(argv);
  return out;
}

class RequestTest : public testing::Test {
 protected:
  ~RequestTest() override {
    if (exception_ != nullptr) qveue_Exception_delete(exception_);
    qvehost::DeletePropertyList(list_);
    qvehost::DeleteContext(context_);
  }
  void Set(const Props& props) {
    for (const auto& [name, value] : props) {
      qvehost::SetProperty(list_, name, value);
    }
  }
  std::string Value(const char* name) {
    return qvlnvlgv_getValue(list_, name);
  }
  void ExpectException(int32_t kind, const std::string& message) {
    ASSERT_NE(exception_, nullptr);
    EXPECT_EQ(qveue_Exception_getKind(exception_), kind);
    EXPECT_EQ(qveue_Exception_getErrorMessage(exception_), message);
  }

  qvefet_Context* context_ = qvehost::NewContext();
  qvlnv_NVList* list_ = qvehost::NewPropertyList();
  qveue_Exception* exception_ = nullptr;
  qvehost::LogCapture capture_;
  qveulm_LogCtx* log_ = qveulm_getLogCtx(context_->logSource, "fetchlets.os");
};

struct SplitCase {
  const char* line;
  Strings arguments;  // ignored when refused
  bool refused = false;
};

TEST_F(RequestTest, SplitsAtBlanksAndTabsOutsideQuotes) {
  const SplitCase cases[] = {
      {"run \"x y\" 'z w'", {"run", "x y", "z w"}},
      {"p\"q r\"s", {"p\"q r\"s"}},
      {"\"pq\"rs", {"pq\"r"}},
      {"''", {""}},
      {"'a'\"b\"", {"a'\"b"}},
      {"\"a b\"c d", {"a b\"", "d"}},
      {"a\nb", {"a\nb"}},
      {"", {}},
      {"ls ", {"ls"}},
      {" \t a \t b\t", {"a", "b"}},
      {"a\t'b\tc'", {"a", "b\tc"}},
      {"echo 'it\"s'", {}, true},
      {"'unclosed", {}, true},
      {"x \"'\"", {}, true},
  };
  for (const SplitCase& c : cases) {
    SCOPED_TRACE(c.line);
    qveue_Exception* exception = nullptr;
    char** argv = qvefos_splitArguments(c.line, &exception);
    if (c.refused) {
      EXPECT_EQ(argv, nullptr);
      ASSERT_NE(exception, nullptr);
      EXPECT_EQ(qveue_Exception_getKind(exception), QVE_EXC_BAD_REQUEST);
      EXPECT_EQ(qveue_Exception_getErrorMessage(exception),
                "Argument '" + std::string(c.line) + "' has mismatch quotes");
      qveue_Exception_delete(exception);
      continue;
    }
    EXPECT_EQ(exception, nullptr);
    ASSERT_NE(argv, nullptr);
    const std::string line(c.line);
    const bool trailing = !line.empty() && (line.back() == ' ' ||
                                            line.back() == '\t');
    EXPECT_EQ(TakeArguments(argv, trailing || line.empty()), c.arguments);
  }
}

TEST_F(RequestTest, SplitOfNullLineGivesOneNullSlotAndKind11) {
  char** argv = qvefos_splitArguments(nullptr, &exception_);
  ASSERT_NE(argv, nullptr);
  EXPECT_EQ(argv[0], nullptr);
  qvefos_freeArguments(argv);
  ExpectException(QVE_EXC_BAD_REQUEST, "Command for fetchlet is NULL");

  argv = qvefos_splitArguments(nullptr, nullptr);
  ASSERT_NE(argv, nullptr);
  qvefos_freeArguments(argv);
  EXPECT_EQ(qvefos_splitArguments("'", nullptr), nullptr);
}

TEST_F(RequestTest, MismatchMessageIsCutToItsBuffer) {
  const std::string line = "'" + std::string(1000, 'x');
  EXPECT_EQ(qvefos_splitArguments(line.c_str(), &exception_), nullptr);
  const std::string prefix = "Argument '" + line;
  ExpectException(QVE_EXC_BAD_REQUEST, prefix.substr(0, 511));
}

TEST_F(RequestTest, SplitUnderFailingAllocationsFreesAllAndSaysKind12) {
  const char* line = "a 'b c' d ";
  for (uint64_t k = 1;; ++k) {
    SCOPED_TRACE(k);
    ASSERT_LT(k, 100u);
    qvehost::ResetFaults();
    qvehost::FailAllocation("qvefos", k, false);
    qveue_Exception* exception = nullptr;
    char** argv = qvefos_splitArguments(line, &exception);
    const bool faulted = qvehost::AllocationCount("qvefos") >= k;
    if (!faulted) {
      EXPECT_EQ(TakeArguments(argv, true), (Strings{"a", "b c", "d"}));
      break;
    }
    EXPECT_EQ(argv, nullptr);
    ASSERT_NE(exception, nullptr);
    EXPECT_EQ(qveue_Exception_getKind(exception), QVE_EXC_RUN_FAILED);
    EXPECT_STREQ(qveue_Exception_getErrorMessage(exception),
                 "Unable to allocate memory");
    qveue_Exception_delete(exception);
    EXPECT_TRUE(qvehost::LiveBlocks("qvefos").empty());
  }
}

struct CommandCase {
  Props props;
  std::string line;
  std::string command_after;
};

TEST_F(RequestTest, CommandLineIsTrimmedInPlaceAndExtended) {
  const CommandCase cases[] = {
      {{{"command", "  ls -l \n"}}, "ls -l", "  ls -l"},
      {{{"command", "\tcmd\t\n "}}, "cmd", "\tcmd"},
      {{{"command", "ls"}, {"args", ""}}, "ls ", "ls"},
      {{{"command", "ls"}, {"script", ""}}, "ls ", "ls"},
      {{{"args", "-a"}, {"command", "ls "}, {"script", "s.sh"}},
       "ls s.sh -a",
       "ls"},
      {{{"command", " \n\t "}}, "", " \n\t "},
  };
  for (const CommandCase& c : cases) {
    SCOPED_TRACE(c.line);
    qvehost::DeletePropertyList(list_);
    list_ = qvehost::NewPropertyList();
    Set(c.props);
    char* line = nullptr;
    ASSERT_EQ(qvefos::BuildCommandLine(list_, log_, &line, &exception_), 0);
    ASSERT_NE(line, nullptr);
    EXPECT_EQ(line, c.line);
    EXPECT_EQ(Value("command"), c.command_after);
    qve_free0(line, "test", __LINE__);
    EXPECT_EQ(exception_, nullptr);
  }
}

TEST_F(RequestTest, TrimmedCommandSplitsIntoProgramAndArgument) {
  Set({{"command", "  ls -l \n"}});
  char* line = nullptr;
  ASSERT_EQ(qvefos::BuildCommandLine(list_, log_, &line, nullptr), 0);
  EXPECT_EQ(TakeArguments(qvefos_splitArguments(line, nullptr), false),
            (Strings{"ls", "-l"}));
  qve_free0(line, "test", __LINE__);
}

TEST_F(RequestTest, AbsentOrEmptyCommandIsRefused) {
  char* line = nullptr;
  EXPECT_EQ(qvefos::BuildCommandLine(list_, log_, &line, nullptr), -1);
  EXPECT_EQ(qvefos::BuildCommandLine(list_, log_, &line, &exception_), -1);
  EXPECT_EQ(line, nullptr);
  ExpectException(QVE_EXC_BAD_REQUEST, "Command for fetchlet is NULL");
  qveue_Exception_delete(exception_);
  exception_ = nullptr;

  Set({{"command", ""}, {"args", "x"}});
  EXPECT_EQ(qvefos::BuildCommandLine(list_, log_, &line, &exception_), -1);
  ExpectException(QVE_EXC_BAD_REQUEST, "Command for fetchlet is NULL");
}

TEST_F(RequestTest, CommandLineWithoutMemoryLogsAndGivesKind12) {
  Set({{"command", "ls"}});
  qvehost::FailAllocation("qvefos", 1, false);
  char* line = nullptr;
  EXPECT_EQ(qvefos::BuildCommandLine(list_, log_, &line, &exception_), -1);
  EXPECT_EQ(line, nullptr);
  ExpectException(QVE_EXC_RUN_FAILED, "Unable to allocate memory");
  EXPECT_EQ(capture_.Texts(LogLevel::kError, "fetchlets.os"),
            Strings{"Memory could not be allocated\n"});
}

TEST_F(RequestTest, TimeLimitReadsLikeStrtolAndSaturates) {
  const std::pair<std::optional<std::string>, int32_t> cases[] = {
      {std::nullopt, -1},
      {"", -1},
      {"30", 30},
      {"30s", 30},
      {"abc", 0},
      {" ", 0},
      {"- 5", 0},
      {" \t\n-5", -5},
      {"+7", 7},
      {"0", 0},
      {"2147483647", INT32_MAX},
      {"99999999999999999999", INT32_MAX},
      {"-2147483648", INT32_MIN},
      {"-99999999999999999999", INT32_MIN},
  };
  for (const auto& [value, seconds] : cases) {
    SCOPED_TRACE(value.value_or("(absent)"));
    qvehost::DeletePropertyList(list_);
    list_ = qvehost::NewPropertyList();
    if (value) Set({{"KT_METRIC_TIMEOUT", *value}});
    EXPECT_EQ(qvefos::ReadTimeoutSeconds(list_), seconds);
  }
}

TEST_F(RequestTest, RequestIdPointsIntoTheListAndIsLogged) {
  EXPECT_EQ(qvefos::ReadRequestId(list_, log_), nullptr);
  Set({{"KTDCLIENT_REQUEST_ID", ""}});
  EXPECT_EQ(qvefos::ReadRequestId(list_, log_), nullptr);
  Set({{"KTDCLIENT_REQUEST_ID", "r-17"}});
  EXPECT_EQ(qvefos::ReadRequestId(list_, log_),
            qvlnvlgv_getValue(list_, "KTDCLIENT_REQUEST_ID"));
  EXPECT_EQ(capture_.Texts(LogLevel::kDebug, "fetchlets.os"),
            (Strings{"Request ID not found", "Request ID not found",
                     "Metric evaluation for KTD request ID  r-17"}));
}

struct RunnerCase {
  Props props;
  qvefos::Runner runner;
};

TEST_F(RequestTest, RunnerChoiceFollowsIsSecureCommandAndCredentials) {
  using qvefos::Runner;
  const RunnerCase cases[] = {
      {{}, Runner::kPlain},
      {{{"isSecureCommand", "yes"}, {"username", "u"}}, Runner::kPlain},
      {{{"isSecureCommand", "FALSE"}}, Runner::kPlain},
      {{{"isSecureCommand", "TRUE"}, {"username", "u"}, {"password", "p"}},
       Runner::kAuthenticated},
      {{{"isSecureCommand", "true"}, {"username", ""}, {"password", ""}},
       Runner::kAuthenticated},
      {{{"isSecureCommand", "TrUe"}, {"username", "u"}},
       Runner::kMissingCredentials},
      {{{"isSecureCommand", "TRUE"}, {"password", "p"}},
       Runner::kMissingCredentials},
  };
  for (const RunnerCase& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.props));
    qvehost::DeletePropertyList(list_);
    list_ = qvehost::NewPropertyList();
    Set(c.props);
    capture_.Clear();
    const qvefos::RunnerChoice choice = qvefos::ChooseRunner(list_, log_);
    EXPECT_EQ(choice.runner, c.runner);
    const bool authenticated = c.runner == Runner::kAuthenticated;
    EXPECT_EQ(choice.username,
              authenticated ? qvlnvlgv_getValue(list_, "username") : nullptr);
    EXPECT_EQ(choice.password,
              authenticated ? qvlnvlgv_getValue(list_, "password") : nullptr);
    Strings errors;
    if (c.runner == Runner::kMissingCredentials) {
      errors.emplace_back(
          "Error running secure command. Either username or password isn't "
          "provided while isSecureCommand is set to TRUE.");
    }
    EXPECT_EQ(capture_.Texts(LogLevel::kError), errors);
  }
}

struct StdinCase {
  Props props;
  std::optional<std::string> text;
};

TEST_F(RequestTest, StdinTextHasOneLinePerPropertyWithMarkers) {
  const StdinCase cases[] = {
      {{{"command", "x"}, {"stdinA", "1"}, {"XSTDIN", "2"}}, std::nullopt},
      {{{"STDINuser", "alice"},
        {"command", "x"},
        {"STDINquery", "line one\nline two"}},
       "user=alice\nquery=__BeginProp__\nline one\nline two\n__EndProp__\n"},
      {{{"STDIN", "x\n"}}, "=__BeginProp__\nx\n\n__EndProp__\n"},
      {{{"STDINa", ""}, {"STDINb", "b=c"}}, "a=\nb=b=c\n"},
  };
  for (const StdinCase& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.props));
    qvehost::DeletePropertyList(list_);
    list_ = qvehost::NewPropertyList();
    Set(c.props);
    capture_.Clear();
    qveusb_StringBuffer* buffer = qvefos_getStdinParameters(list_, log_);
    EXPECT_EQ(capture_.Texts(LogLevel::kTrace, "fetchlets.os"),
              Strings{"qvefos : Entering function - "
                      "qvefos_getStdinParameters\n"});
    if (!c.text) {
      EXPECT_EQ(buffer, nullptr);
      continue;
    }
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(qveusb_StringBuffer_getBuffer(buffer), *c.text);
    qveusb_StringBuffer_delete(buffer);
  }
}

}  // namespace
