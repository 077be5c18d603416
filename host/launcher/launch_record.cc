// What a caller other than root owes for its last failure, kept where the
// caller cannot reach it: killing the launcher during its delay must not
// shorten the next try's.
//
// One file per calling uid in a directory that only root may enter. The
// deadline is written before PAM runs, as if the try would fail; an answer
// before it is due never leaves the launcher. A try first pays what the
// last one left owing, so a killed launcher's delay falls on the next try,
// and the lock held from open to answer makes a uid's tries take turns.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <string>

#include "launcher.h"

#ifndef QVE_LAUNCHER_RECORDS
#define QVE_LAUNCHER_RECORDS "/run/fetchlet-launch"
#endif

namespace qvelaunch {
namespace {

constexpr char kRecordDir[] = QVE_LAUNCHER_RECORDS;
constexpr int64_t kNanos = 1000000000;

// Only root may have made it or may write it: anything else was not made by
// the launcher. Its group, the caller's when the launcher made it, becomes
// root's too.
bool RootsAlone(int fd, mode_t type) {
  struct stat info;
  return fstat(fd, &info) == 0 && (info.st_mode & S_IFMT) == type &&
         info.st_uid == 0 && (info.st_mode & 077) == 0 &&
         (type == S_IFDIR || info.st_nlink == 1) &&
         (info.st_gid == 0 || fchown(fd, 0, 0) == 0);
}

int OpenDirectory() {
  if (mkdir(kRecordDir, 0700) != 0 && errno != EEXIST) return -1;
  const int dir =
      open(kRecordDir, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (dir >= 0 && !RootsAlone(dir, S_IFDIR)) {
    close(dir);
    return -1;
  }
  return dir;
}

}  // namespace

int64_t BootNanos() {
  timespec now;
  clock_gettime(CLOCK_BOOTTIME, &now);
  return int64_t{now.tv_sec} * kNanos + now.tv_nsec;
}

void SleepUntil(int64_t deadline) {
  const timespec until{static_cast<time_t>(deadline / kNanos),
                       static_cast<long>(deadline % kNanos)};
  while (clock_nanosleep(CLOCK_BOOTTIME, TIMER_ABSTIME, &until, nullptr) ==
         EINTR) {
  }
}

FailureRecord::~FailureRecord() {
  if (fd_ >= 0) close(fd_);
}

bool FailureRecord::Open(uid_t caller) {
  const int dir = OpenDirectory();
  if (dir < 0) return false;
  const std::string name = std::to_string(caller);
  fd_ = openat(dir, name.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC,
               0600);
  close(dir);
  if (fd_ < 0 || !RootsAlone(fd_, S_IFREG)) return false;
  while (flock(fd_, LOCK_EX) != 0) {
    if (errno != EINTR) return false;
  }
  return true;
}

// A record that is neither empty nor a deadline (which only a launcher
// stopped half-way through a write could leave) owes a whole delay, and no
// deadline is paid beyond one delay from now.
bool FailureRecord::PayAndOwe(unsigned delay, int64_t* deadline) {
  const int64_t longest = BootNanos() + int64_t{delay} * kNanos;
  int64_t owed = 0;
  const ssize_t n = pread(fd_, &owed, sizeof owed, 0);
  if (n < 0) return false;
  if (n != 0 && n != static_cast<ssize_t>(sizeof owed)) owed = longest;
  SleepUntil(owed < longest ? owed : longest);
  *deadline = BootNanos() + int64_t{delay} * kNanos;
  return pwrite(fd_, deadline, sizeof *deadline, 0) ==
         static_cast<ssize_t>(sizeof *deadline);
}

void FailureRecord::Clear() {
  if (fd_ < 0) return;
  const int64_t nothing = 0;
  // Should this fail, the next try only waits out this one's delay.
  (void)!pwrite(fd_, &nothing, sizeof nothing, 0);
  close(fd_);
  fd_ = -1;
}

}  // namespace qvelaunch
