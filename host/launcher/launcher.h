// The pieces of fetchlet-launch, shared by its files.
#ifndef QVE_HOST_LAUNCHER_LAUNCHER_H_
#define QVE_HOST_LAUNCHER_LAUNCHER_H_

#include <security/pam_appl.h>
#include <sys/types.h>

#include <string>
#include <vector>

namespace qvelaunch {

// Exit status of a launcher that refused or failed before the command ran.
inline constexpr int kLauncherFailed = 125;

// Writes one line, tag then text, on the error descriptor.
void Report(char tag, const char* text);
// Reports text under kRefusedTag and exits with kLauncherFailed.
[[noreturn]] void Refuse(const char* text);

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
// where PAM looks when pam_dir is empty), with PAM's failure delay
// switched off, and then the account. Null on success, with the transaction
// open in *transaction; else the fixed text to report (the transaction is
// then over). PAM's own messages are never shown.
const char* Authenticate(const std::string& service, const std::string& pam_dir,
                         const char* user, const char* password,
                         PamTransaction* transaction);
// Ends an open transaction; PAM wipes its copy of the password.
void EndTransaction(PamTransaction* transaction);

// Starts a child that becomes account (groups, group, user, for good),
// changes to its home directory and executes argv with env, completed by the
// login variables it lacks. The launcher waits for it, passing kills on to its
// process group, and exits with its status. Never returns.
[[noreturn]] void RunCommand(const Account& account, char** argv,
                             const std::vector<char*>& env,
                             PamTransaction* transaction);

}  // namespace qvelaunch

#endif  // QVE_HOST_LAUNCHER_LAUNCHER_H_
