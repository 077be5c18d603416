// GET /probe?module=M&target=T[&NAME=VALUE...]: one run of a module for one
// target, within the scraper's deadline, answered with the module's samples,
// probe_success and probe_duration_seconds. A request the module's params
// do not admit is answered 400 and runs nothing; past max_concurrent_probes
// runs at once, 503 at once, never a queue.
//
// Probes run on the listener's workers, which serve sizes with
// max_concurrent_probes more than it needs for /metrics: scheduled
// collectors keep their own workers (max_concurrent), and /metrics keeps
// workers that no probe can take.
#ifndef FETCHLET_SERVE_PROBE_H_
#define FETCHLET_SERVE_PROBE_H_

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "agent/evaluate.h"
#include "serve/collector.h"
#include "serve/config.h"
#include "serve/http_wire.h"
#include "serve/mapping.h"
#include "serve/module_params.h"

namespace fetchlet::serve {

struct ProbeRun {
  agent::Outcome outcome;
  Mapped mapped;
  // The run succeeded, its output mapped and, for a nagios module, the
  // plug-in said OK.
  bool success = false;
};

// Runs module once with values in place of its ${NAME}s, under call: what
// /probe and `fetchlet test --module` both do.
ProbeRun RunProbe(const ModuleConfig& module,
                  const agent::EntryPoints& entry_points,
                  const ParamValues& values, const agent::Call& call);

// probe_success and probe_duration_seconds.
Families ProbeFamilies(bool success, double duration_seconds);

// Why a probe request was answered without a run: the reason label of
// fetchlet_probe_refusals_total.
enum class Refusal { kUnknownModule, kInvalidParameter, kConcurrency };
inline constexpr size_t kRefusalCount = 3;

struct ProbeModule {
  ModuleConfig config;
  agent::EntryPoints entry_points;
};

class Prober {
 public:
  explicit Prober(int max_concurrent);
  ~Prober();  // Stop()
  Prober(const Prober&) = delete;
  Prober& operator=(const Prober&) = delete;

  // Replaces the modules (a reload); answers cached for the old ones go.
  void SetModules(std::vector<ProbeModule> modules, Duration timeout_offset);

  // GET /probe.
  void Serve(const HttpRequest& request, HttpResponse& response);

  // fetchlet_probes_total, fetchlet_probe_failures_total and
  // fetchlet_probe_refusals_total, per module.
  Families MetaFamilies() const;

  // A module as the status page shows it.
  struct ModuleStatus {
    std::string name;
    std::string params;  // its parameters, as a /probe query would name them
    uint64_t probes = 0;
    uint64_t failures = 0;
    uint64_t refusals = 0;
  };
  std::vector<ModuleStatus> Status() const;

  // Ends every running probe; later requests are answered 503.
  void Stop();

 private:
  struct ModuleSet;
  struct Counts {
    uint64_t probes = 0;
    std::array<uint64_t, kFailureCount> failures{};
    std::array<uint64_t, kRefusalCount> refusals{};
  };

  std::shared_ptr<ModuleSet> modules() const;
  void Refuse(const std::string& module, Refusal refusal, int status,
              const std::string& why, HttpResponse& response);
  // The answer of one run, or nullptr (counted) when none may start now.
  FamiliesPtr Run(const ProbeModule& module, const ParamValues& values,
                  SteadyTime deadline);
  FamiliesPtr Answer(ModuleSet& set, const ProbeModule& module,
                     const ParamValues& values, const HttpRequest& request);

  const size_t max_concurrent_;
  mutable std::mutex mutex_;
  std::shared_ptr<ModuleSet> modules_;        // guarded by mutex_
  std::map<uint64_t, std::string> running_;   // evaluation, request id
  std::map<std::string, Counts> counts_;      // by module name
  bool stopping_ = false;
};

}  // namespace fetchlet::serve

#endif  // FETCHLET_SERVE_PROBE_H_
