// fetchlet-launch: runs one command as another user once PAM has accepted
// that user's password. The embedded host starts it; see launch_protocol.h
// for what passes between them.
//
// It may be installed set-user-ID root, as su is, so that an unprivileged
// host can run commands as other users. It then trusts its caller with
// nothing but the command, the command's environment and the credentials:
// its settings come from a root-owned file, it authenticates with a clean
// environment, sane limits and umask of its own, it can be neither traced nor
// made to dump core, and every failure costs a caller other than root the
// same delay and the same message, which no kill of the launcher skips.
#include <fcntl.h>
#include <pwd.h>
#include <sys/auxv.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "launch_protocol.h"
#include "launcher.h"

#ifndef QVE_LAUNCHER_CONFIG
#define QVE_LAUNCHER_CONFIG "/etc/fetchlet/launch.conf"
#endif

namespace qvelaunch {
namespace {

constexpr char kDefaultConfig[] = QVE_LAUNCHER_CONFIG;
// For PAM modules that run helpers.
constexpr char kOwnPath[] = "PATH=/usr/sbin:/usr/bin:/sbin:/bin";

constexpr char kInvalidRequest[] = "Invalid request to the launcher";
constexpr char kLimitsRefused[] = "Launcher limits could not be set";
constexpr char kRecordRefused[] = "Launcher record of failures is not usable";
constexpr char kAuthFailed[] = "Authentication failed";
constexpr char kUnknownUser[] = "Authentication failed: unknown user";
constexpr char kRootRefused[] = "Running commands as root is not permitted";
constexpr char kShellRefused[] = "Login shell not permitted";

// The request of descriptor 3. The buffer is allocated once at its full
// size, so that no reallocation leaves a copy of the password behind.
struct Request {
  char* bytes = nullptr;
  size_t size = 0;
  const char* user = nullptr;
  char* password = nullptr;
  std::vector<char*> env;

