// fetchlet: runs one metric through the plug-in on the embedded host.
#include <cstdint>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "interrupt.h"
#include "plugin.h"
#include "properties.h"
#include "qve/embedded.h"
#include "render.h"
#include "serve_command.h"
#include "test_command.h"

namespace fetchlet {
namespace {

constexpr int kUsageError = 2;

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
  isSecureCommand=TRUE username=... password=...

Examples:
  fetchlet run os command='uname -a'
  fetchlet run os --json command='sh -c "echo out; echo err >&2"' separateErrorStream=TRUE
  fetchlet run oslinetoken command='df -P' delimiter=' ' startsWith=/dev/)";

struct Options {
  std::string kind;
  std::vector<std::string> assignments;
  std::string propertiesFile;
  bool json = false;
  std::string logLevel = "warn";
  std::string logFile;
  std::string serverVersion;
  std::string pluginPath;
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
  return "";
}

// File properties first, then the command line's.
std::string CollectProperties(const Options& o, std::vector<Property>* out) {
  std::string error;
  if (!o.propertiesFile.empty() &&
      !ReadPropertiesFile(o.propertiesFile, out, &error)) {
    return error;
  }
  for (const std::string& assignment : o.assignments) {
    Property property;
    if (!ParseAssignment(assignment, &property)) {
      return "property '" + assignment + "' is not NAME=VALUE";
    }
    out->push_back(std::move(property));
  }
  return "";
}

std::string RequestId(const std::vector<Property>& properties) {
  std::string id;
  for (const auto& [name, value] : properties) {
    if (name == "KTDCLIENT_REQUEST_ID") id = value;
  }
  return id;
}

int Evaluate(const Family& family, const std::vector<Property>& properties,
             bool json) {
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
  if (json) {
    PrintJson(std::cout, status, result, exception);
  } else if (status == 0) {
    PrintTable(std::cout, result);
  } else {
    PrintFailure(std::cerr, status, exception);
  }
  if (result != nullptr) qvedrmr_MetricResult_delete(result);
  if (exception != nullptr) qveue_Exception_delete(exception);
  qvehost::DeletePropertyList(list);
  qvehost::DeleteContext(context);
  return status == 0 ? 0 : 1;
}

int Run(const Options& o) {
  const auto family = kFamilies.find(o.kind);
  if (family == kFamilies.end()) return Usage("unknown kind '" + o.kind + "'");
  std::string error = ConfigureHost(o);
  if (!error.empty()) return Usage(error);
  std::vector<Property> properties;
  error = CollectProperties(o, &properties);
  if (!error.empty()) return Usage(error);
  const std::string path =
      o.pluginPath.empty() ? DefaultPluginPath() : o.pluginPath;
  std::unique_ptr<Plugin> plugin = Plugin::Load(path, &error);
  if (!plugin) return Usage("cannot load " + path + ": " + error);
  const std::optional<Family> functions = plugin->Find(family->second);
  if (!functions) {
    return Usage("the " + o.kind + " fetchlet is not built yet in " + path);
  }
  return Evaluate(*functions, properties, o.json);
}

}  // namespace
}  // namespace fetchlet

int main(int argc, char** argv) {
  fetchlet::BlockInterrupts();
  CLI::App app{"fetchlet: runs a metric through the OS fetchlets"};
  app.require_subcommand(1);
  fetchlet::Options options;
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
