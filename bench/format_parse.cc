// Parse cost per sample of each format beside our renderer's cost per
// sample: 10,000 series rendered as 0.0.4 text and read back by the
// prometheus format, 10,000 Nagios perfdata labels, 10,000 JSON rows.
// Repetitions interleaved; figures are the medians, in CPU time.
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "serve/exposition.h"
#include "serve/format_json.h"
#include "serve/format_nagios.h"
#include "serve/format_prometheus.h"

namespace {

using namespace fetchlet::serve;

constexpr int kSeries = 10000;
constexpr int kRounds = 15;

double CpuMs() {
  timespec t{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) * 1e3 + static_cast<double>(t.tv_nsec) / 1e6;
}

Families Model() {
  Family family{"bench_value_bytes", MetricType::kGauge, "bytes", "A value.", {}};
  for (int i = 0; i < kSeries; ++i) {
    family.samples.push_back({{{"device", "/dev/disk" + std::to_string(i)},
                               {"mountpoint", "/srv/mount/" + std::to_string(i)}},
                              i * 4096.5});
  }
  return {family};
}

std::string NagiosOutput() {
  std::string text = "OK - bench |";
  for (int i = 0; i < kSeries; ++i) {
    text += " 'disk " + std::to_string(i) + "'=" + std::to_string(i) + "MB;80;90;0;100";
  }
  return text + "\nfetchlet-exit-status 0\n";
}

struct JsonInput {
  JsonSpec layout;
  std::vector<MetricDefinition> metrics;
  std::string text;
};

JsonInput MakeJsonInput() {
  JsonInput input;
  input.layout.rows = "/devices";
  MetricDefinition metric;
  metric.name = "bench_value_bytes";
  metric.help = "A value.";
  metric.value.column = JsonColumn(&input.layout, "/size");
  metric.labels = {{"device", JsonColumn(&input.layout, "/name")},
                   {"mountpoint", JsonColumn(&input.layout, "/mountpoint")}};
  input.metrics.push_back(metric);
  std::string text = "{\"devices\": [";
  for (int i = 0; i < kSeries; ++i) {
    text += (i ? "," : "") + std::string("{\"name\": \"/dev/disk") + std::to_string(i) +
            "\", \"size\": " + std::to_string(i * 4096) + ", \"mountpoint\": \"/srv/" +
            std::to_string(i) + "\"}";
  }
  input.text = text + "]}";
  return input;
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

}  // namespace

int main() {
  const auto model = std::make_shared<const Families>(Model());
  const std::string text = RenderExposition({model}, Format::kText);
  const std::string nagios = NagiosOutput();
  const JsonInput json = MakeJsonInput();
  size_t sink = 0;
  const std::vector<std::function<void()>> steps = {
      [&] { sink += RenderExposition({model}, Format::kText).size(); },
      [&] { sink += ParsePrometheus(text, {}).families.size(); },
      [&] { sink += ParseNagios(nagios, {"bench"}).families.size(); },
      [&] { sink += ParseJson(json.text, json.layout, json.metrics).families.size(); }};
  std::vector<std::vector<double>> times(steps.size());
  for (int round = 0; round < kRounds; ++round) {
    for (size_t i = 0; i < steps.size(); ++i) {
      const double start = CpuMs();
      steps[i]();
      times[i].push_back(CpuMs() - start);
    }
  }
  std::vector<double> ns;
  for (const auto& each : times) ns.push_back(Median(each) * 1e6 / kSeries);
  std::printf("per sample: render %.0f ns, prometheus parse %.0f ns (%.2fx), "
              "nagios %.0f ns per label, json %.0f ns per row (%zu)\n",
              ns[0], ns[1], ns[1] / ns[0], ns[2], ns[3], sink);
  std::printf("{\"bench\":\"format_parse\",\"render_ns\":%.0f,\"prometheus_ns\":%.0f,"
              "\"ratio_prometheus\":%.2f,\"nagios_ns\":%.0f,\"json_ns\":%.0f}\n",
              ns[0], ns[1], ns[1] / ns[0], ns[2], ns[3]);
}
