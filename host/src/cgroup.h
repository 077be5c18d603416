// Cgroup v2 containment of one run: the run's cgroup is made before the
// child exists, the child is born inside it, and ending the run writes
// cgroup.kill, which reaches every process of the run whatever group or
// session it moved to. Not part of any API.
#ifndef QVE_HOST_SRC_CGROUP_H_
#define QVE_HOST_SRC_CGROUP_H_

#include <cstdint>
#include <string>

namespace qvehost::internal {

// True when runs get cgroups: a cgroup v2 hierarchy holds the host's own
// cgroup and the host may make cgroups below it. Decided once; the decision
// is logged at debug level.
bool CgroupsAvailable();
// Whether runs get cgroups where they can (default true).
void WantCgroups(bool wanted);
// The directory under which runs' cgroups are made ("" without cgroups).
const std::string& CgroupRunsDirectory();
// Runs' cgroups that exist now (for tests: none after every run).
uint64_t LiveRunCgroups();

class RunCgroup {
 public:
  RunCgroup() = default;
  ~RunCgroup() { Remove(); }
  RunCgroup(const RunCgroup&) = delete;
  RunCgroup& operator=(const RunCgroup&) = delete;

  // Makes the cgroup; false (and nothing made) when that fails.
  bool Create();
  bool active() const { return dir_fd_ >= 0; }
  // The cgroup's directory descriptor, for CLONE_INTO_CGROUP.
  int fd() const { return dir_fd_; }
  // SIGKILL to every process in the cgroup. 0, or -1 with errno.
  int Kill();
  // Kills what is left, waits until the cgroup is empty and removes it.
  void Remove();

 private:
  std::string path_;
  int dir_fd_ = -1;
};

}  // namespace qvehost::internal

#endif  // QVE_HOST_SRC_CGROUP_H_
