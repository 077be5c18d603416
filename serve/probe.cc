#include "serve/probe.h"

#include <spdlog/spdlog.h>

#include <algorithm>
#include <atomic>

#include "serve/http.h"

namespace fetchlet::serve {
namespace {

using std::chrono::steady_clock;

// Past this many cached answers of a module set, new ones are not kept (a
// probe then runs every time): the targets asked for must not grow memory
// without end.
constexpr size_t kMaxCachedAnswers = 4096;

// Probes tag their commands apart from the scheduler's evaluations (which
// count from 1), so that ending one never reaches another.
std::atomic<uint64_t> next_probe_evaluation{uint64_t{1} << 62};

// A nagios module passes only when the plug-in said OK.
bool CheckPassed(const CollectorConfig& collector, const Families& families) {
  if (collector.format != "nagios") return true;
  const std::string name = collector.prefix + "_exit_status";
  for (const Family& family : families) {
    if (family.name == name && !family.samples.empty()) {
      return family.samples.front().value == 0;
    }
  }
  return false;
}

std::string CacheKey(const std::string& module, const ParamValues& values) {
  std::string key = module;
  for (const auto& [name, value] : values) {
    key += '\0';
    key += value;
  }
  return key;
}

SteadyTime ProbeDeadline(const HttpRequest& request, Duration timeout,
                         Duration offset) {
  const auto scraper = std::chrono::duration_cast<steady_clock::duration>(
      std::chrono::duration<double>(ScrapeTimeoutSeconds(request)) - offset);
  return steady_clock::now() +
         std::max(std::min<steady_clock::duration>(scraper, timeout),
                  steady_clock::duration::zero());
}

// A failed probe is common (a target down, asked again at the next scrape):
// its notes go to the debug log, with the values that made it.
void LogFailedProbe(const std::string& module, const ParamValues& values,
                    const std::vector<std::string>& notes) {
  if (!spdlog::should_log(spdlog::level::debug)) return;
  std::string query;
  for (const auto& [name, value] : values) {
    query.append(" ").append(name).append("=").append(value);
  }
  for (const std::string& note : notes) {
    spdlog::debug("probe {}{}: {}", module, LogSafe(query), LogSafe(note));
  }
}

// A module's parameters as a request names them: "target, port=80".
std::string ParamsText(const ModuleConfig& module) {
  std::string text;
  for (const ModuleParam& param : module.params) {
    if (!text.empty()) text += ", ";
    text += param.name;
    if (param.default_value) text += "=" + *param.default_value;
  }
  return text;
}

const char* RefusalName(Refusal refusal) {
  static constexpr std::array<const char*, kRefusalCount> kNames = {
      "unknown_module", "invalid_parameter", "concurrency"};
  return kNames[static_cast<size_t>(refusal)];
}

}  // namespace

struct Prober::ModuleSet {
  struct Cached {
    FamiliesPtr families;
    SteadyTime finished;
  };

  std::vector<ProbeModule> modules;
  Duration timeout_offset{500};
  std::mutex mutex;
  std::map<std::string, Cached> cache;  // guarded by mutex

