// fetchlet test: evaluates each configured collector once and prints what a
// scrape would show.
#ifndef QVE_CLI_CHECK_COMMAND_H_
#define QVE_CLI_CHECK_COMMAND_H_

#include <string>

#include <CLI/CLI.hpp>

namespace fetchlet {

struct CheckOptions {
  std::string config;
  std::string collector;
  std::string format = "text";
  bool json = false;
  std::string plugin_path;
};

CLI::App* DefineCheck(CLI::App& app, CheckOptions& options);

// 0 when every evaluation succeeded and every row parsed, 1 otherwise, 2
// for a usage or configuration error.
int RunCheck(const CheckOptions& options);

}  // namespace fetchlet

#endif  // QVE_CLI_CHECK_COMMAND_H_
