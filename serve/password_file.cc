#include "serve/password_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace fetchlet::serve {
namespace {

// Secrets are small; a larger file is a mistake, not a password.
constexpr size_t kMostBytes = size_t{64} * 1024;

int OpenRetrying(const std::string& path) {
  int fd = -1;
  do {
    fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

bool ReadAll(int fd, std::string* out, std::string* error) {
  char buffer[4096];
  for (;;) {
    const ssize_t n = read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      *error = std::string("cannot read: ") + std::strerror(errno);
      return false;
    }
    if (n == 0) return true;
    out->append(buffer, static_cast<size_t>(n));
    if (out->size() > kMostBytes) {
      *error = "larger than 64 KiB";
      return false;
    }
  }
}

std::string OwnershipProblem(const struct stat& info) {
  if (!S_ISREG(info.st_mode)) return "not a regular file";
  if (info.st_uid != geteuid()) {
    return "owned by uid " + std::to_string(info.st_uid) + ", not " +
           std::to_string(geteuid());
  }
  if ((info.st_mode & 077) != 0) {
    char mode[8];
    std::snprintf(mode, sizeof mode, "%04o", info.st_mode & 07777u);
    return std::string("mode ") + mode + " gives group or other access";
  }
  return "";
}

bool Read(const std::string& path, bool check_owner, std::string* password,
          std::string* error) {
  const int fd = OpenRetrying(path);
  if (fd < 0) {
    *error = std::string("cannot open: ") + std::strerror(errno);
    return false;
  }
  struct stat info {};
  bool ok = fstat(fd, &info) == 0;
  if (!ok) *error = std::string("cannot stat: ") + std::strerror(errno);
  if (ok && check_owner) {
    *error = OwnershipProblem(info);
    ok = error->empty();
  }
  std::string text;
  ok = ok && ReadAll(fd, &text, error);
  close(fd);
  if (!ok) return false;
  if (!text.empty() && text.back() == '\n') text.pop_back();
  *password = std::move(text);
  return true;
}

}  // namespace

bool ReadPasswordFile(const std::string& path, std::string* password,
                      std::string* error) {
  return Read(path, true, password, error);
}

bool ReadCredentialFile(const std::string& path, std::string* password,
                        std::string* error) {
  return Read(path, false, password, error);
}

}  // namespace fetchlet::serve
