// The pieces of fetchlet-launch, shared by its files.
#ifndef QVE_HOST_LAUNCHER_LAUNCHER_H_
#define QVE_HOST_LAUNCHER_LAUNCHER_H_

#include <security/pam_appl.h>
#include <sys/resource.h>
#include <sys/types.h>

#include <cstddef>

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
// descriptors for a module's files), nor its umask shape the files modules
// create. A privileged launcher replaces them with its own while it
// authenticates; the command gets the caller's back.
class CallerLimits {
 public:
  struct Limit {
    int resource;
    rlim_t value;
  };
  static constexpr size_t kCount = 6;

  void Replace();
  // System calls only: the child of vfork calls it.
  void Restore() const;

 private:
  rlimit saved_[kCount] = {};
  mode_t umask_ = 022;
  bool replaced_ = false;
};

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
// failure delay (random, shorter than su's) is replaced by a fixed one of
// fail_delay seconds after a wrong password. Null on success, with the transaction
// open in *transaction; else the fixed text to report (the transaction is
// then over). PAM's own messages are never shown.
const char* Authenticate(const std::string& service, const std::string& pam_dir,
                         const char* user, const char* password,
                         unsigned fail_delay, PamTransaction* transaction);
// Sleeps seconds on a clock that does not step, whatever signals arrive.
void PauseAfterFailure(unsigned seconds);
// Ends an open transaction; PAM wipes its copy of the password.
void EndTransaction(PamTransaction* transaction);

// Starts a child that gets the caller's limits back, becomes account
// (groups, group, user, for good), changes to its home directory and
// executes argv with env, completed by the login variables it lacks. The
// launcher waits for it, passing stops on to its process group, and exits
// with its status. Never returns.
[[noreturn]] void RunCommand(const Account& account, char** argv,
                             const std::vector<char*>& env,
                             const CallerLimits& limits,
                             PamTransaction* transaction);

}  // namespace qvelaunch

#endif  // QVE_HOST_LAUNCHER_LAUNCHER_H_
