// The clone of a command's process and all the child does before exec.
#ifndef QVE_HOST_SRC_CLONE_CHILD_H_
#define QVE_HOST_SRC_CLONE_CHILD_H_

#include <sys/types.h>

#include <cstddef>

namespace qvehost::internal {

// Everything the child reads, as plain pointers into the parent's memory,
// made before the clone: the child shares that memory while the parent
// waits, so it may only read these and make system calls.
struct ChildPlan {
  const int* child_fds = nullptr;  // [3]: onto 0, 1, 2; -1: /dev/null
  const int* sources = nullptr;    // [inherited], at or above floor
  const int* targets = nullptr;    // [inherited], below floor
  size_t inherited = 0;
  int floor = 3;  // everything from here up is closed on exec
  const char* program = nullptr;       // the file to execute
  char* const* argv = nullptr;
  char* const* script_argv = nullptr;  // /bin/sh PROGRAM ARGS... for ENOEXEC
  char* const* envp = nullptr;
  const int* joins = nullptr;  // [join_count]: cgroup.procs files to join
  size_t join_count = 0;
  // Where the start's errno goes when exec fails: report_fd, or where the
  // child shares the parent's memory (report_fd -1), *exec_error.
  int report_fd = -1;
  int* exec_error = nullptr;
};

// Whether the child shares the parent's memory until its exec.
bool ChildSharesMemory();

// Starts the child in the cgroup cgroup_fd (-1: none; a cgroup the kernel
// refuses is left out), with a pidfd in *pidfd where the kernel would reap
// the child (else -1). The child's pid, or -1 with errno set.
pid_t CloneChild(const ChildPlan& plan, int cgroup_fd, int* pidfd);

}  // namespace qvehost::internal

#endif  // QVE_HOST_SRC_CLONE_CHILD_H_
