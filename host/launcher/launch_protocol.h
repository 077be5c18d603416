// The private protocol between the embedded host and fetchlet-launch. Both
// sides include this header; nothing else speaks it.
//
//   fetchlet-launch -- COMMAND [ARG...]
//
// Descriptor 3 carries the request, read to its end: the user name, the
// password, then the command's environment entries (NAME=VALUE), each ended
// by a NUL. None of it ever appears in an argument or an environment.
//
// Descriptor 4 carries the launcher's verdict on the start. It is close-on-
// exec in the launcher and its child, so it reaches its end with no text once
// the command has been executed. Otherwise it holds one line: a tag byte and
// fixed English text, and the launcher exits with a non-zero status.
//
// The launcher stays the command's parent. SIGTERM, SIGINT, SIGHUP or SIGQUIT
// to the launcher ends the command's process group with SIGKILL; the launcher
// then reaps the command and exits with its status (128 + the signal number
// for a signalled command).
#ifndef QVE_HOST_LAUNCHER_LAUNCH_PROTOCOL_H_
#define QVE_HOST_LAUNCHER_LAUNCH_PROTOCOL_H_

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

// An unprivileged launcher (one not more privileged than its caller) reads
// its settings from the file this variable names, for tests and benchmarks.
// A set-user-ID launcher ignores it.
inline constexpr char kConfigVariable[] = "FETCHLET_LAUNCH_CONFIG";

}  // namespace qvelaunch

#endif  // QVE_HOST_LAUNCHER_LAUNCH_PROTOCOL_H_
