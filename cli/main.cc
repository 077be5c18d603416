// fetchlet: runs one metric through the plug-in on the embedded host.
#include <csignal>
#include <cstdint>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "byte_size.h"
#include "interrupt.h"
#include "password.h"
#include "plugin.h"
#include "properties.h"
#include "qve/embedded.h"
#include "render.h"
#include "run_limits.h"
#include "serve/secret_file.h"
#include "serve_command.h"
#include "test_command.h"

namespace fetchlet {
namespace {

constexpr int kUsageError = 2;
constexpr int kInterruptedStatus = 130;

constexpr char kPasswordWarning[] =
    "fetchlet: warning: a password given as password= on the command line "
    "can be read by other local users; use password_file=PATH or "
    "--ask-password\n";

const std::map<std::string, std::string> kFamilies = {
    {"os", "qvefos"},
    {"osline", "qvefosl"},
    {"oslinetoken", "qvefoslt"},
    {"udm", "qvefosud"}};

const std::map<std::string, qvehost::LogLevel> kLevels = {
    {"trace", qvehost::LogLevel::kTrace}, {"debug", qvehost::LogLevel::kDebug},
    {"warn", qvehost::LogLevel::kWarn},   {"error", qvehost::LogLevel::kError},
    {"off", qvehost::LogLevel::kOff}};

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
  std::string propertiesFile;
  bool json = false;
  std::string logLevel = "warn";
  std::string logFile;
  std::string serverVersion;
  std::string pluginPath;
  std::string outputLimit;
  LimitOptions limits;
  bool askPassword = false;
  // Values of the password= arguments, taken out of argv before parsing.
  std::vector<std::string> argvPasswords;
};

void DefineRun(CLI::App& run, Options& o) {
  run.add_option("KIND", o.kind, "os | osline | oslinetoken | udm")
      ->required();
  run.add_option("NAME=VALUE", o.assignments,
                 "properties, in order; a later one of the same name "
                 "replaces the earlier value");
  run.add_option("--properties", o.propertiesFile,
                 "JSON array of [name, value] pairs, or a JSON object; "
                 "these come first");
  run.add_flag("--json", o.json, "print the outcome as one JSON object");
  run.add_option("--log-level", o.logLevel,
                 "trace | debug | warn | error | off (default warn)");
  run.add_option("--log-file", o.logFile, "write the host log to FILE");
  run.add_option("--server-version", o.serverVersion,
                 "server version the host reports, decimal or 0x-hex");
  run.add_option("--fetchlet-lib", o.pluginPath, "the plug-in to load");
  run.add_option("--output-limit", o.outputLimit,
                 "most bytes held of each output stream of a command: "
                 "bytes, or with KiB, MiB, GiB (default 64MiB; 0: no limit)");
  run.add_option("--memory-limit", o.limits.memory,
                 "most memory the command may use, swap forbidden: bytes, or "
                 "with KiB, MiB, GiB (needs a writable cgroup v2)");
  run.add_option("--pids-limit", o.limits.pids,
                 "most processes and threads the command may have at once");
  run.add_option("--cpu-limit", o.limits.cpu,
                 "share of one core the command may use, e.g. 0.5");
  run.add_flag("--ask-password", o.askPassword,
               "ask for the password on the terminal, without echo");
  run.footer(kRunFooter);
}

int Usage(const std::string& message) {
  std::cerr << "fetchlet: " << message << "\n";
  return kUsageError;
}

// Applies the host settings; a message when one is not valid.
std::string ConfigureHost(const Options& o) {
  const auto level = kLevels.find(o.logLevel);
  if (level == kLevels.end()) return "unknown log level '" + o.logLevel + "'";
  qvehost::SetLogLevel(level->second);
  if (!o.logFile.empty() && !qvehost::SetLogFile(o.logFile)) {
    return "cannot open log file " + o.logFile;
  }
  if (!o.serverVersion.empty()) {
    size_t used = 0;
    long version = 0;
    try {
      version = std::stol(o.serverVersion, &used, 0);
    } catch (const std::exception&) {
      used = 0;
    }
    if (used != o.serverVersion.size() || version < 0 || version > INT32_MAX) {
      return "bad server version '" + o.serverVersion + "'";
    }
    qvehost::SetServerVersion(static_cast<int32_t>(version));
  }
  if (!o.outputLimit.empty()) {
    uint64_t limit = 0;
    if (!ParseByteSize(o.outputLimit, &limit)) {
      return "bad output limit '" + o.outputLimit + "'";
    }
    qvehost::SetOutputLimit(limit);
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
                          std::vector<std::string>* argvPasswords) {
  auto& [name, value] = *property;
  if (name == "password_file") {
    std::string error;
    std::string secret;
    if (!ReadSecretFile(value, &secret, &error)) return error;
    name = "password";
    value.swap(secret);
  } else if (name == "password" && !argvPasswords->empty()) {
    value.swap(argvPasswords->front());
    argvPasswords->erase(argvPasswords->begin());
  }
  return "";
}

// File properties first, then the command line's.
std::string CollectProperties(Options& o, std::vector<Property>* out) {
  std::string error;
  if (!o.propertiesFile.empty() &&
      !ReadPropertiesFile(o.propertiesFile, out, &error)) {
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
    error = ResolveSecret(&property, &o.argvPasswords);
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

int Evaluate(const Family& family, const std::vector<Property>& properties,
             bool json, const LimitOptions& limits) {
  qvefet_Context* context = qvehost::NewContext();
  qvlnv_NVList* list = qvehost::NewPropertyList();
  for (const auto& [name, value] : properties) {
    qvehost::SetProperty(list, name, value);
  }
  qvefet_Fetchlet* fetchlet = nullptr;
  int32_t status = family.getFetchlet(context, &fetchlet);
  qvedrmr_MetricResult* result = nullptr;
  qveue_Exception* exception = nullptr;
  if (status == 0) {
    WatchInterrupts(RequestId(properties));
    status = family.getMetric(context, list, &result, &exception);
    family.freeFetchlet(fetchlet);
  }
  const qvehost::RunResources resources = qvehost::TakeRunResources();
  if (json) {
    PrintJson(std::cout, status, result, exception,
              qvehost::RunResourcesToJson(resources).dump());
  } else if (status == 0) {
    PrintTable(std::cout, result);
  } else {
    PrintFailure(std::cerr, status, exception);
  }
  if (!json && ShowResources(limits, resources)) {
    PrintResources(std::cerr, resources);
  }
  if (result != nullptr) qvedrmr_MetricResult_delete(result);
  if (exception != nullptr) qveue_Exception_delete(exception);
  qvehost::DeletePropertyList(list);
  qvehost::DeleteContext(context);
  return status == 0 ? 0 : 1;
}

int Run(Options& o) {
  const auto family = kFamilies.find(o.kind);
  if (family == kFamilies.end()) return Usage("unknown kind '" + o.kind + "'");
  std::string error = ConfigureHost(o);
  if (!error.empty()) return Usage(error);
  std::vector<Property> properties;
  error = CollectProperties(o, &properties);
  if (!error.empty()) return Usage(error);
  if (o.askPassword) {
    bool interrupted = false;
    std::string password;
    if (!AskPassword(&password, &error, &interrupted)) {
      return interrupted ? kInterruptedStatus : Usage(error);
    }
    properties.emplace_back("password", std::move(password));
  }
  const std::string path =
      o.pluginPath.empty() ? DefaultPluginPath() : o.pluginPath;
  std::unique_ptr<Plugin> plugin = Plugin::Load(path, &error);
  if (!plugin) return Usage("cannot load " + path + ": " + error);
  const std::optional<Family> functions = plugin->Find(family->second);
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
  app.set_version_flag("--version", "fetchlet " QVE_PROJECT_VERSION);
  fetchlet::Options options;
  options.argvPasswords = fetchlet::TakePasswordArguments(argc, argv);
  if (!options.argvPasswords.empty()) std::cerr << fetchlet::kPasswordWarning;
  CLI::App* run = app.add_subcommand("run", "evaluate one metric");
  fetchlet::DefineRun(*run, options);
  fetchlet::TestOptions test_options;
  CLI::App* test = fetchlet::DefineTest(app, test_options);
  fetchlet::ServeOptions serve_options;
  CLI::App* serve = fetchlet::DefineServe(app, serve_options);
  app.footer(fetchlet::kRunFooter);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    const int code = app.exit(e);
    return code == 0 ? 0 : fetchlet::kUsageError;
  }
  if (test->parsed()) return fetchlet::RunTest(test_options);
  if (serve->parsed()) return fetchlet::RunServe(serve_options);
  return fetchlet::Run(options);
}
