// Ctrl-C during a run: the first aborts the request through the host's
// abort callback, the second ends the command's process group and the
// program. The signal is taken by a thread that waits for it.
#ifndef QVE_CLI_INTERRUPT_H_
#define QVE_CLI_INTERRUPT_H_

#include <string>

namespace fetchlet {

// Blocks SIGINT and SIGTERM in the calling thread and so in every thread
// started after it; called first thing, so no thread can take the signal's
// default action. A signal that comes before the watcher waits for it.
void BlockInterrupts();

// Starts the waiting thread. requestId may be empty: then the first Ctrl-C
// already ends everything.
void WatchInterrupts(const std::string& requestId);

}  // namespace fetchlet

#endif  // QVE_CLI_INTERRUPT_H_
