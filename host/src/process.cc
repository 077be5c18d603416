// The plain process family: a command the host starts itself, and its
// registration with the multiplexer.
#include <unistd.h>

#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "guard.h"
#include "child_process.h"
#include "host_internal.h"
#include "iomux.h"
#include "qve/host.h"

using qvehost::internal::ChildProcess;

struct sqvejcp_Process {
  qvefet_Context* context = nullptr;
  std::vector<char> strings;  // the copied arguments and environment
  std::vector<char*> argv;    // into strings, null-terminated
  std::vector<char*> envp;    // into strings, null-terminated
  bool host_environment = true;
  ChildProcess child;
};

namespace {

// The entries before count or the first null one, whichever comes first.
size_t CountEntries(char** strings, int32_t count) {
  if (strings == nullptr || count <= 0) return 0;
  size_t n = 0;
  while (n < static_cast<size_t>(count) && strings[n] != nullptr) ++n;
  return n;
}

size_t CountBytes(char** strings, size_t n) {
  size_t bytes = 0;
  for (size_t i = 0; i < n; ++i) bytes += std::strlen(strings[i]) + 1;
  return bytes;
}

// Copies n strings to *next onwards and points out at the copies.
void CopyStrings(char** strings, size_t n, char** next,
                 std::vector<char*>* out) {
  out->reserve(n + 1);
  for (size_t i = 0; i < n; ++i) {
    const size_t bytes = std::strlen(strings[i]) + 1;
    std::memcpy(*next, strings[i], bytes);
    out->push_back(*next);
    *next += bytes;
  }
  out->push_back(nullptr);
}

char** HostEnvironment() {
  // clearenv() leaves environ null; the child then gets an empty one.
  static char* empty[] = {nullptr};
  return environ != nullptr ? environ : empty;
}

}  // namespace

using qvehost::internal::Guarded;

extern "C" {

sqvejcp_Process* sqvejcp_Process_new_argv_envp(qvefet_Context* fetchletContext,
                                               char** argv, int32_t argc,
                                               char** envp, int32_t envc) {
  return Guarded<sqvejcp_Process*>(
      __func__, nullptr, [&]() -> sqvejcp_Process* {
    auto process = std::make_unique<sqvejcp_Process>();
    process->context = fetchletContext;
    const size_t args = CountEntries(argv, argc);
    const size_t envs = CountEntries(envp, envc);
    process->strings.resize(CountBytes(argv, args) + CountBytes(envp, envs));
    char* next = process->strings.data();
    CopyStrings(argv, args, &next, &process->argv);
    if (envp != nullptr) {
      process->host_environment = false;
      CopyStrings(envp, envs, &next, &process->envp);
    }
    return process.release();
  });
}

int32_t sqvejcp_Process_run_need_pipes(sqvejcp_Process* process, int32_t mask) {
  return Guarded<int32_t>(__func__, -1, [&]() -> int32_t {
    if (process == nullptr) return -1;
    const int32_t forced = qvehost::internal::ForcedStartResult();
    if (forced != 0) return forced;
    if (process->child.started() || process->argv.size() < 2) return -1;
    qvehost::internal::SpawnRequest request;
    request.argv = process->argv.data();
    // The host's environment as it is now, not as it was at creation.
    request.envp =
        process->host_environment ? HostEnvironment() : process->envp.data();
    request.mask = mask & QVE_STREAM_ALL;
    return qvehost::internal::StartResultCode(process->child.Start(request));
  });
}

int32_t sqvejcp_Process_stdin_write(sqvejcp_Process* process, const char* data,
                                    uint32_t length) {
  return Guarded<int32_t>(__func__, -1, [&]() -> int32_t {
    if (process == nullptr) return QVE_WRITE_FAILED;
    return process->child.WriteStdin(data, length);
  });
}

void sqvejcp_Process_stdin_close(sqvejcp_Process* process) {
  Guarded(__func__, [&] {
    if (process != nullptr) process->child.CloseStdin();
  });
}

int32_t sqvejcp_Process_stdout_read(sqvejcp_Process* process, char* buffer,
                                    int32_t maximum) {
  return Guarded<int32_t>(__func__, -1, [&]() -> int32_t {
    if (process == nullptr) return -1;
    return process->child.Read(QVE_STREAM_STDOUT, buffer, maximum);
  });
}

int32_t sqvejcp_Process_stderr_read(sqvejcp_Process* process, char* buffer,
                                    int32_t maximum) {
  return Guarded<int32_t>(__func__, -1, [&]() -> int32_t {
    if (process == nullptr) return -1;
    return process->child.Read(QVE_STREAM_STDERR, buffer, maximum);
  });
}

void sqvejcp_Process_stdout_close(sqvejcp_Process* process) {
  Guarded(__func__, [&] {
    if (process != nullptr) process->child.CloseOutput(QVE_STREAM_STDOUT);
  });
}

void sqvejcp_Process_stderr_close(sqvejcp_Process* process) {
  Guarded(__func__, [&] {
    if (process != nullptr) process->child.CloseOutput(QVE_STREAM_STDERR);
  });
}

int32_t sqvejcp_Process_blocking_wait(sqvejcp_Process* process) {
  return Guarded<int32_t>(__func__, -1, [&]() -> int32_t {
    if (process == nullptr) return -1;
    return process->child.Wait();
  });
}

int32_t sqvejcp_Process_kill(sqvejcp_Process* process) {
  return Guarded<int32_t>(__func__, -1, [&]() -> int32_t {
    if (process == nullptr) return -1;
    return process->child.Kill();
  });
}

int32_t sqvejcp_Process_getExitValue(sqvejcp_Process* process,
                                     int32_t* exitValue) {
  return Guarded<int32_t>(__func__, -1, [&]() -> int32_t {
    if (process == nullptr || exitValue == nullptr) return -1;
    process->child.PollExit();
    *exitValue = process->child.exit_value();
    return *exitValue >= 0 ? 0 : -1;
  });
}

void sqvejcp_Process_delete(sqvejcp_Process* process) {
  Guarded(__func__, [&] {
    delete process;
  });
}

int32_t sqvejcx_IOMuxor_addProcess(sqvejcx_IOMuxor* mux,
                                   sqvejcp_Process* process, int32_t mask) {
  return Guarded<int32_t>(__func__, -1, [&]() -> int32_t {
    if (process == nullptr) return -1;
    return qvehost::internal::MuxAddSource(mux, &process->child, process, mask);
  });
}

int32_t sqvejcx_IOMuxor_removeProcess(sqvejcx_IOMuxor* mux,
                                      sqvejcp_Process* process, int32_t kind) {
  return Guarded<int32_t>(__func__, -1, [&]() -> int32_t {
    if (process == nullptr) return -1;
    return qvehost::internal::MuxRemoveSource(mux, &process->child, kind);
  });
}

}  // extern "C"
