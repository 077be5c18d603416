// The host log: exact texts and levels in the capture, output to a file.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "qve/embedded.h"
#include "qve/host.h"

namespace {

using qvehost::LogLevel;

qveulm_LogCtx* Log(const char* name) { return qveulm_getLogCtx(nullptr, name); }

// The configured level is off in tests: the capture still sees every line,
// exactly as written.
TEST(LogTest, CaptureKeepsTheExactTextLevelAndLogger) {
  const std::string long_text(3000, 'x');
  const struct {
    const char* name;
    std::function<void(qveulm_LogCtx*)> write;
    LogLevel level;
    std::string text;
  } cases[] = {
      {"trace is not a format", [](qveulm_LogCtx* log) { qve_devtrc(log, "100% %s done\n"); },
       LogLevel::kTrace, "100% %s done\n"},
      {"warn keeps line feeds", [](qveulm_LogCtx* log) { qve_warn(log, "%d\n\n", -17); },
       LogLevel::kWarn, "-17\n\n"},
      {"error longer than any stack buffer",
       [&](qveulm_LogCtx* log) { qve_error(log, "%s|%s", long_text.c_str(), "end"); },
       LogLevel::kError, long_text + "|end"},
  };
  qve_error(Log("fetchlets.test"), "before the capture");
  qvehost::LogCapture capture;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    c.write(Log("fetchlets.test"));
    std::vector<qvehost::LogRecord> records = capture.Records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].logger, "fetchlets.test");
    EXPECT_EQ(records[0].level, c.level);
    EXPECT_EQ(records[0].text, c.text);
    capture.Clear();
  }
}

TEST(LogTest, FileGetsLinesAtOrAboveTheLevelWithoutBlankLines) {
  EXPECT_FALSE(qvehost::SetLogFile("/dev/null/log.txt"));
  const std::string path =
      testing::TempDir() + "qvehost_log_" + std::to_string(getpid()) + ".txt";
  std::remove(path.c_str());
  ASSERT_TRUE(qvehost::SetLogFile(path));
  qvehost::SetLogLevel(LogLevel::kDebug);
  qve_devtrc(Log("fetchlets.file"), "hidden trace\n");
  qve_debug(Log("fetchlets.file"), "shown %s\n", "debug");
  qve_error(Log("fetchlets.file"), "shown error");
  qvehost::SetLogLevel(LogLevel::kOff);
  qve_error(Log("fetchlets.file"), "after off");
  ASSERT_TRUE(qvehost::SetLogFile(""));

  std::stringstream text;
  text << std::ifstream(path).rdbuf();
  std::remove(path.c_str());
  // Each line: "[date time.ms] [logger] [level] text".
  std::string line;
  std::vector<std::string> lines;
  while (std::getline(text, line)) {
    const size_t stamp_end = line.find("] [");
    lines.push_back(stamp_end == std::string::npos ? line : line.substr(stamp_end + 2));
  }
  EXPECT_EQ(lines, (std::vector<std::string>{"[fetchlets.file] [debug] shown debug",
                                             "[fetchlets.file] [error] shown error"}));
}

}  // namespace
