// fetchlet serve: evaluates the configured collectors on their schedules
// and serves the results over HTTP until SIGTERM or SIGINT.
#ifndef QVE_CLI_SERVE_COMMAND_H_
#define QVE_CLI_SERVE_COMMAND_H_

#include <string>

#include <CLI/CLI.hpp>

namespace fetchlet {

struct ServeOptions {
  std::string config;
  std::string listen;
  std::string web_config;
  std::string check_config;
  std::string log_level = "info";
  std::string plugin_path;
};

CLI::App* DefineServe(CLI::App& app, ServeOptions& options);
int RunServe(const ServeOptions& options);

}  // namespace fetchlet

#endif  // QVE_CLI_SERVE_COMMAND_H_
