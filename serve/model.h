// The sample model: what one evaluation of a collector measured, as plain
// data. Mapping builds it after each evaluation; exposition renders it. A
// scrape only reads a snapshot, which is never changed once published.
#ifndef FETCHLET_SERVE_MODEL_H_
#define FETCHLET_SERVE_MODEL_H_

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace fetchlet::serve {

enum class MetricType {
  kGauge, kCounter, kInfo, kStateset, kUnknown, kHistogram, kSummary
};

using Labels = std::vector<std::pair<std::string, std::string>>;

struct Sample {
  // A constructor, not an aggregate: {labels, value} stays complete.
  Sample(Labels labels_in = {}, double value_in = 0, std::string suffix_in = {})
      : labels(std::move(labels_in)), value(value_in),
        suffix(std::move(suffix_in)) {}

  Labels labels;  // in the order the configuration names them
  double value = 0;
  // Appended to the family's name: "_bucket", "_sum" or "_count" of a
  // histogram or summary read from a command's text; "" elsewhere.
  std::string suffix;
};

// One metric family. name is the configured name: a counter's ends in
// "_total" (the OpenMetrics renderer drops it from its TYPE and HELP lines),
// an info family's does not end in "_info" (its samples get it), a
// stateset's samples carry a label named like the family.
struct Family {
  std::string name;
  MetricType type = MetricType::kGauge;
  std::string unit;  // "" or the suffix of name
  std::string help;
  std::vector<Sample> samples;
};

// Everything one collector contributes to a scrape, replaced whole after
// each evaluation.
using Families = std::vector<Family>;
using FamiliesPtr = std::shared_ptr<const Families>;

}  // namespace fetchlet::serve

#endif  // FETCHLET_SERVE_MODEL_H_
