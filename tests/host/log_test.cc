// The host log: exact texts in the capture, output to a file.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "qve/embedded.h"
#include "qve/host.h"

namespace {

using qvehost::LogLevel;

qveulm_LogCtx* Log(const char* name) { return qveulm_getLogCtx(nullptr, name); }

// The configured level is off in tests: the capture still sees every line,
// exactly as written. A trace text is no format.
TEST(LogTest, CaptureKeepsTheExactTextLevelAndLogger) {
  qve_error(Log("fetchlets.test"), "before the capture");
  qvehost::LogCapture capture;
  qve_devtrc(Log("fetchlets.test"), "100% %s done\n");
  const std::string long_text(3000, 'x');  // past any stack buffer
  qve_error(Log("fetchlets.test"), "%s|%d\n\n", long_text.c_str(), -17);
  const std::vector<qvehost::LogRecord> records = capture.Records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].logger, "fetchlets.test");
  EXPECT_EQ(records[0].level, LogLevel::kTrace);
  EXPECT_EQ(records[0].text, "100% %s done\n");
  EXPECT_EQ(records[1].level, LogLevel::kError);
  EXPECT_EQ(records[1].text, long_text + "|-17\n\n");
}

// A line past 64 KiB is cut there with a note of what was left out; one at
// the cap is whole.
TEST(LogTest, OverlongLineIsCutWithTheCountLeftOut) {
  constexpr size_t kCap = 64 * 1024;
  const std::pair<size_t, std::string> cases[] = {
      {kCap, ""},
      {kCap + 1, " [1 bytes left out]"},
      {size_t{5} << 20, " [" + std::to_string((size_t{5} << 20) - kCap) +
                            " bytes left out]"},
  };
  for (const auto& [length, note] : cases) {
    qvehost::LogCapture capture;
    const std::string text(length, 'y');
    qve_error(Log("fetchlets.test"), "%s", text.c_str());
    const std::vector<std::string> texts = capture.Texts(LogLevel::kError);
    ASSERT_EQ(texts.size(), 1u);
    EXPECT_EQ(texts[0], std::string(kCap < length ? kCap : length, 'y') + note)
        << length;
  }
}

// Each line: "[date time.ms] [logger] [level] text".
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
  std::ifstream text(path);
  std::vector<std::string> lines;
  for (std::string line; std::getline(text, line);) {
    lines.push_back(line.substr(line.find("] [") + 2));
  }
  std::remove(path.c_str());
  EXPECT_EQ(lines,
            (std::vector<std::string>{"[fetchlets.file] [debug] shown debug",
                                      "[fetchlets.file] [error] shown error"}));
}

}  // namespace
