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
  int report_fd = -1;  // the start's errno goes here when exec fails
};

// Starts the child in the cgroup cgroup_fd (-1: none; a cgroup the kernel
// refuses is left out), its pidfd in *pidfd. The child's pid, or -1 with
// errno set.
pid_t CloneChild(const ChildPlan& plan, int cgroup_fd, int* pidfd);

}  // namespace qvehost::internal

#endif  // QVE_HOST_SRC_CLONE_CHILD_H_
