// The deadlines of running evaluations, kept by one thread for the whole
// process: it ends each evaluation whose deadline passes.
#ifndef FETCHLET_AGENT_DEADLINE_H_
#define FETCHLET_AGENT_DEADLINE_H_

#include <cstdint>

#include "agent/evaluate.h"

namespace fetchlet::agent::internal {

// Watches call's deadline from construction until Stop (or destruction).
class DeadlineWatch {
 public:
  explicit DeadlineWatch(const Call& call);
  ~DeadlineWatch() { Stop(); }
  DeadlineWatch(const DeadlineWatch&) = delete;
  DeadlineWatch& operator=(const DeadlineWatch&) = delete;

  // Stops watching; true when the deadline had passed and the evaluation
  // was ended.
  bool Stop();

 private:
  uint64_t ticket_ = 0;  // 0: nothing watched
  bool expired_ = false;
};

}  // namespace fetchlet::agent::internal

#endif  // FETCHLET_AGENT_DEADLINE_H_
