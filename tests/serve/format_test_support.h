// What a format parser's or a mapping's samples look like once rendered
// (the 0.0.4 text that Prometheus reads), and fetchlet test --json on
// format collectors.
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
#include "tests/serve/serve_test_support.h"

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

// One os collector c of format running command, with its other keys in
// extra.
inline std::string FormatCollector(const std::string& format,
                                   const std::string& command,
                                   const std::string& extra = "") {
  return "collectors:\n  - name: c\n    kind: os\n    interval: 1m\n    format: " +
         format + "\n" + extra + "    properties: {command: \"" + command + "\"}\n";
}

// The objects of fetchlet test --json, one per collector in config.
inline std::vector<nlohmann::json> TestJsonLines(const std::string& config) {
  const Ran ran = RunProgram({QVE_FETCHLET_BIN, "test", "--config",
                              WriteServeFile("format.yaml", config), "--json"});
  std::vector<nlohmann::json> objects;
  std::istringstream lines(ran.out);
  for (std::string line; std::getline(lines, line);) {
    objects.push_back(nlohmann::json::parse(line, nullptr, false));
  }
  return objects;
}

// The one object of a configuration of one collector; null otherwise.
inline nlohmann::json TestJson(const std::string& config) {
  const std::vector<nlohmann::json> objects = TestJsonLines(config);
  return objects.size() == 1 ? objects[0] : nlohmann::json();
}

}  // namespace qvetest

#endif  // QVE_TESTS_SERVE_FORMAT_TEST_SUPPORT_H_
