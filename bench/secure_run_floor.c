/* The least a credential launcher must do, for secure_run to compare with:
 * look the user up, run PAM's checks, find the user's groups, then start
 * the command as that user and wait for it. No protocol, no settings, no
 * checks of its own.
 *
 *   secure_run_floor USER PAM_DIR SERVICE COMMAND
 */
#define _GNU_SOURCE
#include <grp.h>
#include <pwd.h>
#include <security/pam_appl.h>
#include <sys/wait.h>
#include <unistd.h>

static int no_conversation(int count, const struct pam_message **messages,
                           struct pam_response **replies, void *data) {
  (void)count;
  (void)messages;
  (void)replies;
  (void)data;
  return PAM_CONV_ERR;
}

int main(int argc, char **argv) {
  if (argc != 5) return 2;
  const struct passwd *user = getpwnam(argv[1]);
  if (user == NULL) return 3;
  const uid_t uid = user->pw_uid;
  const gid_t gid = user->pw_gid;
  struct pam_conv conversation = {no_conversation, NULL};
  pam_handle_t *pam = NULL;
  if (pam_start_confdir(argv[3], argv[1], &conversation, argv[2], &pam) !=
          PAM_SUCCESS ||
      pam_authenticate(pam, 0) != PAM_SUCCESS ||
      pam_acct_mgmt(pam, 0) != PAM_SUCCESS) {
    return 4;
  }
  gid_t groups[256];
  int count = 256;
  if (getgrouplist(argv[1], gid, groups, &count) < 0) return 5;
  char *command[] = {argv[4], NULL};
  const pid_t child = vfork();
  if (child == 0) {
    if (setgroups((size_t)count, groups) == 0 &&
        setresgid(gid, gid, gid) == 0 && setresuid(uid, uid, uid) == 0) {
      execv(command[0], command);
    }
    _exit(127);
  }
  pam_end(pam, PAM_SUCCESS);
  int status = 0;
  if (child < 0 || waitpid(child, &status, 0) != child) return 6;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 7;
}
