// serve's own families: each collector's health and counters, the build,
// the last reload and the process.
#ifndef FETCHLET_SERVE_META_METRICS_H_
#define FETCHLET_SERVE_META_METRICS_H_

#include <vector>

#include "serve/collector.h"
#include "serve/model.h"

namespace fetchlet::serve {

Families MetaFamilies(const std::vector<CollectorPtr>& collectors,
                      bool last_reload_successful);

// process_cpu_seconds_total, process_resident_memory_bytes,
// process_start_time_seconds, process_open_fds, from /proc/self.
Families ProcessFamilies();

}  // namespace fetchlet::serve

#endif  // FETCHLET_SERVE_META_METRICS_H_