  void WipePassword() {
    if (password != nullptr) explicit_bzero(password, std::strlen(password));
  }
};

bool ReadAll(int fd, Request* request) {
  request->bytes = static_cast<char*>(std::malloc(kMaxRequest));
  if (request->bytes == nullptr) return false;
  for (;;) {
    const ssize_t n = read(fd, request->bytes + request->size,
                           kMaxRequest - request->size);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    if (n == 0) return true;
    request->size += static_cast<size_t>(n);
    if (request->size == kMaxRequest) return false;
  }
}

// user NUL password NUL {NAME=VALUE NUL}
bool ReadRequest(Request* request) {
  const bool read = ReadAll(kRequestFd, request);
  close(kRequestFd);
  if (!read || request->size == 0 || request->bytes[request->size - 1] != 0) {
    return false;
  }
  char* next = request->bytes;
  char* const end = request->bytes + request->size;
  std::vector<char*> strings;
  while (next < end) {
    strings.push_back(next);
    next += std::strlen(next) + 1;
  }
  if (strings.size() < 2 || strings[0][0] == '\0') return false;
  request->user = strings[0];
  request->password = strings[1];
  for (size_t i = 2; i < strings.size(); ++i) {
    if (std::strchr(strings[i], '=') != nullptr) {
      request->env.push_back(strings[i]);
    }
  }
  return true;
}

bool LookUp(const char* user, Account* account) {
  const passwd* entry = getpwnam(user);
  if (entry == nullptr) return false;
  account->name = entry->pw_name;
  account->home = entry->pw_dir != nullptr ? entry->pw_dir : "";
  account->shell = entry->pw_shell != nullptr ? entry->pw_shell : "";
  account->uid = entry->pw_uid;
  account->gid = entry->pw_gid;
  return true;
}

// As su and login judge it: an empty shell is /bin/sh.
bool ListedShell(const std::string& shell) {
  const std::string_view wanted =
      shell.empty() ? std::string_view("/bin/sh") : std::string_view(shell);
  setusershell();
  bool listed = false;
  while (const char* entry = getusershell()) {
    if (wanted == entry) listed = true;
  }
  endusershell();
  return listed;
}

// Null when user may run commands, with the PAM transaction left open; else
// the text for a root caller.
const char* CheckUser(const Settings& settings, const Request& request,
                      Account* account, PamTransaction* transaction) {
  if (!LookUp(request.user, account)) return kUnknownUser;
  if (account->uid == 0 && !settings.allow_root) return kRootRefused;
  if (!settings.allow_nologin && !ListedShell(account->shell)) {
    return kShellRefused;
  }
  return Authenticate(settings.service, settings.pam_dir, request.user,
                      request.password, transaction);
}

// Descriptors 0 to 2 must be open, or a descriptor opened later could take
// the place of one of them in the command.
void SecureDescriptors() {
  for (int fd = 0; fd <= 2; ++fd) {
    if (fcntl(fd, F_GETFD) >= 0) continue;
    if (open("/dev/null", O_RDWR) != fd) std::_Exit(kLauncherFailed);
  }
  // Without its two private descriptors the launcher cannot even report.
  if (fcntl(kErrorFd, F_SETFD, FD_CLOEXEC) != 0 ||
      fcntl(kRequestFd, F_SETFD, FD_CLOEXEC) != 0) {
    std::_Exit(kLauncherFailed);
  }
}

// A launcher more privileged than its caller, or one whose file would make
// it so (a root caller gains nothing from the set-user-ID bit, and must not
// be able to point an installed launcher elsewhere either). Without /proc the
// launcher counts as installed.
bool Installed() {
  if (getauxval(AT_SECURE) != 0 || geteuid() != getuid() ||
      getegid() != getgid()) {
    return true;
  }
  struct stat info;
  return stat("/proc/self/exe", &info) != 0 ||
         (info.st_mode & (S_ISUID | S_ISGID)) != 0;
}

// The caller's environment is dropped before anything else reads it.
void OwnEnvironment() {
  clearenv();
  putenv(const_cast<char*>(kOwnPath));
}

// [--config=FILE] -- COMMAND...: the index of COMMAND, or 0.
int ParseArguments(int argc, char** argv, std::string* config) {
  int next = 1;
  if (next < argc && std::string_view(argv[next]).starts_with(kConfigOption)) {
    *config = argv[next] + std::strlen(kConfigOption);
    ++next;
  }
  if (next + 1 >= argc || std::strcmp(argv[next], kCommandMark) != 0) return 0;
  return next + 1;
}

// What the caller owes before its answer: nothing for root, who could run
// anything anyway; for anyone else the delay, kept in the root-owned record
// when the launcher has the privilege to keep one.
int64_t Owe(bool installed, unsigned delay, FailureRecord* record) {
  if (getuid() == 0) return 0;
  int64_t deadline = BootNanos() + int64_t{delay} * 1000000000;
  if (installed &&
      (!record->Open(getuid()) || !record->PayAndOwe(delay, &deadline))) {
    Refuse(kRecordRefused);
  }
  return deadline;
}

// The stack is among them: a caller's hard stack limit of a few pages would
// crash the launcher in PAM, and only once the password was right.
constexpr CallerLimits::Limit kOwnLimits[] = {
    {RLIMIT_FSIZE, RLIM_INFINITY},   {RLIMIT_CPU, RLIM_INFINITY},
    {RLIMIT_AS, RLIM_INFINITY},      {RLIMIT_DATA, RLIM_INFINITY},
    {RLIMIT_STACK, rlim_t{8} << 20}, {RLIMIT_NOFILE, 1024},
    {RLIMIT_CORE, 0}};
static_assert(std::size(kOwnLimits) == CallerLimits::kCount);

}  // namespace

// A hard limit is only ever raised (which takes CAP_SYS_RESOURCE), never
// lowered, so that the limits in force can always be put back.
bool CallerLimits::Take(bool raise) {
  for (size_t i = 0; i < kCount; ++i) {
    const int resource = kOwnLimits[i].resource;
    if (getrlimit(resource, &saved_[i]) != 0) return false;
    const rlim_t value = kOwnLimits[i].value;
    const rlim_t hard = saved_[i].rlim_max;  // RLIM_INFINITY is the largest
    const rlimit own = raise ? rlimit{value, std::max(value, hard)}
                             : rlimit{std::min(value, hard), hard};
    if (setrlimit(resource, &own) != 0) return false;
  }
  umask_ = umask(022);
  replaced_ = true;
  return true;
}

bool CallerLimits::Restore() const {
  if (!replaced_) return true;
  for (size_t i = 0; i < kCount; ++i) {
    if (setrlimit(kOwnLimits[i].resource, &saved_[i]) != 0) return false;
  }
  umask(umask_);
  return true;
}

// Allocation-free: the child of vfork reports through it too.
void Report(char tag, const char* text) {
  char line[256];
  const size_t length = std::min(std::strlen(text), sizeof line - 2);
  line[0] = tag;
  std::copy_n(text, length, line + 1);
  line[length + 1] = '\n';
  ssize_t n;
  do {
    n = write(kErrorFd, line, length + 2);
  } while (n < 0 && errno == EINTR);
}

void Refuse(const char* text) {
  Report(kRefusedTag, text);
  std::exit(kLauncherFailed);
}

}  // namespace qvelaunch

int main(int argc, char** argv) {
  using namespace qvelaunch;
  prctl(PR_SET_DUMPABLE, 0);
  const bool installed = Installed();
  SecureDescriptors();
  OwnEnvironment();
  CallerLimits limits;
  if (installed && !limits.Replace()) Refuse(kLimitsRefused);
  std::string config;
  const int command = ParseArguments(argc, argv, &config);
  if (command == 0) Refuse(kInvalidRequest);
  if (installed || config.empty()) config = kDefaultConfig;
  Settings settings;
  if (const char* failure = ReadSettings(config, installed, &settings)) {
    Refuse(failure);
  }
  Request request;
  if (!ReadRequest(&request)) Refuse(kInvalidRequest);
  FailureRecord record;
  const int64_t deadline = Owe(installed, settings.fail_delay, &record);
  Account account;
  PamTransaction transaction;
  const char* failure = CheckUser(settings, request, &account, &transaction);
  request.WipePassword();
  if (failure != nullptr) {
    // No answer before it is due, and one answer for every failure: which
    // of them it was would tell a guesser whether the password was right.
    SleepUntil(deadline);
    Refuse(getuid() == 0 ? failure : kAuthFailed);
  }
  record.Clear();
  RunCommand(account, argv + command, request.env, &limits, &transaction);
}
