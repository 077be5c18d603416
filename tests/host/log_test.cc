// The host log: exact texts and levels in the capture, output to a file.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <unistd.h>

#include "qve/embedded.h"
#include "qve/host.h"

namespace {

using qvehost::LogLevel;
using qvehost::LogRecord;

qveulm_LogCtx* Log(const char* name) {
  return qveulm_getLogCtx(nullptr, name);
}

TEST(LogTest, OneContextPerNameForTheLifeOfTheHost) {
  qvefet_Context* context = qvehost::NewContext();
  qveulm_LogCtx* os = qveulm_getLogCtx(context->logSource, "fetchlets.os");
  EXPECT_EQ(os, qveulm_getLogCtx(context->logSource, "fetchlets.os"));
  EXPECT_NE(os, qveulm_getLogCtx(context->logSource, "fetchlets.UDM"));
  qvehost::DeleteContext(context);
}

struct LineCase {
  const char* name;
  void (*write)(qveulm_LogCtx*);
  LogLevel level;
  std::string text;
};

class LogLineTest : public testing::TestWithParam<LineCase> {};

// The configured level is off in tests: the capture still sees every line.
TEST_P(LogLineTest, CaptureKeepsTheExactTextLevelAndLogger) {
  const LineCase& c = GetParam();
  qvehost::LogCapture capture;
  c.write(Log("fetchlets.test"));
  std::vector<LogRecord> records = capture.Records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].logger, "fetchlets.test");
  EXPECT_EQ(records[0].level, c.level);
  EXPECT_EQ(records[0].text, c.text);
}

INSTANTIATE_TEST_SUITE_P(
    Lines, LogLineTest,
    testing::Values(
        LineCase{"TraceIsNotAFormat",
                 [](qveulm_LogCtx* log) { qve_devtrc(log, "100% %s done\n"); },
                 LogLevel::kTrace, "100% %s done\n"},
        LineCase{"TraceWithoutLineFeed",
                 [](qveulm_LogCtx* log) { qve_devtrc(log, "no feed"); },
                 LogLevel::kTrace, "no feed"},
        LineCase{"DebugFormats",
                 [](qveulm_LogCtx* log) { qve_debug(log, "Aborting request %s", "r-1"); },
                 LogLevel::kDebug, "Aborting request r-1"},
        LineCase{"WarnKeepsLineFeeds",
                 [](qveulm_LogCtx* log) { qve_warn(log, "%d\n\n", -17); },
                 LogLevel::kWarn, "-17\n\n"},
        LineCase{"ErrorLongerThanAnyStackBuffer",
                 [](qveulm_LogCtx* log) {
                   qve_error(log, "%s|%s", std::string(3000, 'x').c_str(), "end");
                 },
                 LogLevel::kError, std::string(3000, 'x') + "|end"}),
    [](const auto& p) { return std::string(p.param.name); });

TEST(LogTest, TextsFilterByLevelAndLogger) {
  qvehost::LogCapture capture;
  qve_debug(Log("a"), "one");
  qve_debug(Log("b"), "two");
  qve_error(Log("a"), "three");
  EXPECT_EQ(capture.Texts(LogLevel::kDebug), (std::vector<std::string>{"one", "two"}));
  EXPECT_EQ(capture.Texts(LogLevel::kDebug, "b"), std::vector<std::string>{"two"});
  capture.Clear();
  EXPECT_TRUE(capture.Records().empty());
}

TEST(LogTest, NothingIsRecordedOutsideACapture) {
  qve_error(Log("a"), "before");
  qvehost::LogCapture capture;
  EXPECT_TRUE(capture.Records().empty());
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

TEST(LogTest, FileGetsLinesAtOrAboveTheLevelWithoutBlankLines) {
  std::string path = testing::TempDir() + "qvehost_log_" +
                     std::to_string(getpid()) + ".txt";
  std::remove(path.c_str());
  ASSERT_TRUE(qvehost::SetLogFile(path));
  qvehost::SetLogLevel(LogLevel::kDebug);
  qve_devtrc(Log("fetchlets.file"), "hidden trace\n");
  qve_debug(Log("fetchlets.file"), "shown %s\n", "debug");
  qve_error(Log("fetchlets.file"), "shown error");
  qvehost::SetLogLevel(LogLevel::kOff);
  qve_error(Log("fetchlets.file"), "after off");
  ASSERT_TRUE(qvehost::SetLogFile(""));

  std::string text = ReadFile(path);
  std::remove(path.c_str());
  EXPECT_EQ(text.find("hidden"), std::string::npos);
  EXPECT_EQ(text.find("after off"), std::string::npos);
  EXPECT_NE(text.find("[fetchlets.file] [debug] shown debug\n"), std::string::npos)
      << text;
  EXPECT_NE(text.find("shown error\n"), std::string::npos) << text;
  EXPECT_EQ(text.find("\n\n"), std::string::npos) << text;
}

TEST(LogTest, UnopenableFileIsRefused) {
  EXPECT_FALSE(qvehost::SetLogFile("/dev/null/log.txt"));
}

}  // namespace
