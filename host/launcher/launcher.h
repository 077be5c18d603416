// The pieces of fetchlet-launch, shared by its files.
#ifndef QVE_HOST_LAUNCHER_LAUNCHER_H_
#define QVE_HOST_LAUNCHER_LAUNCHER_H_

#include <security/pam_appl.h>
#include <sys/resource.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include <string>
#include <vector>

namespace qvelaunch {

// Exit status of a launcher that refused or failed before the command ran.
inline constexpr int kLauncherFailed = 125;

// Writes one line, tag then text, on the error descriptor.
void Report(char tag, const char* text);
// Reports text under kRefusedTag and exits with kLauncherFailed.
[[noreturn]] void Refuse(const char* text);

// The caller's limits must not make PAM fail half-way (a file size limit
// that kills the launcher with SIGXFSZ before a failure is recorded, too few
// descriptors for a module's files, a stack too small for a password hash),
// nor its umask shape the files modules create. A privileged launcher
// replaces them with its own while it authenticates; the command gets the
// caller's back, with the session's (pam_limits) on top.
class CallerLimits {
 public:
  struct Limit {
    int resource;
    rlim_t value;
  };
  static constexpr size_t kCount = 7;

  // Keeps the limits in force and puts the launcher's own in their place,
  // raising a hard limit where one is lower; false when one cannot be read
  // or set.
  [[nodiscard]] bool Replace() { return Take(true); }
  // Keeps the limits in force (the session's) for the command, and takes the
  // launcher's own as far as the hard limits allow: once the command runs
  // the launcher only waits and closes the session.
  [[nodiscard]] bool KeepForCommand() { return Take(false); }
  // Puts back what Replace kept; false when one cannot be set. System calls
  // only: the child of vfork calls it.
  [[nodiscard]] bool Restore() const;
  bool replaced() const { return replaced_; }

 private:
  bool Take(bool raise);

  rlimit saved_[kCount] = {};
  mode_t umask_ = 022;
  bool replaced_ = false;
};

struct Settings {
  std::string service = "fetchlet-launch";  // the PAM service
  std::string pam_dir;  // empty: PAM's own directories
  bool allow_root = false;
  bool allow_nologin = false;  // login shells not in /etc/shells
  unsigned fail_delay = 3;     // seconds
};

// Reads the settings at path into *settings (a missing file leaves the
// defaults); null, or the text to report. A privileged launcher takes only
// files and a pam_dir that root owns and only root may write.
const char* ReadSettings(const std::string& path, bool privileged,
                         Settings* settings);

struct Account {
  std::string name;
  std::string home;
  std::string shell;
  uid_t uid = 0;
  gid_t gid = 0;
};

// A PAM transaction, kept open after a successful check until the command
// has started, so that its clean-up costs the command no time.
struct PamTransaction {
  pam_handle_t* handle = nullptr;
  int result = PAM_SUCCESS;
};

// Checks password for user under the PAM service (its file in pam_dir, or
// where PAM looks when pam_dir is empty), then the account. PAM's own
// failure delay is switched off: the launcher's deadline replaces it. Null
// on success, with the transaction open in *transaction; else the fixed text
// to report to root (the transaction is then over). PAM's own messages are
// never shown.
const char* Authenticate(const std::string& service, const std::string& pam_dir,
                         const char* user, const char* password,
                         PamTransaction* transaction);
// Establishes the user's credentials and opens the session, as su does;
// null, or the text to report (the transaction is then over).
const char* OpenSession(PamTransaction* transaction);
// Closes the session, deletes the credentials and ends the transaction.
void CloseSession(PamTransaction* transaction);
// Ends an open transaction; PAM wipes its copy of the password.
void EndTransaction(PamTransaction* transaction);

// Nanoseconds on a clock that does not step and counts a suspend.
int64_t BootNanos();
// Sleeps until deadline (BootNanos), whatever signals arrive.
void SleepUntil(int64_t deadline);

// The root-owned record of what a calling uid owes (launch_record.cc).
class FailureRecord {
 public:
  FailureRecord() = default;
  FailureRecord(const FailureRecord&) = delete;
  FailureRecord& operator=(const FailureRecord&) = delete;
  ~FailureRecord();

  // Opens (creates) and locks caller's record; false when it is not safe.
  [[nodiscard]] bool Open(uid_t caller);
  // Pays what the last try left owing, then records delay seconds from now
  // as owed, in *deadline too; false when it cannot be recorded.
  [[nodiscard]] bool PayAndOwe(unsigned delay, int64_t* deadline);
  // A success: nothing is owed. Closes the record, which frees the lock.
  void Clear();

 private:
  int fd_ = -1;
};

// Opens the PAM session, then starts a child that gets the caller's limits
// back (with the session's), becomes account (groups, group, user, for
// good), leads a session of its own without a terminal, changes to its home
// directory and executes argv with env, completed by the login variables it
// lacks. The launcher waits for it, passing stops on to its process group,
// closes the PAM session and exits with its status. Never returns.
[[noreturn]] void RunCommand(const Account& account, char** argv,
                             const std::vector<char*>& env,
                             CallerLimits* limits,
                             PamTransaction* transaction);

}  // namespace qvelaunch

#endif  // QVE_HOST_LAUNCHER_LAUNCHER_H_
