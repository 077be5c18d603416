// fetchlet-exit-status PROGRAM [ARGUMENT...]
//
// Runs PROGRAM (a path, never through a shell) with the arguments as they
// stand, copies its standard output to ours and then appends a line of its
// own: "fetchlet-exit-status N". N is the exit status, or 128 + the signal
// that ended it. It exits 0 itself whenever PROGRAM ran, since the fetchlets
// turn a non-zero exit into an exception and the status would be lost.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "serve/format_nagios.h"

namespace {

// Writes all of data; false once the reader is gone.
bool WriteAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    const ssize_t n = write(fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

// Copies from to standard output until end of file or until our reader is
// gone (then the program meets a closed pipe, as in any pipeline); the last
// byte copied, or '\n' when there was none.
char Copy(int from) {
  char last = '\n';
  char buffer[65536];
  while (true) {
    const ssize_t n = read(from, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    last = buffer[n - 1];
    if (!WriteAll(STDOUT_FILENO, buffer, static_cast<size_t>(n))) break;
  }
  return last;
}

int Wait(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return 127;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || std::strchr(argv[1], '/') == nullptr) {
    std::fputs("usage: fetchlet-exit-status /PATH/TO/PLUGIN [ARGUMENT...]\n", stderr);
    return 2;
  }
  signal(SIGPIPE, SIG_IGN);
  int pipe_fds[2];
  if (pipe2(pipe_fds, O_CLOEXEC) != 0) {
    std::perror("fetchlet-exit-status: pipe");
    return 1;
  }
  const pid_t pid = fork();
  if (pid < 0) {
    std::perror("fetchlet-exit-status: fork");
    return 1;
  }
  if (pid == 0) {
    signal(SIGPIPE, SIG_DFL);
    if (dup2(pipe_fds[1], STDOUT_FILENO) < 0) _exit(127);
    execv(argv[1], argv + 1);
    const std::string message =
        std::string("fetchlet-exit-status: ") + argv[1] + ": " + std::strerror(errno) + "\n";
    WriteAll(STDERR_FILENO, message.data(), message.size());
    _exit(127);
  }
  close(pipe_fds[1]);
  const char last = Copy(pipe_fds[0]);
  close(pipe_fds[0]);
  std::string line = last == '\n' ? "" : "\n";
  line.append(fetchlet::serve::kExitStatusMarker);
  line.append(std::to_string(Wait(pid))).push_back('\n');
  WriteAll(STDOUT_FILENO, line.data(), line.size());
  return 0;
}
