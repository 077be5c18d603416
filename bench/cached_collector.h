// A collector whose value is already evaluated: series rows of a df-like
// table, for the benchmarks that scrape serve without running commands.
#ifndef FETCHLET_BENCH_CACHED_COLLECTOR_H_
#define FETCHLET_BENCH_CACHED_COLLECTOR_H_

#include <memory>
#include <string>

#include "serve/collector.h"

namespace fetchlet::serve {

inline CollectorPtr CachedCollector(int series) {
  CollectorConfig config;
  config.name = "bench";
  config.kind = CollectorKind::kOsLineToken;
  MetricDefinition metric;
  metric.name = "bench_value_bytes";
  metric.unit = "bytes";
  metric.help = "A cached value.";
  metric.value.column = 1;
  metric.labels = {{"device", 0}, {"mountpoint", 2}};
  config.metrics.push_back(metric);
  fetchlet::agent::Outcome outcome;
  outcome.result.reset(qvedrmr_MetricResult_new());
  for (int i = 0; i < series; ++i) {
    qvedrvr_ValueRow* row = qvedrvr_ValueRow_new();
    const std::string cells[] = {"/dev/disk" + std::to_string(i),
                                 std::to_string(i * 4096.5),
                                 "/srv/mount/" + std::to_string(i)};
    for (int32_t column = 0; column < 3; ++column) {
      qvedrvr_ValueRow_setStringValue(row, column, cells[column].c_str());
    }
    qvedrmr_MetricResult_addValueRow(outcome.result.get(), row);
  }
  auto collector =
      std::make_shared<Collector>(config, fetchlet::agent::EntryPoints{});
  collector->Publish(outcome);
  return collector;
}

}  // namespace fetchlet::serve

#endif  // FETCHLET_BENCH_CACHED_COLLECTOR_H_
