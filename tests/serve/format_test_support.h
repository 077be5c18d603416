// What a format parser's or a mapping's samples look like once rendered:
// the 0.0.4 text that Prometheus reads.
#ifndef QVE_TESTS_SERVE_FORMAT_TEST_SUPPORT_H_
#define QVE_TESTS_SERVE_FORMAT_TEST_SUPPORT_H_

#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "serve/exposition.h"
#include "serve/format.h"

namespace qvetest {

inline std::string Rendered(const fetchlet::serve::Families& families) {
  return fetchlet::serve::RenderExposition(
      {std::make_shared<const fetchlet::serve::Families>(families)},
      fetchlet::serve::Format::kText);
}

// The sample lines of Rendered, without HELP and TYPE.
inline std::vector<std::string> RenderedSamples(
    const fetchlet::serve::Families& families) {
  std::vector<std::string> lines;
  std::istringstream text(Rendered(families));
  for (std::string line; std::getline(text, line);) {
    if (!line.starts_with("#")) lines.push_back(line);
  }
  return lines;
}

// name -> value of each sample of a fetchlet test --json object, names
// with their labels: "name,label=value,...".
inline std::map<std::string, double> SampleValues(const nlohmann::json& outcome) {
  std::map<std::string, double> values;
  for (const nlohmann::json& sample : outcome["samples"]) {
    std::string key = sample["name"];
    for (const auto& [label, value] : sample["labels"].items()) {
      key += "," + label + "=" + value.get<std::string>();
    }
    values[key] = sample["value"];
  }
  return values;
}

}  // namespace qvetest

#endif  // QVE_TESTS_SERVE_FORMAT_TEST_SUPPORT_H_