  const ProbeModule* Find(std::string_view name) const {
    for (const ProbeModule& module : modules) {
      if (module.config.collector.name == name) return &module;
    }
    return nullptr;
  }
  FamiliesPtr Fresh(const std::string& key, Duration cache_for) {
    std::lock_guard lock(mutex);
    const auto found = cache.find(key);
    if (found == cache.end() ||
        steady_clock::now() - found->second.finished >= cache_for) {
      return nullptr;
    }
    return found->second.families;
  }
  void Keep(const std::string& key, FamiliesPtr families, Duration cache_for) {
    const SteadyTime now = steady_clock::now();
    std::lock_guard lock(mutex);
    if (cache.size() >= kMaxCachedAnswers) {
      std::erase_if(cache, [&](const auto& entry) {
        return now - entry.second.finished >= cache_for;
      });
    }
    if (cache.size() < kMaxCachedAnswers) cache[key] = {std::move(families), now};
  }
};

ProbeRun RunProbe(const ModuleConfig& module,
                  const agent::EntryPoints& entry_points,
                  const ParamValues& values, const agent::Call& call) {
  CollectorConfig config = module.collector;
  for (auto& [name, value] : config.properties) value = Substitute(value, values);
  const Collector collector(std::move(config), entry_points);
  ProbeRun run;
  run.outcome = collector.Evaluate(call);
  run.mapped = MapEvaluation(collector.config(), run.outcome);
  run.success = !run.mapped.failure &&
                CheckPassed(collector.config(), run.mapped.families);
  return run;
}

Families ProbeFamilies(bool success, double duration_seconds) {
  Families families;
  families.push_back({"probe_success", MetricType::kGauge, "",
                      "1 when the probe's check passed.", {{{}, success ? 1.0 : 0.0}}});
  families.push_back({"probe_duration_seconds", MetricType::kGauge, "seconds",
                      "How long the probe's run took.", {{{}, duration_seconds}}});
  return families;
}

Prober::Prober(int max_concurrent)
    : max_concurrent_(static_cast<size_t>(std::max(max_concurrent, 1))),
      modules_(std::make_shared<ModuleSet>()) {}

Prober::~Prober() { Stop(); }

void Prober::SetModules(std::vector<ProbeModule> modules,
                        Duration timeout_offset) {
  auto set = std::make_shared<ModuleSet>();
  set->modules = std::move(modules);
  set->timeout_offset = timeout_offset;
  std::lock_guard lock(mutex_);
  modules_ = std::move(set);
}

std::shared_ptr<Prober::ModuleSet> Prober::modules() const {
  std::lock_guard lock(mutex_);
  return modules_;
}

void Prober::Refuse(const std::string& module, Refusal refusal, int status,
                    const std::string& why, HttpResponse& response) {
  {
    std::lock_guard lock(mutex_);
    ++counts_[module].refusals[static_cast<size_t>(refusal)];
  }
  response = ErrorResponse(status);
  response.close = false;
  response.body += why + "\n";
}

FamiliesPtr Prober::Run(const ProbeModule& module, const ParamValues& values,
                        SteadyTime deadline) {
  const std::string& name = module.config.collector.name;
  const uint64_t evaluation = next_probe_evaluation.fetch_add(1);
  const std::string request_id = "fetchlet-probe-" + std::to_string(evaluation);
  {
    std::lock_guard lock(mutex_);
    if (stopping_ || running_.size() >= max_concurrent_) return nullptr;
    running_.emplace(evaluation, request_id);
  }
  ProbeRun run = RunProbe(module.config, module.entry_points, values,
                          {evaluation, request_id, deadline});
  {
    std::lock_guard lock(mutex_);
    running_.erase(evaluation);
    // A probe ended by the stop counts as timed out, as a collector's run.
    if (stopping_ && !run.mapped.failure) run.mapped.failure = Failure::kTimeout;
    run.success = run.success && !run.mapped.failure;
    Counts& counts = counts_[name];
    ++counts.probes;
    if (run.mapped.failure) {
      ++counts.failures[static_cast<size_t>(*run.mapped.failure)];
    }
  }
  if (run.mapped.failure) LogFailedProbe(name, values, run.mapped.notes);
  Families families = ProbeFamilies(run.success, run.outcome.duration_seconds);
  for (Family& family : run.mapped.families) families.push_back(std::move(family));
  return std::make_shared<const Families>(std::move(families));
}

FamiliesPtr Prober::Answer(ModuleSet& set, const ProbeModule& module,
                           const ParamValues& values,
                           const HttpRequest& request) {
  const auto& cache_for = module.config.cache_for;
  const std::string key = CacheKey(module.config.collector.name, values);
  if (cache_for) {
    if (FamiliesPtr cached = set.Fresh(key, *cache_for)) return cached;
  }
  FamiliesPtr families =
      Run(module, values,
          ProbeDeadline(request, module.config.collector.timeout, set.timeout_offset));
  if (families && cache_for) set.Keep(key, families, *cache_for);
  return families;
}

void Prober::Serve(const HttpRequest& request, HttpResponse& response) {
  ParamValues query;
  if (!DecodeQuery(request.target, &query)) {
    return Refuse("", Refusal::kInvalidParameter, 400,
                  "the query is not well encoded", response);
  }
  const auto named = std::find_if(query.begin(), query.end(),
                                  [](const auto& p) { return p.first == "module"; });
  const std::shared_ptr<ModuleSet> set = modules();
  const ProbeModule* module =
      named == query.end() ? nullptr : set->Find(named->second);
  if (module == nullptr) {
    return Refuse("", Refusal::kUnknownModule, 400,
                  "'module' names no configured module", response);
  }
  query.erase(named);
  const std::string& name = module->config.collector.name;
  ParamValues values;
  std::string problem;
  if (!BindParams(module->config, query, &values, &problem)) {
    return Refuse(name, Refusal::kInvalidParameter, 400, problem, response);
  }
  const FamiliesPtr families = Answer(*set, *module, values, request);
  if (!families) {
    return Refuse(name, Refusal::kConcurrency, 503,
                  "too many probes at once", response);
  }
  const Format format = NegotiateFormat(request.Header("Accept"));
  std::string body;
  AppendFamilies({families.get()}, format, &body);
  if (format == Format::kOpenMetrics) body.append("# EOF\n");
  SetExposition(request, std::move(body), format, response);
}

Families Prober::MetaFamilies() const {
  Family probes{"fetchlet_probes_total", MetricType::kCounter, "",
                "Probes run, by module.", {}};
  Family failures{"fetchlet_probe_failures_total", MetricType::kCounter, "",
                  "Probes whose run failed, by module and kind.", {}};
  Family refusals{"fetchlet_probe_refusals_total", MetricType::kCounter, "",
                  "Probe requests answered without a run, by module and reason.",
                  {}};
  const std::shared_ptr<ModuleSet> set = modules();
  std::lock_guard lock(mutex_);
  std::vector<std::string> names;
  for (const ProbeModule& module : set->modules) {
    names.push_back(module.config.collector.name);
  }
  if (counts_.contains("")) names.emplace_back("");  // no module named
  if (names.empty()) return {};  // a serve without modules
  for (const std::string& name : names) {
    const auto found = counts_.find(name);
    const Counts counts = found == counts_.end() ? Counts{} : found->second;
    if (!name.empty()) {
      probes.samples.push_back({{{"module", name}}, static_cast<double>(counts.probes)});
      for (const Failure failure : AllFailures()) {
        failures.samples.push_back(
            {{{"module", name}, {"kind", FailureName(failure)}},
             static_cast<double>(counts.failures[static_cast<size_t>(failure)])});
      }
    }
    for (size_t i = 0; i < kRefusalCount; ++i) {
      // A module named is never unknown; a request naming none never ran.
      const auto refusal = static_cast<Refusal>(i);
      if (refusal == (name.empty() ? Refusal::kConcurrency : Refusal::kUnknownModule)) {
        continue;
      }
      refusals.samples.push_back(
          {{{"module", name}, {"reason", RefusalName(refusal)}},
           static_cast<double>(counts.refusals[i])});
    }
  }
  Families families;
  families.push_back(std::move(probes));
  families.push_back(std::move(failures));
  families.push_back(std::move(refusals));
  return families;
}

std::vector<Prober::ModuleStatus> Prober::Status() const {
  const std::shared_ptr<ModuleSet> set = modules();
  std::lock_guard lock(mutex_);
  std::vector<ModuleStatus> rows;
  for (const ProbeModule& module : set->modules) {
    ModuleStatus row{module.config.collector.name, ParamsText(module.config)};
    const auto found = counts_.find(row.name);
    if (found != counts_.end()) {
      row.probes = found->second.probes;
      for (const uint64_t n : found->second.failures) row.failures += n;
      for (const uint64_t n : found->second.refusals) row.refusals += n;
    }
    rows.push_back(std::move(row));
  }
  return rows;
}

void Prober::Stop() {
  std::map<uint64_t, std::string> running;
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
    running = running_;
  }
  for (const auto& [evaluation, request_id] : running) {
    agent::End(evaluation, request_id);
  }
}

}  // namespace fetchlet::serve
