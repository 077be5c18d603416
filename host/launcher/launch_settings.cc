// The launcher's settings file (launch.conf): "key = value" lines.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <string_view>

#include "launcher.h"

namespace qvelaunch {
namespace {

constexpr size_t kMaxConfig = size_t{64} << 10;
constexpr unsigned kMaxFailDelay = 3600;

constexpr char kBadConfig[] = "Launcher configuration is not valid";
constexpr char kUnsafeConfig[] = "Launcher configuration is not secure";

std::string_view Trim(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\r";
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

bool ValidServiceName(std::string_view name) {
  if (name.empty() || name.size() > 64) return false;
  for (char c : name) {
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                       (c >= '0' && c <= '9') || c == '-' || c == '_' ||
                       c == '.';
    if (!plain) return false;
  }
  return name[0] != '.';
}

bool ParseSeconds(std::string_view text, unsigned* seconds) {
  if (text.empty() || text.size() > 4) return false;
  unsigned value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    value = value * 10 + static_cast<unsigned>(c - '0');
  }
  if (value > kMaxFailDelay) return false;
  *seconds = value;
  return true;
}

bool ParseYesNo(std::string_view text, bool* yes) {
  if (text != "yes" && text != "no") return false;
  *yes = text == "yes";
  return true;
}

// One setting; false for an unknown key or a value it cannot take.
bool Set(std::string_view key, std::string_view value, Settings* settings) {
  if (key == "service" && ValidServiceName(value)) {
    settings->service.assign(value);
    return true;
  }
  if (key == "pam_dir" && value.starts_with('/')) {
    settings->pam_dir.assign(value);
    return true;
  }
  if (key == "allow_root") return ParseYesNo(value, &settings->allow_root);
  if (key == "allow_nologin") {
    return ParseYesNo(value, &settings->allow_nologin);
  }
  if (key == "fail_delay") return ParseSeconds(value, &settings->fail_delay);
  return false;
}

// "key = value" lines; '#' starts a comment. Unknown keys are errors, so
// that a misspelt setting is not silently ignored.
bool ParseSettings(std::string_view text, Settings* settings) {
  while (!text.empty()) {
    const size_t end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    line = Trim(line.substr(0, line.find('#')));
    if (line.empty()) continue;
    const size_t equals = line.find('=');
    if (equals == std::string_view::npos) return false;
    const std::string_view key = Trim(line.substr(0, equals));
    const std::string_view value = Trim(line.substr(equals + 1));
    if (!Set(key, value, settings)) return false;
  }
  return true;
}

// PAM reads every service file of the directory as root: a privileged
// launcher takes it only when root owns it and only root may write to it.
const char* CheckPamDir(const std::string& dir, bool privileged) {
  struct stat info;
  if (stat(dir.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
    return kBadConfig;
  }
  if (privileged &&
      (info.st_uid != 0 || (info.st_mode & (S_IWGRP | S_IWOTH)) != 0)) {
    return kUnsafeConfig;
  }
  return nullptr;
}

}  // namespace

// A missing file leaves the defaults. A privileged launcher takes its
// settings only from a regular file that root owns and only root may write.
const char* ReadSettings(const std::string& path, bool privileged,
                         Settings* settings) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0) return errno == ENOENT ? nullptr : kBadConfig;
  struct stat info;
  const char* failure = nullptr;
  if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    failure = kBadConfig;
  } else if (privileged &&
             (info.st_uid != 0 || (info.st_mode & (S_IWGRP | S_IWOTH)) != 0)) {
    failure = kUnsafeConfig;
  }
  std::string text;
  char chunk[4096];
  while (failure == nullptr) {
    const ssize_t n = read(fd, chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) continue;
    if (n == 0) break;
    if (n < 0 || text.size() + static_cast<size_t>(n) > kMaxConfig) {
      failure = kBadConfig;
    } else {
      text.append(chunk, static_cast<size_t>(n));
    }
  }
  close(fd);
  if (failure == nullptr && !ParseSettings(text, settings)) failure = kBadConfig;
  if (failure == nullptr && !settings->pam_dir.empty()) {
    failure = CheckPamDir(settings->pam_dir, privileged);
  }
  return failure;
}

}  // namespace qvelaunch
