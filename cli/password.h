// The ways a password reaches the program besides a file: a prompt on the
// terminal, and (discouraged) the command line.
#ifndef QVE_CLI_PASSWORD_H_
#define QVE_CLI_PASSWORD_H_

#include <string>
#include <vector>

namespace fetchlet {

// Asks for a password on the controlling terminal (/dev/tty) with echo off,
// whatever standard input and output are. False with *error set when there
// is no terminal, or with *interrupted set when SIGINT or SIGTERM (blocked
// in this program) came while it waited.
bool AskPassword(std::string* password, std::string* error,
                 bool* interrupted);

// Takes the value of every "password=VALUE" argument out of argv, in order,
// overwriting it in place: /proc/PID/cmdline shows it only until this runs.
std::vector<std::string> TakePasswordArguments(int argc, char** argv);

}  // namespace fetchlet

#endif  // QVE_CLI_PASSWORD_H_
