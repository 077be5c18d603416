// fetchlet test: evaluates each configured collector once and prints what a
// scrape would show.
#ifndef QVE_CLI_CHECK_COMMAND_H_
#define QVE_CLI_CHECK_COMMAND_H_

#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "agent/evaluate.h"
#include "serve/mapping.h"

namespace fetchlet {

struct CheckOptions {
  std::string config;
  std::string collector;
  std::string module;  // with target and params: one probe
  std::string target;
  std::vector<std::string> params;  // NAME=VALUE
  std::string format = "text";
  bool json = false;
  std::string plugin_path;
};

CLI::App* DefineCheck(CLI::App& app, CheckOptions& options);

// 0 when every evaluation succeeded and every row parsed, 1 otherwise, 2
// for a usage or configuration error.
int RunCheck(const CheckOptions& options);

// One probe of a module, printed as /probe would answer it (or, with
// --json, as one object); exits as RunCheck.
int RunProbeCheck(const CheckOptions& options);

// The plug-in the options name; nullptr after a message.
std::unique_ptr<agent::Plugin> LoadCheckPlugin(const CheckOptions& options);

// One JSON line: status, exception, rows, samples, notes, resources, under
// "key": name ("collector" or "module").
void PrintOutcome(std::ostream& out, const char* key, const std::string& name,
                  const agent::Outcome& outcome, const serve::Mapped& mapped);

}  // namespace fetchlet

#endif  // QVE_CLI_CHECK_COMMAND_H_
