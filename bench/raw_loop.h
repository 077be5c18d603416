// The raw baseline's capture loop, shared by the benchmarks that compare the
// runner with it: poll both pipes, read at most 8207 bytes at a time, append
// each chunk with realloc to the exact size.
#ifndef QVE_BENCH_RAW_LOOP_H_
#define QVE_BENCH_RAW_LOOP_H_

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace rawloop {

inline constexpr int kReadMaximum = 8207;

[[noreturn]] inline void Die(const char* what) {
  std::fprintf(stderr, "%s: %s failed: %s\n", program_invocation_short_name,
               what, std::strerror(errno));
  std::_Exit(1);
}

struct RawText {
  char* data = nullptr;
  size_t length = 0;

  void Append(const char* chunk, size_t n) {
    auto* grown = static_cast<char*>(std::realloc(data, length + n + 1));
    if (grown == nullptr) Die("realloc");
    data = grown;
    std::memcpy(data + length, chunk, n);
    length += n;
    data[length] = '\0';
  }
};

// Reads both streams to their end: texts[0] standard output, texts[1]
// standard error. Closes both descriptors.
inline void CollectBoth(int out_fd, int err_fd, RawText (&texts)[2]) {
  pollfd fds[2] = {{out_fd, POLLIN, 0}, {err_fd, POLLIN, 0}};
  char buffer[kReadMaximum + 1];
  for (int open = 2; open > 0;) {
    if (poll(fds, 2, 1000) < 0) {
      if (errno == EINTR) continue;
      Die("poll");
    }
    for (pollfd& fd : fds) {
      if (fd.revents == 0) continue;
      const ssize_t n = read(fd.fd, buffer, kReadMaximum);
      if (n > 0) {
        texts[&fd - fds].Append(buffer, static_cast<size_t>(n));
      } else if (n == 0 || errno != EINTR) {
        close(fd.fd);
        fd.fd = -1;
        --open;
      }
    }
  }
}

}  // namespace rawloop

#endif  // QVE_BENCH_RAW_LOOP_H_
