// Starting host processes in tests, and checks that a test left no process
// and no descriptor behind.
#ifndef QVE_TESTS_COMMON_PROCESSES_H_
#define QVE_TESTS_COMMON_PROCESSES_H_

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "qve/host.h"

namespace qvetest {

using ProcessPtr =
    std::unique_ptr<sqvejcp_Process, decltype(&sqvejcp_Process_delete)>;

// strings as the null-terminated array exec takes; they must outlive it.
inline std::vector<char*> Pointers(std::vector<std::string>& strings) {
  std::vector<char*> pointers;
  for (std::string& s : strings) pointers.push_back(s.data());
  pointers.push_back(nullptr);
  return pointers;
}

// argv started with all three pipes; standard input stays open.
inline ProcessPtr StartPiped(std::vector<std::string> argv) {
  std::vector<char*> args = Pointers(argv);
  ProcessPtr process(
      sqvejcp_Process_new_argv_envp(
          nullptr, args.data(), static_cast<int32_t>(argv.size()), nullptr, 0),
      sqvejcp_Process_delete);
  EXPECT_EQ(sqvejcp_Process_run_need_pipes(process.get(), QVE_STREAM_ALL), 0);
  return process;
}

// The last write's result: a byte count, or the failure code.
inline int32_t WriteAll(sqvejcp_Process* process, std::string_view input) {
  int32_t n = 0;
  while (!input.empty() && (n = sqvejcp_Process_stdin_write(
                                process, input.data(),
                                static_cast<uint32_t>(input.size()))) > 0) {
    input.remove_prefix(static_cast<size_t>(n));
  }
  return n;
}

// -1 also when getExitValue reports failure, as it must then.
inline int32_t ExitValue(sqvejcp_Process* process) {
  int32_t exit_value = 0;
  const int32_t rc = sqvejcp_Process_getExitValue(process, &exit_value);
  EXPECT_EQ(rc != 0, exit_value == -1);
  return exit_value;
}

// Writes the input, reads standard output to its end and waits: the exit
// value and the output.
inline std::pair<int32_t, std::string> RunToEnd(std::vector<std::string> argv,
                                                std::string_view input = {}) {
  ProcessPtr process = StartPiped(std::move(argv));
  WriteAll(process.get(), input);
  sqvejcp_Process_stdin_close(process.get());
  std::string out;
  char buffer[8207];
  int32_t n;
  while ((n = sqvejcp_Process_stdout_read(process.get(), buffer,
                                          sizeof buffer)) > 0) {
    out.append(buffer, static_cast<size_t>(n));
  }
  EXPECT_EQ(n, QVE_END_OF_STREAM);
  EXPECT_EQ(sqvejcp_Process_blocking_wait(process.get()), 0);
  return {ExitValue(process.get()), out};
}

// Starts argv with standard output written to the file out and standard
// error to err (one file when they are the same path); -1 when it cannot.
inline pid_t SpawnWithOutput(std::vector<std::string> argv,
                             const std::string& out, const std::string& err) {
  std::vector<char*> args = Pointers(argv);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC;
  posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), kFlags, 0600);
  if (err == out) {
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
  } else {
    posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), kFlags, 0600);
  }
  pid_t pid = -1;
  if (posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ)) {
    pid = -1;
  }
  posix_spawn_file_actions_destroy(&actions);
  return pid;
}

// This process's open descriptors. The listing's own is among them, the
// same one every time while the others are the same.
inline std::set<int> OpenDescriptors() {
  std::set<int> fds;
  for (const auto& fd : std::filesystem::directory_iterator("/proc/self/fd")) {
    fds.insert(std::stoi(fd.path().filename()));
  }
  return fds;
}

// Makes this process the reaper of orphaned descendants, so tests can see
// that none is left.
inline void BecomeSubreaper() { prctl(PR_SET_CHILD_SUBREAPER, 1); }

// This process's children, zombies included, of every thread.
inline std::vector<int> ChildPids() {
  std::vector<int> pids;
  for (const auto& task :
       std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream children(task.path() / "children");
    for (int pid = 0; children >> pid;) pids.push_back(pid);
  }
  return pids;
}

// Reaps the orphans a killed run left here and returns the children still
// running after a few seconds: none, if nothing leaked. Grandchildren of a
// killed group die of the group's SIGKILL; one still running was never
// killed.
inline std::vector<int> SurvivingChildren() {
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

}  // namespace qvetest

#endif  // QVE_TESTS_COMMON_PROCESSES_H_
