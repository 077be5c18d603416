// Running commands through the plug-in's runners from tests.
#ifndef QVE_TESTS_FOS_RUN_SUPPORT_H_
#define QVE_TESTS_FOS_RUN_SUPPORT_H_

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "qve/host.h"

namespace qvetest {

// What a run handed back.
struct RunOutcome {
  int32_t status = 0;
  std::optional<std::string> out;  // nullopt: the slot held null
  std::optional<std::string> err;
  int32_t kind = 0;                // 0: no exception
  std::string message;
};

struct RunOptions {
  std::vector<std::string> env;    // empty: null environment
  std::optional<std::string> stdinText;
  int32_t timeoutSeconds = -1;
  const char* requestId = nullptr;
  int32_t separateErrorStream = 0;
  bool withExceptionSlot = true;
};

// argv as the runner takes it: host-allocated strings under "qvefos".
char** NewArgv(const std::vector<std::string>& args);

// Runs args through qvefos_executeCommand and frees everything it made.
RunOutcome RunPlain(qvefet_Context* context,
                    const std::vector<std::string>& args,
                    const RunOptions& options = {});

// Runs args through qvefos_executeSecureCommand as user with password.
RunOutcome RunSecure(qvefet_Context* context,
                     const std::vector<std::string>& args,
                     const std::string& user, const std::string& password,
                     const RunOptions& options = {});

// Runs "/bin/sh -c script".
RunOutcome RunShell(qvefet_Context* context, const std::string& script,
                    const RunOptions& options = {});

// The descriptors this process has open.
std::set<int> OpenDescriptors();

// Makes this process the reaper of orphaned descendants, so tests can see
// that none is left.
void BecomeSubreaper();
// Pids of this process's children, zombies included.
std::vector<int> ChildPids();
// Reaps the orphans a killed run left to this process and returns the
// children still running after a few seconds: none, if nothing leaked.
std::vector<int> SurvivingChildren();

}  // namespace qvetest

#endif  // QVE_TESTS_FOS_RUN_SUPPORT_H_
