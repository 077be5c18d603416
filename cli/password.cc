#include "password.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>

namespace fetchlet {
namespace {

constexpr char kPrompt[] = "Password: ";
constexpr std::string_view kPasswordArgument = "password=";
constexpr size_t kMaxPassword = 4096;

void WriteAll(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t n = write(fd, text.data(), text.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    text.remove_prefix(static_cast<size_t>(n));
  }
}

bool InterruptPending() {
  sigset_t pending;
  if (sigpending(&pending) != 0) return false;
  return sigismember(&pending, SIGINT) == 1 ||
         sigismember(&pending, SIGTERM) == 1;
}

enum class LineEnd { kLine, kEnd, kInterrupted, kFailed };

// Reads up to a line feed, a byte at a time so that nothing past it is
// taken, and looks for an interrupt while it waits.
LineEnd ReadLine(int tty, std::string* line) {
  for (;;) {
    if (InterruptPending()) return LineEnd::kInterrupted;
    pollfd ready{tty, POLLIN, 0};
    const int polled = poll(&ready, 1, 100);
    if (polled < 0 && errno != EINTR) return LineEnd::kFailed;
    if (polled <= 0) continue;
    char byte;
    const ssize_t n = read(tty, &byte, 1);
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (n < 0) return LineEnd::kFailed;
    if (n == 0) return LineEnd::kEnd;
    if (byte == '\n') return LineEnd::kLine;
    if (line->size() == kMaxPassword) return LineEnd::kFailed;
    line->push_back(byte);
  }
}

}  // namespace

bool AskPassword(std::string* password, std::string* error,
                 bool* interrupted) {
  *interrupted = false;
  const int tty = open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY);
  termios saved;
  if (tty < 0 || tcgetattr(tty, &saved) != 0) {
    if (tty >= 0) close(tty);
    *error = "--ask-password needs a terminal";
    return false;
  }
  termios quiet = saved;
  quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHOE | ECHOK | ECHONL);
  quiet.c_lflag |= ICANON;
  WriteAll(tty, kPrompt);
  tcsetattr(tty, TCSAFLUSH, &quiet);
  std::string line;
  line.reserve(kMaxPassword);  // no reallocation leaves a copy behind
  const LineEnd end = ReadLine(tty, &line);
  tcsetattr(tty, TCSAFLUSH, &saved);
  WriteAll(tty, "\n");
  close(tty);
  if (end != LineEnd::kLine && end != LineEnd::kEnd) {
    explicit_bzero(line.data(), line.size());
    *interrupted = end == LineEnd::kInterrupted;
    *error = "cannot read the password from the terminal";
    return false;
  }
  password->swap(line);
  return true;
}

std::vector<std::string> TakePasswordArguments(int argc, char** argv) {
  std::vector<std::string> values;
  for (int i = 1; i < argc; ++i) {
    const std::string_view argument(argv[i]);
    if (!argument.starts_with(kPasswordArgument)) continue;
    char* value = argv[i] + kPasswordArgument.size();
    values.emplace_back(value);
    explicit_bzero(value, std::strlen(value));
  }
  return values;
}

}  // namespace fetchlet
