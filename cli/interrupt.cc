#include "interrupt.h"

#include <signal.h>

#include <cstdlib>
#include <thread>

#include "qve/embedded.h"

namespace fetchlet {
namespace {

constexpr int kInterruptedStatus = 130;

void Watch(sigset_t signals, const std::string& requestId) {
  bool abortSent = false;
  for (;;) {
    int signal = 0;
    if (sigwait(&signals, &signal) != 0) continue;
    // The first interrupt ends the run gently; one that no run could take
    // (not registered yet, or over) stops everything at once.
    if (!abortSent && !requestId.empty() &&
        qvehost::AbortRequest(requestId)) {
      abortSent = true;
      continue;
    }
    qvehost::KillRunningCommands();
    std::_Exit(kInterruptedStatus);
  }
}

}  // namespace

sigset_t InterruptSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  return signals;
}

void BlockInterrupts() {
  const sigset_t signals = InterruptSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

void WatchInterrupts(const std::string& requestId) {
  std::thread(Watch, InterruptSignals(), requestId).detach();
}

}  // namespace fetchlet
