// The limits a run starts with and the record of what it cost. Not part of
// any API.
#ifndef QVE_HOST_SRC_RUN_RESOURCES_H_
#define QVE_HOST_SRC_RUN_RESOURCES_H_

#include <sys/resource.h>
#include <sys/types.h>

#include "cgroup.h"
#include "qve/embedded.h"

namespace qvehost::internal {

// The limits of a run started now on this thread.
RunLimits CurrentRunLimits();
// Adds one ended run to this thread's figures: its cgroup's (null without
// one) or else the reaped child's own (null when the kernel reaped it). A
// limit the run reached is logged at error level.
void RecordRun(pid_t pid, const RunLimits& limits,
               const CgroupFigures* figures, const rusage* child);

}  // namespace qvehost::internal

#endif  // QVE_HOST_SRC_RUN_RESOURCES_H_
