// The two process runners: a command run plainly, or under a user name and
// password, with its standard input fed, its output collected under a time
// limit and the abort cell, and its exit judged.
#ifndef QVE_FOS_QVEFOS_RUNNER_H_
#define QVE_FOS_QVEFOS_RUNNER_H_

#include <cstdint>

#include "qve/host.h"

// Runs argv (argv[0] host-allocated: it is replaced by the program path and
// the caller frees the vector afterwards) with envp (null: the host's own
// environment) and stdinText (null: nothing written). On 0 the texts in
// *stdoutOut and *stderrOut belong to the caller (null when a stream gave
// nothing); on failure neither slot is written and the exception, when a slot
// is given, belongs to the caller. Returns 0, -1, or the byte count of the
// last read when the multiplexer failed after output (a failure all the same).
int32_t qvefos_executeCommand(qvefet_Context* fetchletContext, char** argv,
                              char** envp, const char* stdinText,
                              int32_t timeoutSeconds, const char* requestId,
                              int32_t separateErrorStream, char** stdoutOut,
                              char** stderrOut, qveue_Exception** exceptionOut,
                              qveulm_LogCtx* log);

// Runs argv like qvefos_executeCommand, but as username with password through
// the host's launcher; argv[0] is used as it is. Standard input is written
// only once the command has started.
int32_t qvefos_executeSecureCommand(
    qvefet_Context* fetchletContext, char** argv, char** envp,
    const char* stdinText, int32_t timeoutSeconds, const char* requestId,
    int32_t separateErrorStream, const char* username, const char* password,
    char** stdoutOut, char** stderrOut, qveue_Exception** exceptionOut,
    qveulm_LogCtx* log);

// The program path the runner starts: a copy of path, made under "sqvefos".
char* sqvefos_getCommandPath(qvefet_Context* fetchletContext, const char* path);

#endif  // QVE_FOS_QVEFOS_RUNNER_H_
