#include "serve/secret_file.h"

#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace fetchlet {

void WipeString(std::string* text) {
  explicit_bzero(text->data(), text->size());
  text->clear();
}

namespace {

constexpr size_t kMaxSecret = size_t{64} << 10;

// Checked on the open descriptor, so that the file read is the file judged.
std::string Unsafe(int fd, bool check_owner) {
  struct stat info;
  if (fstat(fd, &info) != 0) return std::string("cannot be examined: ") +
                                    strerror(errno);
  if (!S_ISREG(info.st_mode)) return "is not a regular file";
  if (!check_owner) return "";
  if (info.st_uid != geteuid()) return "is not owned by the user running fetchlet";
  if ((info.st_mode & 077) != 0) {
    return "must not be readable or writable by group or others (chmod 600)";
  }
  return "";
}

bool ReadAll(int fd, std::string* out) {
  char chunk[4096];
  for (;;) {
    const ssize_t n = read(fd, chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    if (n == 0) break;
    if (out->size() + static_cast<size_t>(n) > kMaxSecret) return false;
    out->append(chunk, static_cast<size_t>(n));
  }
  explicit_bzero(chunk, sizeof chunk);
  return true;
}

bool Read(const std::string& path, bool check_owner, std::string* secret,
          std::string* error) {
  // O_NONBLOCK: a FIFO must not hang the program; regular files ignore it.
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) {
    *error = "cannot open password file " + path + ": " + strerror(errno);
    return false;
  }
  std::string why = Unsafe(fd, check_owner);
  std::string text;
  text.reserve(kMaxSecret);  // no reallocation leaves a copy behind
  if (why.empty() && !ReadAll(fd, &text)) why = "cannot be read";
  close(fd);
  if (!why.empty()) {
    WipeString(&text);
    *error = "password file " + path + " " + why;
    return false;
  }
  if (!text.empty() && text.back() == '\n') text.pop_back();
  WipeString(secret);
  secret->swap(text);
  return true;
}

}  // namespace

bool ReadSecretFile(const std::string& path, std::string* secret,
                    std::string* error) {
  return Read(path, true, secret, error);
}

bool ReadCredentialFile(const std::string& path, std::string* secret,
                        std::string* error) {
  return Read(path, false, secret, error);
}

}  // namespace fetchlet
