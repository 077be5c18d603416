#include "interrupt.h"

#include <signal.h>

#include <cstdlib>
#include <thread>

#include "qve/embedded.h"

namespace fetchlet {
namespace {

constexpr int kInterruptedStatus = 130;

void Watch(sigset_t signals, std::string requestId) {
  bool abortSent = false;
  for (;;) {
    int signal = 0;
    if (sigwait(&signals, &signal) != 0) continue;
    if (!abortSent && !requestId.empty()) {
      abortSent = true;
      qvehost::AbortRequest(requestId);
      continue;
    }
    qvehost::KillRunningCommands();
    std::_Exit(kInterruptedStatus);
  }
}

}  // namespace

void WatchInterrupts(const std::string& requestId) {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  std::thread(Watch, signals, requestId).detach();
}

}  // namespace fetchlet
