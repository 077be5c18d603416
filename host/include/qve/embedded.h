// The embedded host's own C++ API, for programs and tests: contexts and
// property lists to call the plug-in with, settings, fault switches, log
// capture, the allocation ledger and borrowed views of results.
//
// Everything here runs in the host process; none of it is part of the
// contract in host.h, and the plug-in never calls it.
#ifndef QVE_EMBEDDED_H_
#define QVE_EMBEDDED_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "qve/host.h"

QVE_HOST_EXPORTS_BEGIN
namespace qvehost {

// ---- Contexts and property lists -------------------------------------------

// A fetchlet context with the host's log source and language handle. Owned by
// the caller; delete it after every fetchlet made with it is freed.
qvefet_Context* NewContext();
void DeleteContext(qvefet_Context* context);

// Property lists keep insertion order; setting a name again replaces the
// value in its place.
qvlnv_NVList* NewPropertyList();
void SetProperty(qvlnv_NVList* list, std::string_view name,
                 std::string_view value);
void DeletePropertyList(qvlnv_NVList* list);

// ---- Settings ---------------------------------------------------------------

// Server version reported by qvectx_getPLBVersion (default 0x410000).
void SetServerVersion(int32_t version);

// The operating system's character set by name ("ISO-8859-1", ...); empty:
// from the locale that LC_ALL, LC_CTYPE or LANG names (C/POSIX: UTF-8).
void SetOsCharset(const std::string& name);

// Most bytes the host holds of one output stream of one command (default
// 64 MiB). A command that writes more is killed and that stream's read
// fails; 0 means no limit.
void SetOutputLimit(uint64_t bytes);
uint64_t OutputLimit();

enum class LogLevel { kTrace, kDebug, kWarn, kError, kOff };
void SetLogLevel(LogLevel level);
// Sends the host log to a file instead of standard error; "" restores stderr.
// Returns false when the file cannot be opened.
bool SetLogFile(const std::string& path);

// ---- Aborts -----------------------------------------------------------------

// Calls the abort callback registered under requestId, from any thread.
// Returns false when no run has that identifier registered.
bool AbortRequest(std::string_view requestId);

// Kills the process group of every command the host has started and not yet
// reaped (the program's second Ctrl-C).
void KillRunningCommands();

// Tags every command started on this thread while it lives with evaluation,
// so that a scheduler can end one evaluation's commands without ending the
// others' (all host calls of one evaluation come from the calling thread).
// Scopes do not nest; 0 is no evaluation.
class EvaluationScope {
 public:
  explicit EvaluationScope(uint64_t evaluation);
  ~EvaluationScope();
  EvaluationScope(const EvaluationScope&) = delete;
  EvaluationScope& operator=(const EvaluationScope&) = delete;
};

// Kills every command of evaluation that is running, and any that it starts
// from now until its scope ends. The abort callback reaches only the
// runner's wait loop; this reaches a command that closed its streams, one
// that does not read its input, and a start still authenticating.
void EndEvaluation(uint64_t evaluation);

// Whether commands get cgroups where a writable hierarchy exists (default
// true); false keeps process groups only, e.g. to compare the two.
void SetCgroupContainment(bool wanted);
// True when every command runs in a cgroup v2 of its own and ends with
// cgroup.kill (a writable hierarchy was found); false: process groups only.
bool CgroupContainment();
// Cgroups taken by runs now; 0 between runs (emptied ones wait in a pool).
uint64_t LiveRunCgroups();
// Whether runs take their cgroup from the pool (default true); false makes
// and removes one per run, e.g. to compare the two.
void SetCgroupPooling(bool pooled);
// Removes the emptied cgroups waiting in the pool, with the descriptors the
// host keeps of them (they are otherwise kept until exit).
void RemoveIdleRunCgroups();

// ---- Limits and costs of runs -------------------------------------------------

// What one run may take; 0 is no limit. memory also forbids swap; cpu is a
// share of one core (0.5: half a core).
struct RunLimits {
  uint64_t memory_bytes = 0;
  uint64_t pids = 0;
  double cpu = 0;
  bool any() const { return memory_bytes != 0 || pids != 0 || cpu != 0; }
};
// Why limits cannot hold on this host ("" when they can): each needs a
// writable cgroup v2 hierarchy, and its controller there or in a writable
// cgroup v1 hierarchy. Never silently dropped.
std::string RunLimitsError(const RunLimits& limits);
// The limits of every run from now on; false (nothing changed) with
// RunLimitsError's text in *error when they cannot hold.
bool SetRunLimits(const RunLimits& limits, std::string* error);
RunLimits DefaultRunLimits();
// Limits for the runs started on this thread while the scope lives, in place
// of the defaults (checked by the caller through RunLimitsError).
class RunLimitsScope {
 public:
  explicit RunLimitsScope(const RunLimits& limits);
  ~RunLimitsScope();
  RunLimitsScope(const RunLimitsScope&) = delete;
  RunLimitsScope& operator=(const RunLimitsScope&) = delete;

