// Files and program runs for the serving tests.
#ifndef QVE_TESTS_SERVE_SERVE_TEST_SUPPORT_H_
#define QVE_TESTS_SERVE_SERVE_TEST_SUPPORT_H_

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

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

inline std::string ReadServeFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
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
