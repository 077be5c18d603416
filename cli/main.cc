// fetchlet: runs one metric through the plug-in on the embedded host.
#include <csignal>
#include <cstdint>
#include <iostream>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "agent/evaluate.h"
#include "check_command.h"
#include "interrupt.h"
#include "log_level.h"
#include "password.h"
#include "properties.h"
#include "render.h"
#include "run_limits.h"
#include "serve/duration.h"
#include "serve/secret_file.h"
#include "serve_command.h"

namespace fetchlet {
namespace {

constexpr int kUsageError = 2;
constexpr int kInterruptedStatus = 130;

constexpr char kPasswordWarning[] =
    "fetchlet: warning: a password given as password= on the command line "
    "can be read by other local users; use password_file=PATH or "
    "--ask-password\n";

constexpr const char* kRunFooter = R"(
Kinds:
  os           the command's whole output as one row
  osline       one row per line of output
  oslinetoken  a table: lines split at delimiter bytes, nested at separators
  udm          a user's script, run under username and password

Common properties:
  command=...              the program and its fixed arguments (required)
  script=... args=...      appended to the command line
  ENVNAME=VALUE            NAME=VALUE in the command's environment
  STDINNAME=VALUE          NAME=VALUE line on the command's standard input
  KT_METRIC_TIMEOUT=N      time limit in seconds
  KTDCLIENT_REQUEST_ID=ID  makes the run abortable (Ctrl-C)
  separateErrorStream=TRUE useStdErrForWarning=TRUE needCharsetConvert=TRUE
  isSecureCommand=TRUE username=... and a password:
  password_file=PATH       the password in a file of yours (mode 600)
  --ask-password           or typed on the terminal

Examples:
  fetchlet run os command='uname -a'
  fetchlet run os --json command='sh -c "echo out; echo err >&2"' separateErrorStream=TRUE
  fetchlet run oslinetoken command='df -P' delimiter=' ' startsWith=/dev/
  fetchlet run udm command=/opt/checks/disk.sh ID=disk valuetype=NUMBER username=udmdemo password_file=~/.udmdemo)";

struct Options {
  std::string kind;
  std::vector<std::string> assignments;
  std::string properties_file;
  bool json = false;
  std::string log_level = "warn";
  std::string log_file;
  std::string server_version;
  std::string plugin_path;
  std::string output_limit;
  LimitOptions limits;
  bool ask_password = false;
  // Values of the password= arguments, taken out of argv before parsing.
  std::vector<std::string> argv_passwords;
};

void DefineRun(CLI::App& run, Options& o) {
  run.add_option("KIND", o.kind, "os | osline | oslinetoken | udm")
      ->required();
  run.add_option("NAME=VALUE", o.assignments,
                 "properties, in order; a later one of the same name "
                 "replaces the earlier value");
  run.add_option("--properties", o.properties_file,
                 "JSON array of [name, value] pairs, or a JSON object; "
                 "these come first");
  run.add_flag("--json", o.json, "print the outcome as one JSON object");
  run.add_option("--log-level", o.log_level,
                 "trace | debug | info | warn | error | off (default warn)");
  run.add_option("--log-file", o.log_file, "write the host log to FILE");
  run.add_option("--server-version", o.server_version,
                 "server version the host reports, decimal or 0x-hex");
  run.add_option("--fetchlet-lib", o.plugin_path, "the plug-in to load");
  run.add_option("--output-limit", o.output_limit,
                 "most bytes held of each output stream of a command: "
                 "bytes, or with KiB, MiB, GiB (default 64MiB; 0: no limit)");
  run.add_option("--memory-limit", o.limits.memory,
                 "most memory the command may use, swap forbidden: bytes, or "
                 "with KiB, MiB, GiB (needs a writable cgroup)");
  run.add_option("--pids-limit", o.limits.pids,
                 "most processes and threads the command may have at once");
  run.add_option("--cpu-limit", o.limits.cpu,
                 "share of one core the command may use, e.g. 0.5");
  run.add_flag("--ask-password", o.ask_password,
               "ask for the password on the terminal, without echo");
  run.footer(kRunFooter);
}

int Usage(const std::string& message) {
  std::cerr << "fetchlet: " << message << "\n";
  return kUsageError;
}

// Applies the host settings; a message when one is not valid.
std::string ConfigureHost(const Options& o) {
  const auto level = LogLevelNamed(o.log_level);
  if (!level) return "unknown log level '" + o.log_level + "'";
  qvehost::SetLogLevel(level->host);
  if (!o.log_file.empty() && !qvehost::SetLogFile(o.log_file)) {
    return "cannot open log file " + o.log_file;
  }
  if (!o.server_version.empty()) {
    size_t used = 0;
    long version = 0;
    try {
      version = std::stol(o.server_version, &used, 0);
    } catch (const std::exception&) {
      used = 0;
    }
    if (used != o.server_version.size() || version < 0 || version > INT32_MAX) {
      return "bad server version '" + o.server_version + "'";
    }
    qvehost::SetServerVersion(static_cast<int32_t>(version));
  }
  if (!o.output_limit.empty()) {
    const auto limit = serve::ParseSize(o.output_limit);
    if (!limit) return "bad output limit '" + o.output_limit + "'";
    qvehost::SetOutputLimit(*limit);
  }
  qvehost::RunLimits limits;
  std::string error = ParseLimitOptions(o.limits, &limits);
  if (error.empty() && !qvehost::SetRunLimits(limits, &error)) {
    error = "limits cannot be applied: " + error;
  }
  return error;
}

// password_file=PATH stands for password=<the file's secret>; an empty
// password= from the command line for the value taken out of argv.
std::string ResolveSecret(Property* property,
                          std::vector<std::string>* argv_passwords) {
  auto& [name, value] = *property;
  if (name == "password_file") {
    std::string error;
    std::string secret;
    if (!ReadSecretFile(value, &secret, &error)) return error;
    name = "password";
    value.swap(secret);
  } else if (name == "password" && !argv_passwords->empty()) {
    value.swap(argv_passwords->front());
    argv_passwords->erase(argv_passwords->begin());
  }
  return "";
}

// File properties first, then the command line's.
std::string CollectProperties(Options& o, std::vector<Property>* out) {
  std::string error;
  if (!o.properties_file.empty() &&
      !ReadPropertiesFile(o.properties_file, out, &error)) {
    return error;
  }
  for (Property& property : *out) {
    std::vector<std::string> none;
    error = ResolveSecret(&property, &none);
    if (!error.empty()) return error;
  }
  for (const std::string& assignment : o.assignments) {
    Property property;
    if (!ParseAssignment(assignment, &property)) {
      return "property '" + assignment + "' is not NAME=VALUE";
    }
    error = ResolveSecret(&property, &o.argv_passwords);
    if (!error.empty()) return error;
    out->push_back(std::move(property));
  }
  return "";
}

void WipeSecrets(std::vector<Property>* properties) {
  for (auto& [name, value] : *properties) {
    if (name == "password") WipeString(&value);
  }
}

std::string RequestId(const std::vector<Property>& properties) {
  std::string id;
  for (const auto& [name, value] : properties) {
    if (name == "KTDCLIENT_REQUEST_ID") id = value;
  }
  return id;
}

// Text shows what the run cost where limits were asked for or reached.
bool ShowResources(const LimitOptions& asked, const qvehost::RunResources& r) {
  return !asked.memory.empty() || !asked.pids.empty() || !asked.cpu.empty() ||
         r.oom_kills != 0 || r.forks_refused != 0;
}

int Evaluate(const agent::EntryPoints& entry_points,
             const std::vector<Property>& properties, bool json,
             const LimitOptions& limits) {
  agent::PropertyList list = agent::NewPropertyList(properties);
  const std::string request_id = RequestId(properties);
  WatchInterrupts(request_id);
  const agent::Outcome outcome =
      agent::Evaluate(entry_points, list.get(), {0, request_id, std::nullopt});
  if (json) {
    PrintJson(std::cout, outcome.status, outcome.result.get(),
              outcome.exception.get(), ResourcesJson(outcome.resources).dump());
  } else if (outcome.status == 0) {
    PrintTable(std::cout, outcome.result.get());
  } else {
    PrintFailure(std::cerr, outcome.status, outcome.exception.get());
  }
  if (!json && ShowResources(limits, outcome.resources)) {
    PrintResources(std::cerr, outcome.resources);
  }
  return outcome.status == 0 ? 0 : 1;
}

int Run(Options& o) {
  const auto kind = agent::KindNamed(o.kind);
  if (!kind) return Usage("unknown kind '" + o.kind + "'");
  std::string error = ConfigureHost(o);
  if (!error.empty()) return Usage(error);
  std::vector<Property> properties;
  error = CollectProperties(o, &properties);
  if (!error.empty()) return Usage(error);
  if (o.ask_password) {
    bool interrupted = false;
    std::string password;
    if (!AskPassword(&password, &error, &interrupted)) {
      return interrupted ? kInterruptedStatus : Usage(error);
    }
    properties.emplace_back("password", std::move(password));
  }
  const std::string path =
      o.plugin_path.empty() ? agent::DefaultPluginPath() : o.plugin_path;
  std::unique_ptr<agent::Plugin> plugin = agent::Plugin::Load(path, &error);
  if (!plugin) return Usage("cannot load " + path + ": " + error);
  const std::optional<agent::EntryPoints> functions = plugin->Find(*kind);
  if (!functions) {
    return Usage("the " + o.kind + " fetchlet is not built yet in " + path);
  }
  const int status = Evaluate(*functions, properties, o.json, o.limits);
  WipeSecrets(&properties);
  return status;
}

}  // namespace
}  // namespace fetchlet

