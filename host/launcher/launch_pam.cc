// Password and account checks through PAM, with fixed English texts for
// every failure: PAM's own messages may be translated, or say too much.
#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "launcher.h"

namespace qvelaunch {
namespace {

constexpr char kServiceUnavailable[] = "Authentication service unavailable";
constexpr char kWrongPassword[] = "Authentication failed: wrong password";
constexpr char kAuthFailed[] = "Authentication failed";
constexpr char kAccountRefused[] = "Account expired or not permitted";
constexpr char kPasswordExpired[] = "Password expired";
constexpr char kSessionRefused[] = "Unable to open a session for the user";

struct Answers {
  const char* password;
};

void FreeReplies(pam_response* replies, int count) {
  for (int i = 0; i < count; ++i) {
    if (replies[i].resp == nullptr) continue;
    explicit_bzero(replies[i].resp, std::strlen(replies[i].resp));
    std::free(replies[i].resp);
  }
  std::free(replies);
}

// Answers every hidden prompt with the password; informational messages are
// dropped; any other prompt has no answer here and fails the conversation.
// PAM frees the replies, so each is a malloc'd copy.
int Converse(int count, const pam_message** messages, pam_response** out,
             void* data) {
  *out = nullptr;
  if (count <= 0 || count > PAM_MAX_NUM_MSG) return PAM_CONV_ERR;
  const auto* answers = static_cast<const Answers*>(data);
  auto* replies = static_cast<pam_response*>(
      std::calloc(static_cast<size_t>(count), sizeof(pam_response)));
  if (replies == nullptr) return PAM_BUF_ERR;
  for (int i = 0; i < count; ++i) {
    const int style = messages[i]->msg_style;
    if (style == PAM_PROMPT_ECHO_OFF && answers->password != nullptr) {
      replies[i].resp = strdup(answers->password);
      if (replies[i].resp != nullptr) continue;
    } else if (style == PAM_ERROR_MSG || style == PAM_TEXT_INFO) {
      continue;
    }
    FreeReplies(replies, count);
    return PAM_CONV_ERR;
  }
  *out = replies;
  return PAM_SUCCESS;
}

// Stands in for PAM's sleep after a failure, which is random and shorter
// than su's: the launcher's deadline replaces it (and a root caller, who
// pays none, gets none from PAM either).
void NoFailDelay(int /*status*/, unsigned int /*usec*/, void* /*data*/) {}

// Who asked, for the modules that log or count failures per origin
// (pam_faillock, pam_unix's log lines). Local: no remote host; a tty only when
// the launcher has one.
int SetOrigin(pam_handle_t* handle) {
  int result = PAM_SUCCESS;
  if (const passwd* caller = getpwuid(getuid())) {
    result = pam_set_item(handle, PAM_RUSER, caller->pw_name);
  }
  const char* tty = isatty(STDIN_FILENO) ? ttyname(STDIN_FILENO) : nullptr;
  if (result == PAM_SUCCESS && tty != nullptr) {
    result = pam_set_item(handle, PAM_TTY, tty);
  }
  return result;
}

// A module may rename the user (case folding, a directory's own spelling):
// the account looked up before is then not the one that was authenticated.
bool SameUser(pam_handle_t* handle, const char* user) {
  const void* item = nullptr;
  return pam_get_item(handle, PAM_USER, &item) == PAM_SUCCESS &&
         item != nullptr &&
         std::strcmp(static_cast<const char*>(item), user) == 0;
}

const char* AuthenticationFailure(int result) {
  switch (result) {
    case PAM_SUCCESS:
      return nullptr;
    case PAM_AUTH_ERR:
    case PAM_CRED_INSUFFICIENT:
    case PAM_MAXTRIES:
      return kWrongPassword;
    case PAM_AUTHINFO_UNAVAIL:
      return kServiceUnavailable;
    default:
      return kAuthFailed;
  }
}

const char* AccountFailure(int result) {
  switch (result) {
    case PAM_SUCCESS:
      return nullptr;
    case PAM_NEW_AUTHTOK_REQD:
      return kPasswordExpired;
    default:
      return kAccountRefused;
  }
}

}  // namespace

const char* Authenticate(const std::string& service, const std::string& pam_dir,
                         const char* user, const char* password,
                         PamTransaction* transaction) {
  // PAM keeps the conversation's address until the transaction ends.
  static Answers answers;
  static pam_conv conversation{Converse, &answers};
  answers.password = password;
  pam_handle_t* handle = nullptr;
  int result = pam_start_confdir(service.c_str(), user, &conversation,
                                 pam_dir.empty() ? nullptr : pam_dir.c_str(),
                                 &handle);
  if (result != PAM_SUCCESS) return kServiceUnavailable;
  result = pam_set_item(handle, PAM_FAIL_DELAY,
                        reinterpret_cast<const void*>(&NoFailDelay));
  if (result == PAM_SUCCESS) result = SetOrigin(handle);
  const char* failure = result == PAM_SUCCESS ? nullptr : kServiceUnavailable;
  constexpr int kFlags = PAM_SILENT | PAM_DISALLOW_NULL_AUTHTOK;
  if (failure == nullptr) {
    result = pam_authenticate(handle, kFlags);
    failure = AuthenticationFailure(result);
  }
  if (failure == nullptr && !SameUser(handle, user)) {
    result = PAM_USER_UNKNOWN;
    failure = kAuthFailed;
  }
  if (failure == nullptr) {
    result = pam_acct_mgmt(handle, kFlags);
    failure = AccountFailure(result);
  }
  answers.password = nullptr;
  *transaction = PamTransaction{handle, result};
  if (failure != nullptr) EndTransaction(transaction);
  return failure;
}

const char* OpenSession(PamTransaction* transaction) {
  pam_handle_t* handle = transaction->handle;
  int result = pam_setcred(handle, PAM_ESTABLISH_CRED | PAM_SILENT);
  if (result == PAM_SUCCESS) {
    result = pam_open_session(handle, PAM_SILENT);
    if (result != PAM_SUCCESS) pam_setcred(handle, PAM_DELETE_CRED | PAM_SILENT);
  }
  transaction->result = result;
  if (result == PAM_SUCCESS) return nullptr;
  EndTransaction(transaction);
  return kSessionRefused;
}

void CloseSession(PamTransaction* transaction) {
  if (transaction->handle == nullptr) return;
  pam_handle_t* handle = transaction->handle;
  transaction->result = pam_close_session(handle, PAM_SILENT);
  const int deleted = pam_setcred(handle, PAM_DELETE_CRED | PAM_SILENT);
  if (transaction->result == PAM_SUCCESS) transaction->result = deleted;
  EndTransaction(transaction);
}

void EndTransaction(PamTransaction* transaction) {
  if (transaction->handle == nullptr) return;
  pam_end(transaction->handle, transaction->result);
  transaction->handle = nullptr;
}

}  // namespace qvelaunch
