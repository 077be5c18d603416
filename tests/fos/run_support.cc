#include "fos/run_support.h"

#include <dirent.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "fos/qvefos_runner.h"
#include "qve/embedded.h"

namespace qvetest {
namespace {

char** NewEnv(const std::vector<std::string>& env) {
  return env.empty() ? nullptr : NewArgv(env);
}

void FreeStrings(char** strings) {
  if (strings == nullptr) return;
  for (char** s = strings; *s != nullptr; ++s) qve_free0(*s, "qvefos", 0);
  qve_free0(strings, "qvefos", 0);
}

std::optional<std::string> TakeText(char* text) {
  if (text == nullptr) return std::nullopt;
  std::string copy(text);
  qve_free0(text, "qvefos", 0);
  return copy;
}

// The runner's slots, freed or copied into the outcome whatever happens.
struct RunSlots {
  char* out = nullptr;
  char* err = nullptr;
  qveue_Exception* exception = nullptr;

  RunOutcome Take(int32_t status) {
    RunOutcome outcome;
    outcome.status = status;
    outcome.out = TakeText(out);
    outcome.err = TakeText(err);
    if (exception != nullptr) {
      outcome.kind = qveue_Exception_getKind(exception);
      outcome.message = qveue_Exception_getErrorMessage(exception);
      qveue_Exception_delete(exception);
    }
    return outcome;
  }
};

}  // namespace

char** NewArgv(const std::vector<std::string>& args) {
  auto** argv = static_cast<char**>(
      qve_alloc0((args.size() + 1) * sizeof(char*), "tests", __LINE__));
  for (size_t i = 0; i < args.size(); ++i) {
    argv[i] = qve_allocpy0(args[i].c_str(), "tests", __LINE__);
  }
  return argv;
}

RunOutcome RunPlain(qvefet_Context* context,
                    const std::vector<std::string>& args,
                    const RunOptions& options) {
  char** argv = NewArgv(args);
  char** envp = NewEnv(options.env);
  RunSlots slots;
  qveulm_LogCtx* log = qveulm_getLogCtx(context->logSource, "fetchlets.os");
  const int32_t status = qvefos_executeCommand(
      context, argv, envp,
      options.stdinText ? options.stdinText->c_str() : nullptr,
      options.timeoutSeconds, options.requestId, options.separateErrorStream,
      &slots.out, &slots.err,
      options.withExceptionSlot ? &slots.exception : nullptr, log);
  FreeStrings(argv);
  FreeStrings(envp);
  return slots.Take(status);
}

RunOutcome RunSecure(qvefet_Context* context,
                     const std::vector<std::string>& args,
                     const std::string& user, const std::string& password,
                     const RunOptions& options) {
  char** argv = NewArgv(args);
  char** envp = NewEnv(options.env);
  RunSlots slots;
  qveulm_LogCtx* log = qveulm_getLogCtx(context->logSource, "fetchlets.os");
  const int32_t status = qvefos_executeSecureCommand(
      context, argv, envp,
      options.stdinText ? options.stdinText->c_str() : nullptr,
      options.timeoutSeconds, options.requestId, options.separateErrorStream,
      user.c_str(), password.c_str(), &slots.out, &slots.err,
      options.withExceptionSlot ? &slots.exception : nullptr, log);
  FreeStrings(argv);
  FreeStrings(envp);
  return slots.Take(status);
}

RunOutcome RunShell(qvefet_Context* context, const std::string& script,
                    const RunOptions& options) {
  return RunPlain(context, {"/bin/sh", "-c", script}, options);
}

std::set<int> OpenDescriptors() {
  std::set<int> fds;
  DIR* dir = opendir("/proc/self/fd");
  const int own = dirfd(dir);
  while (dirent* entry = readdir(dir)) {
    if (entry->d_name[0] == '.') continue;
    const int fd = std::atoi(entry->d_name);
    if (fd != own) fds.insert(fd);
  }
  closedir(dir);
  return fds;
}

void BecomeSubreaper() { prctl(PR_SET_CHILD_SUBREAPER, 1); }

std::vector<int> SurvivingChildren() {
  // Grandchildren of a killed group are orphaned to this process; they die
  // of the group's SIGKILL and are reaped here. One still running after a
  // while was never killed.
  std::vector<int> alive;
  for (int attempt = 0; attempt < 100; ++attempt) {
    alive.clear();
    for (int pid : ChildPids()) {
      if (waitpid(pid, nullptr, WNOHANG) == 0) alive.push_back(pid);
    }
    if (alive.empty()) break;
    usleep(30000);
  }
  return alive;
}

std::vector<int> ChildPids() {
  // Every thread's children, zombies included.
  std::vector<int> pids;
  const int self = getpid();
  DIR* proc = opendir("/proc");
  while (dirent* entry = readdir(proc)) {
    const int pid = std::atoi(entry->d_name);
    if (pid <= 0) continue;
    std::ifstream stat("/proc/" + std::string(entry->d_name) + "/stat");
    std::string line;
    std::getline(stat, line);
    const size_t close = line.rfind(')');
    if (close == std::string::npos) continue;
    std::istringstream rest(line.substr(close + 2));
    char state = 0;
    int parent = 0;
    rest >> state >> parent;
    if (parent == self) pids.push_back(pid);
  }
  closedir(proc);
  return pids;
}

}  // namespace qvetest