// Only a failed allocation escapes; it ends the program as it should.
int main(int argc, char** argv) {  // NOLINT(bugprone-exception-escape)
  // An ignored SIGCHLD from whoever started us would survive into commands.
  std::signal(SIGCHLD, SIG_DFL);
  fetchlet::BlockInterrupts();
  CLI::App app{"fetchlet: runs a metric through the OS fetchlets"};
  app.require_subcommand(1);
  app.set_version_flag("--version", "fetchlet " FETCHLET_VERSION);
  fetchlet::Options options;
  options.argv_passwords = fetchlet::TakePasswordArguments(argc, argv);
  if (!options.argv_passwords.empty()) std::cerr << fetchlet::kPasswordWarning;
  CLI::App* run = app.add_subcommand("run", "evaluate one metric");
  fetchlet::DefineRun(*run, options);
  fetchlet::CheckOptions check_options;
  CLI::App* test = fetchlet::DefineCheck(app, check_options);
  fetchlet::ServeOptions serve_options;
  CLI::App* serve = fetchlet::DefineServe(app, serve_options);
  app.footer(fetchlet::kRunFooter);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    const int code = app.exit(e);
    return code == 0 ? 0 : fetchlet::kUsageError;
  }
  if (test->parsed()) return fetchlet::RunCheck(check_options);
  if (serve->parsed()) return fetchlet::RunServe(serve_options);
  return fetchlet::Run(options);
}
