// The clone of a command's process: clone3, straight into the run's cgroup
// (so that no fast double fork escapes before it is contained), with a
// pidfd where the host ignores SIGCHLD (the kernel then reaps the child, and
// only the pidfd keeps its exit status).
//
// On x86-64 the child shares the parent's memory on a stack of its own
// while the parent waits (CLONE_VM | CLONE_VFORK), as posix_spawn's child
// does, so no page table is copied however large the host is, and a failed
// exec leaves its errno in that memory (no report pipe). Elsewhere it
// gets a copy, as after fork. Either way the child only reads its plan and
// makes system calls, directly: libc's wrappers may be intercepted by a
// sanitizer whose locks another thread of the host may hold.
#include "clone_child.h"

#include <fcntl.h>
#include <linux/close_range.h>
#include <linux/sched.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>

// The child runs where the sanitizers do not look (another stack, memory
// shared with a parent that waits): nothing in it is instrumented.
#define QVE_CHILD_CODE \
  __attribute__((no_sanitize("address", "thread", "undefined")))

namespace qvehost::internal {
namespace {

constexpr char kDevNull[] = "/dev/null";
constexpr char kShell[] = "/bin/sh";

namespace child {

QVE_CHILD_CODE long Call(long number, long a = 0, long b = 0, long c = 0,
                         long d = 0) {
  return syscall(number, a, b, c, d);
}

template <typename T>
QVE_CHILD_CODE long Arg(T* pointer) {
  return reinterpret_cast<long>(pointer);
}

// The start's errno to the parent: into its memory where the child shares
// it, else down the report pipe.
[[noreturn]] QVE_CHILD_CODE void ReportAndExit(const ChildPlan& plan) {
  const int error = errno != 0 ? errno : EINVAL;
  if (plan.report_fd < 0) {
    *plan.exec_error = error;
  } else {
    while (Call(SYS_write, plan.report_fd, Arg(&error), sizeof error) < 0 &&
           errno == EINTR) {
    }
  }
  for (;;) Call(SYS_exit, 127);
}

// Every signal to its default (also the two glibc keeps for its threads: an
// ignored signal survives the exec); the raw call takes an all-zero action
// as SIG_DFL with no flags and an empty mask.
QVE_CHILD_CODE void DefaultAllSignals() {
  const unsigned long zero_action[4] = {0, 0, 0, 0};
  for (long sig = 1; sig < NSIG; ++sig) {
    if (sig == SIGKILL || sig == SIGSTOP) continue;
    Call(SYS_rt_sigaction, sig, Arg(zero_action), 0, NSIG / 8);
  }
}

// Moves the streams onto 0, 1 and 2, the inherited descriptors onto theirs
// (a source is never its target: sources sit at or above the floor), and
// marks every other descriptor close-on-exec (the report pipe must stay open
// until the exec succeeds).
QVE_CHILD_CODE bool ArrangeDescriptors(const ChildPlan& plan) {
  for (int i = 0; i < 3; ++i) {
    int source = plan.child_fds[i];
    if (source < 0) {
      source = static_cast<int>(Call(SYS_openat, AT_FDCWD, Arg(kDevNull),
                                     i == 0 ? O_RDONLY : O_WRONLY));
      if (source < 0) return false;
      if (source == i) continue;
    }
    if (Call(SYS_dup3, source, i, 0) < 0) return false;
    if (plan.child_fds[i] < 0) Call(SYS_close, source);
  }
  for (size_t i = 0; i < plan.inherited; ++i) {
    if (Call(SYS_dup3, plan.sources[i], plan.targets[i], 0) < 0) return false;
  }
  return Call(SYS_close_range, plan.floor, ~0U, CLOSE_RANGE_CLOEXEC) == 0;
}

// Into the run's v1 cgroups (the hybrid layout), where its limits are.
QVE_CHILD_CODE bool JoinCgroups(const ChildPlan& plan) {
  for (size_t i = 0; i < plan.join_count; ++i) {
    if (Call(SYS_write, plan.joins[i], Arg("0"), 1) != 1) return false;
  }
  return true;
}

[[noreturn]] QVE_CHILD_CODE void Run(const ChildPlan* plan) {
  DefaultAllSignals();
  // Own process group, so that a kill reaches what the command starts.
  if (Call(SYS_setpgid, 0, 0) != 0 || !JoinCgroups(*plan) ||
      !ArrangeDescriptors(*plan)) {
    ReportAndExit(*plan);
  }
  const unsigned long none = 0;
  Call(SYS_rt_sigprocmask, SIG_SETMASK, Arg(&none), 0, sizeof none);
  Call(SYS_execve, Arg(plan->program), Arg(plan->argv), Arg(plan->envp));
  // A file the kernel refuses to execute (a script without "#!") runs
  // through /bin/sh, as execvp does.
  if (errno == ENOEXEC) {
    Call(SYS_execve, Arg(kShell), Arg(plan->script_argv), Arg(plan->envp));
  }
  ReportAndExit(*plan);
}

}  // namespace child

#if defined(__x86_64__)
constexpr uint64_t kShareMemory = CLONE_VM | CLONE_VFORK;
constexpr size_t kChildStack = size_t{64} << 10;

// clone3 with the child on its own stack, where it calls child::Run(plan):
// glibc has no clone3 wrapper, and the child could not return through
// syscall() on a new stack. The kernel keeps every register but rax, rcx
// and r11. The raw result: the pid, or -errno.
long Clone3(clone_args* args, const ChildPlan* plan) {
  void (*run)(const ChildPlan*) = child::Run;
  long result;
  asm volatile(
      "syscall\n\t"
      "testq %%rax, %%rax\n\t"
      "jnz 1f\n\t"
      "xorl %%ebp, %%ebp\n\t"
      "movq %[plan], %%rdi\n\t"
      "callq *%[run]\n\t"
      "hlt\n"
      "1:"
      : "=a"(result)
      : "a"(static_cast<long>(SYS_clone3)), "D"(args), "S"(sizeof *args),
        [run] "r"(run), [plan] "r"(plan)
      : "rcx", "r11", "memory", "cc");
  return result;
}
#else
constexpr uint64_t kShareMemory = 0;
constexpr size_t kChildStack = 0;

long Clone3(clone_args* args, const ChildPlan* plan) {
  const long pid = syscall(SYS_clone3, args, sizeof *args);
  if (pid == 0) child::Run(plan);
  return pid < 0 ? -errno : pid;
}
#endif

// The child's stack, made once a thread: a thread's clones follow one
// another, each done before the next (the parent waits for the exec).
class ChildStack {
 public:
  ~ChildStack() {
    if (base_ != nullptr) munmap(base_, kChildStack);
  }
  void* Get() {
    if (base_ == nullptr && kChildStack > 0) {
      void* base = mmap(nullptr, kChildStack, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
      base_ = base != MAP_FAILED ? base : nullptr;
    }
    return base_;
  }

 private:
  void* base_ = nullptr;
};

thread_local ChildStack t_stack;

// Only a kernel that reaps children itself (SIGCHLD ignored, or
// SA_NOCLDWAIT) takes the exit status away; a pidfd keeps it then.
bool KernelReapsChildren() {
  struct sigaction action;
  return sigaction(SIGCHLD, nullptr, &action) != 0 ||
         action.sa_handler == SIG_IGN || (action.sa_flags & SA_NOCLDWAIT) != 0;
}

}  // namespace

bool ChildSharesMemory() { return kShareMemory != 0; }

pid_t CloneChild(const ChildPlan& plan, int cgroup_fd, int* pidfd) {
  void* stack = t_stack.Get();
  if (kChildStack > 0 && stack == nullptr) return -1;
  clone_args args;
  std::memset(&args, 0, sizeof args);
  args.exit_signal = SIGCHLD;
  args.flags = kShareMemory;
  *pidfd = -1;
  if (KernelReapsChildren()) {
    args.flags |= CLONE_PIDFD;
    args.pidfd = reinterpret_cast<uintptr_t>(pidfd);
  }
  args.stack = reinterpret_cast<uintptr_t>(stack);
  args.stack_size = kChildStack;
  if (cgroup_fd >= 0) {
    args.flags |= CLONE_INTO_CGROUP;
    args.cgroup = static_cast<uint64_t>(cgroup_fd);
  }
  // Every signal blocked, so that no handler of the host runs in the child
  // before its dispositions are reset.
  sigset_t all, old;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &old);
  long result = Clone3(&args, &plan);
  if (result < 0 && result != -EAGAIN && cgroup_fd >= 0) {
    // A cgroup the kernel refuses: the process group still contains.
    args.flags &= ~static_cast<uint64_t>(CLONE_INTO_CGROUP);
    result = Clone3(&args, &plan);
  }
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
  if (result < 0) {
    errno = static_cast<int>(-result);
    return -1;
  }
  return static_cast<pid_t>(result);
}

}  // namespace qvehost::internal
