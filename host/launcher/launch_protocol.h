// The private protocol between the embedded host and fetchlet-launch. Both
// sides include this header; nothing else speaks it.
//
//   fetchlet-launch [--config=FILE] -- COMMAND [ARG...]
//
// --config names a settings file for a launcher without privilege (a test
// build). A launcher whose file is set-user-ID or set-group-ID, or that runs
// with more privilege than its caller, ignores it and reads only its
// root-owned file; no launcher reads its environment.
//
// Descriptor 3 carries the request, read to its end: the user name, the
// password, then the command's environment entries (NAME=VALUE), each ended
// by a NUL. None of it ever appears in an argument or an environment.
//
// Descriptor 4 carries the launcher's verdict on the start. It is close-on-
// exec in the launcher and its child, so it reaches its end with no text once
// the command has been executed. Otherwise it holds one line: a tag byte and
// fixed English text, and the launcher exits with a non-zero status. A caller
// other than root reads the same text, "Authentication failed", for every
// refusal of the user, and only once the launcher's delay is over.
//
// The launcher stays the command's parent; the command leads a session (and
// so a process group) of its own, with no controlling terminal. kStopSignal
// (SIGTERM; SIGINT, SIGHUP and SIGQUIT alike) to the launcher passes SIGTERM
// on to the command's process group and SIGKILL kStopGraceSeconds later; kKillSignal
// sends SIGKILL at once. The launcher then reaps the command and exits with
// its status (128 + the signal number for a signalled command). The command
// is killed, too, when the launcher dies.
#ifndef QVE_HOST_LAUNCHER_LAUNCH_PROTOCOL_H_
#define QVE_HOST_LAUNCHER_LAUNCH_PROTOCOL_H_

#include <csignal>
#include <cstddef>

namespace qvelaunch {

inline constexpr char kProgramName[] = "fetchlet-launch";
inline constexpr char kCommandMark[] = "--";

inline constexpr int kRequestFd = 3;
inline constexpr int kErrorFd = 4;

// The user was not authenticated, or not switched to: no command was started.
inline constexpr char kRefusedTag = 'R';
// The user was authenticated but the command could not be executed.
inline constexpr char kExecFailedTag = 'X';

// Longest request the launcher accepts: the size of an exec's arguments and
// environment on Linux, which the command's environment must fit anyway.
inline constexpr size_t kMaxRequest = size_t{2} << 20;

inline constexpr char kConfigOption[] = "--config=";

inline constexpr int kStopSignal = SIGTERM;
inline constexpr int kKillSignal = SIGUSR1;
inline constexpr unsigned kStopGraceSeconds = 2;

}  // namespace qvelaunch

#endif  // QVE_HOST_LAUNCHER_LAUNCH_PROTOCOL_H_