 private:
  RunLimits saved_;
  bool had_saved_;
};

// What runs cost, read from each run's cgroup when it ends. Without a cgroup
// only the direct child is seen (its CPU time and largest resident size, from
// the kernel's record of the reaped child): from_cgroup tells which.
struct RunResources {
  uint64_t runs = 0;
  double user_seconds = 0;
  double system_seconds = 0;
  uint64_t memory_peak_bytes = 0;  // largest of the runs; 0: unknown
  uint64_t io_read_bytes = 0;
  uint64_t io_write_bytes = 0;
  uint64_t oom_kills = 0;       // processes the OOM killer ended
  uint64_t forks_refused = 0;   // forks refused at the process limit
  bool from_cgroup = false;         // CPU of every process, not the child's
  bool memory_from_cgroup = false;  // peak of the cgroup, else of the child
  // Which counters a controller of the runs' cgroups gave: I/O (io),
  // OOM kills (memory) and refused forks (pids).
  bool io_counted = false;
  bool oom_kills_counted = false;
  bool forks_counted = false;
};
// The figures of the runs that ended on this thread since the last call,
// summed (peak memory: the largest), and clears them. One evaluation's runs
// end on its calling thread, so a caller takes them after each evaluation.
RunResources TakeRunResources();
// ---- Fault switches -----------------------------------------------------------

// Makes the nth allocation (counting from 1, from now on) of module fail;
// with persistent, that one and every later one fail. An empty module counts
// every module's allocations.
void FailAllocation(std::string_view module, uint64_t nth, bool persistent);
// Allocations counted for module since the last ResetFaults (for sweeps).
uint64_t AllocationCount(std::string_view module);
void RefuseNewFetchlet(bool refuse);
void RefuseMetricResult(bool refuse);
// Every plain start returns result without starting anything (0: start for
// real), e.g. QVE_NOT_FOUND or QVE_PROCESS_LIMIT.
void ForceStartResult(int32_t result);
// The next character-set conversion fails with a non-zero result.
void FailNextConversion();
// Steps the system clock as the host sees it by seconds (back when
// negative); the host's own clock takes it only once, when it starts.
void StepSystemClock(int64_t seconds);
// The system clock as the host sees it, steps included.
int64_t SystemClockNow();
// Clears every switch and the allocation counters; settings stay.
void ResetFaults();

// ---- Ledger -----------------------------------------------------------------

struct LiveBlock {
  std::string module;
  int line = 0;
  size_t size = 0;
};
// Live blocks of module (all modules when empty), in no particular order.
// Each live host object (result, row, exception, ...) counts as one block of
// module "host" with line and size 0.
std::vector<LiveBlock> LiveBlocks(std::string_view module = {});
// "module:line (size bytes)" lines of the live blocks, then "host: N TYPE not
// released" lines of the live host objects, for failure messages.
std::string DescribeLiveBlocks(std::string_view module = {});

// ---- Log capture ------------------------------------------------------------

struct LogRecord {
  std::string logger;  // "fetchlets.os", ...
  LogLevel level;
  std::string text;    // exactly as formatted, line feeds kept
};

// Records every log line while it lives, at every level, whatever the
// configured level. One capture at a time.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<LogRecord> Records() const;
  // Texts of the records of one level (and logger, when given).
  std::vector<std::string> Texts(LogLevel level,
                                 std::string_view logger = {}) const;
  void Clear();
};

// ---- Results ------------------------------------------------------------------

// A borrowed view of one cell, valid while its result lives: renderers walk
// a result through these rather than copy a large one. An unset column reads
// as kNull; a nested row may be null.
struct CellView {
  enum class Kind { kNull, kText, kTable };
  Kind kind = Kind::kNull;
  std::string_view text;
  std::vector<const qvedrvr_ValueRow*> rows;
};
std::vector<const qvedrvr_ValueRow*> ResultRows(
    const qvedrmr_MetricResult* result);
// The warning, or null when none was set (borrowed from the result).
const std::string* ResultWarning(const qvedrmr_MetricResult* result);
// The row's cells up to its highest set column.
std::vector<CellView> RowView(const qvedrvr_ValueRow& row);

// ---- Credential launcher ----------------------------------------------------

// The fetchlet-launch program that authenticated processes start. Empty (the
// default): the first executable fetchlet-launch found in, in this order, the
// host library's own directory DIR, DIR/../libexec, DIR/../../libexec (an
// installed library under lib/<multiarch>) and DIR/../bin (the build tree).
// An installed launcher is set-user-ID root so that an unprivileged host can
// run commands as other users.
void SetLauncherPath(const std::string& path);
// The launcher the next authenticated start uses; empty when none is found.
std::string LauncherPath();
// A settings file for a launcher without privilege (one built for tests, not
// set-user-ID); empty (the default): the launcher's own root-owned file. An
// installed launcher ignores it. The host never passes its own environment
// to the launcher, so no variable can stand in for this.
void SetLauncherConfig(const std::string& path);

}  // namespace qvehost
QVE_HOST_EXPORTS_END

#endif  // QVE_EMBEDDED_H_
