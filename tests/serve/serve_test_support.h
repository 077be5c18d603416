// Files and program runs for the serving tests.
#ifndef QVE_TESTS_SERVE_SERVE_TEST_SUPPORT_H_
#define QVE_TESTS_SERVE_SERVE_TEST_SUPPORT_H_

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "common/processes.h"
#include "common/test_account.h"
#include "serve/config.h"

namespace qvetest {

// A path of this test process's own: test programs run side by side.
inline std::string ServeTempPath(const std::string& name) {
  return testing::TempDir() + "serve-" + std::to_string(getpid()) + "-" +
         name;
}

inline std::string WriteServeFile(const std::string& name,
                                  const std::string& text) {
  const std::string path = ServeTempPath(name);
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
  return path;
}

struct Ran {
  int status = -1;  // -1: it did not exit
  std::string out, err;
};

// argv run to its end, with what it printed on each stream.
inline Ran RunProgram(std::vector<std::string> argv) {
  const std::string out = ServeTempPath("run-out"), err = ServeTempPath("run-err");
  const pid_t pid = SpawnWithOutput(std::move(argv), out, err);
  Ran ran;
  int status = 0;
  if (pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status)) {
    ran.status = WEXITSTATUS(status);
  }
  ran.out = FileBytes(out);
  ran.err = FileBytes(err);
  return ran;
}

// The problems of loading text, as "F:LINE:COLUMN: MESSAGE".
inline std::vector<std::string> ConfigProblems(const std::string& text) {
  const std::string path = WriteServeFile("problems.yaml", text);
  std::vector<fetchlet::serve::ConfigProblem> problems, warnings;
  const bool loaded =
      fetchlet::serve::LoadConfig(path, &problems, &warnings).has_value();
  EXPECT_EQ(loaded, problems.empty());
  std::vector<std::string> lines;
  for (const auto& problem : problems) {
    lines.push_back("F" + problem.ToString().substr(path.size()));
  }
  return lines;
}

// The configuration text, loaded; a test failure when it does not load.
inline fetchlet::serve::Config LoadServeConfig(const std::string& text) {
  const std::string path = WriteServeFile("config.yaml", text);
  std::vector<fetchlet::serve::ConfigProblem> problems, warnings;
  auto config = fetchlet::serve::LoadConfig(path, &problems, &warnings);
  for (const auto& problem : problems) ADD_FAILURE() << problem.ToString();
  return config ? std::move(*config) : fetchlet::serve::Config{};
}

}  // namespace qvetest

#endif  // QVE_TESTS_SERVE_SERVE_TEST_SUPPORT_H_
