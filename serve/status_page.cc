#include <cstdio>

#include "serve/http.h"
#include "serve/probe.h"

namespace fetchlet::serve {
namespace {

std::string Escaped(std::string_view text) {
  std::string out;
  for (const char c : ValidUtf8(text)) {
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      case '\'': out += "&#39;"; break;
      default: out += c;
    }
  }
  return out;
}

std::string Seconds(Duration duration) {
  char text[32];
  std::snprintf(text, sizeof text, "%gs",
                static_cast<double>(duration.count()) / 1000);
  return text;
}

std::string Schedule(const CollectorConfig& config) {
  if (config.interval) return "every " + Seconds(*config.interval);
  return "on scrape, cached " + Seconds(config.cache_for.value_or(Duration(0)));
}

// CPU seconds and I/O since start, and the last evaluation's peak memory.
std::string Cost(const Snapshot& s) {
  char text[128];
  std::snprintf(text, sizeof text,
                "%.2fs user, %.2fs system, peak %.1f MiB, read %.0f, "
                "written %.0f bytes",
                s.cpu_user_seconds, s.cpu_system_seconds,
                s.memory_peak_bytes / 1048576, s.io_read_bytes,
                s.io_write_bytes);
  return text;
}

std::string Row(const Collector& collector, SteadyTime now) {
  const auto snapshot = collector.snapshot();
  std::string status = "pending";
  std::string age = "-";
  if (snapshot->generation > 0) {
    status = snapshot->up ? "up" : "down";
    age = Seconds(std::chrono::duration_cast<Duration>(now - snapshot->finished));
  }
  return "<tr><td>" + Escaped(collector.config().name) + "</td><td>" +
         Escaped(Schedule(collector.config())) + "</td><td>" + status +
         "</td><td>" + age + "</td><td>" + Cost(*snapshot) + "</td><td>" +
         Escaped(snapshot->message) + "</td><td>" + Escaped(snapshot->last_error) +
         "</td></tr>\n";
}

// The probe modules, as /probe?module=NAME&target=... asks for them.
std::string ModuleTable(const Prober& prober) {
  const std::vector<Prober::ModuleStatus> modules = prober.Status();
  if (modules.empty()) return "";
  std::string table =
      "<h2>probe modules</h2>\n<table>\n"
      "<tr><th>module</th><th>parameters</th><th>probes</th>"
      "<th>failed</th><th>refused</th></tr>\n";
  for (const Prober::ModuleStatus& m : modules) {
    table += "<tr><td>" + Escaped(m.name) + "</td><td>" + Escaped(m.params) +
             "</td><td>" + std::to_string(m.probes) +
             "</td><td>" + std::to_string(m.failures) + "</td><td>" +
             std::to_string(m.refusals) + "</td></tr>\n";
  }
  return table + "</table>\n";
}

}  // namespace

std::string StatusPage(const Scheduler& scheduler, const Prober* prober) {
  std::string page =
      "<!DOCTYPE html>\n<html><head><meta charset=\"utf-8\">"
      "<title>fetchlet serve</title></head><body>\n<h1>fetchlet serve</h1>\n"
      "<p><a href=\"/metrics\">/metrics</a></p>\n<table>\n"
      "<tr><th>collector</th><th>schedule</th><th>status</th>"
      "<th>age</th><th>cost</th><th>message</th><th>last error</th></tr>\n";
  const SteadyTime now = std::chrono::steady_clock::now();
  for (const CollectorPtr& collector : scheduler.collectors()) {
    page += Row(*collector, now);
  }
  page += "</table>\n";
  if (prober != nullptr) page += ModuleTable(*prober);
  return page + "</body></html>\n";
}

}  // namespace fetchlet::serve
