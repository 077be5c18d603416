// format: prometheus. A command's standard output read as the Prometheus
// text format 0.0.4 or OpenMetrics 1.0.0 (told apart by its "# EOF"), held
// to the rules of our own exposition: valid names and types, a counter's
// samples end in _total, HELP and TYPE before a family's samples and once,
// each family in one block, no series twice, valid UTF-8. A line or family
// that breaks them is dropped and counted, the rest kept. Timestamps are
// dropped: a sample's time is the scrape's. Histograms and summaries pass
// through whole. Clashes with other collectors' families are FamilyClaims'.
#ifndef FETCHLET_SERVE_FORMAT_PROMETHEUS_H_
#define FETCHLET_SERVE_FORMAT_PROMETHEUS_H_

#include <string>
#include <string_view>

#include "serve/format.h"
#include "serve/model.h"

namespace fetchlet::serve {

struct PrometheusOptions {
  std::string prefix;  // put before every family's name
  Labels labels;       // added to every sample; a sample may not set them
};

Parsed ParsePrometheus(std::string_view text, const PrometheusOptions& options);

}  // namespace fetchlet::serve

#endif  // FETCHLET_SERVE_FORMAT_PROMETHEUS_H_
