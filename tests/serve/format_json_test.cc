// format: json: rows and cells by JSON Pointer, nested rows with their
// parent's cells, and documents that fail whole.
#include <gtest/gtest.h>

#include "format_test_support.h"
#include "serve/format_json.h"

namespace qvetest {
namespace {

using fetchlet::serve::JsonColumn;
using fetchlet::serve::JsonSpec;
using fetchlet::serve::MetricDefinition;
using fetchlet::serve::MetricType;
using fetchlet::serve::ParseJson;
using fetchlet::serve::Parsed;
using Lines = std::vector<std::string>;

struct JsonFormat {
  JsonSpec layout;
  std::vector<MetricDefinition> metrics;
};

MetricDefinition Metric(const std::string& name,
                        MetricType type = MetricType::kGauge,
                        const std::string& unit = "") {
  MetricDefinition metric;
  metric.name = name;
  metric.type = type;
  metric.unit = unit;
  return metric;
}

// A family whose value and labels are pointers into each row.
void AddMetric(JsonFormat* format, MetricDefinition metric,
               const std::string& value,
               const std::vector<std::pair<std::string, std::string>>& labels) {
  metric.help = "Help.";
  if (!value.empty()) metric.value.column = JsonColumn(&format->layout, value);
  for (const auto& [name, pointer] : labels) {
    metric.labels.emplace_back(name, JsonColumn(&format->layout, pointer));
  }
  format->metrics.push_back(std::move(metric));
}

JsonFormat Lsblk() {
  JsonFormat format;
  format.layout.rows = "/blockdevices";
  format.layout.children = "/children";
  AddMetric(&format, Metric("disk_size_bytes", MetricType::kGauge, "bytes"), "/size",
            {{"device", "/name"}, {"model", "/model"}});
  MetricDefinition read_only = Metric("disk_read_only");
  read_only.value.map = {{"true", 1}, {"false", 0}};
  AddMetric(&format, read_only, "/ro", {{"device", "/name"}});
  return format;
}

JsonFormat Links() {
  JsonFormat format;
  MetricDefinition bytes =
      Metric("link_received_bytes_total", MetricType::kCounter);
  bytes.value.scale = 1024;
  bytes.value.trim_suffix = "K";
  AddMetric(&format, bytes, "/stats64/rx/bytes", {{"link", "/ifname"}});
  AddMetric(&format, Metric("link", MetricType::kInfo), "",
            {{"link", "/ifname"}, {"state", "/operstate"}});
  return format;
}

struct Case {
  std::string name;
  JsonFormat format;
  std::string document;
  Lines samples;
  uint64_t parse = 0;
  std::string failure;
  Lines notes;
};

// An array of n ones.
std::string ManyValues(size_t n) {
  std::string text = "[1";
  for (size_t i = 1; i < n; ++i) text += ",1";
  return text + "]";
}

const std::string kLsblk = R"({"blockdevices": [
  {"name": "sda", "size": 1000, "model": "M \"1\"", "ro": false, "children": [
    {"name": "sda1", "size": 400, "ro": true, "model": null},
    {"name": "sda2", "size": "600", "children": [{"name": "vg-root", "size": 5},
                                                 {"name": "vg-swap", "size": "y"}]}]},
  {"name": "sdb", "size": "x", "model": "N", "ro": false},
  {"name": "sdc", "size": 1, "model": null}]})";

const std::vector<Case> kCases = {
    {"nested_rows_keep_the_parents_cells", Lsblk(), kLsblk,
     {"disk_size_bytes{device=\"sda\",model=\"M \\\"1\\\"\"} 1000",
      "disk_size_bytes{device=\"sda1\",model=\"M \\\"1\\\"\"} 400",
      "disk_size_bytes{device=\"sda2\",model=\"M \\\"1\\\"\"} 600",
      "disk_size_bytes{device=\"vg-root\",model=\"M \\\"1\\\"\"} 5",
      "disk_read_only{device=\"sda\"} 0", "disk_read_only{device=\"sda1\"} 1",
      "disk_read_only{device=\"sda2\"} 0", "disk_read_only{device=\"vg-root\"} 0"},
     3, "",
     {"row 1.2.2 dropped: 'y' is not a number",
      "row 2 dropped: 'x' is not a number",
      "row 3 dropped: no /model for label model"}},
    {"document_as_rows", Links(),
     R"([{"ifname": "lo", "operstate": "UNKNOWN", "stats64": {"rx": {"bytes": "2K"}}},
         {"ifname": "eth0", "operstate": "UP"}])",
     {"link_received_bytes_total{link=\"lo\"} 2048",
      "link_info{link=\"lo\",state=\"UNKNOWN\"} 1"},
     1, "", {"row 2 dropped: no /stats64/rx/bytes for the value of link_received_bytes_total"}},
    {"not_json", Lsblk(), "{\"blockdevices\": [", {}, 0, "parse",
     {"output is not JSON"}},
    {"no_rows_there", Lsblk(), R"({"devices": []})", {}, 0, "parse",
     {"no rows at '/blockdevices'"}},
    {"rows_not_an_array", Lsblk(), R"({"blockdevices": 3})", {}, 0, "parse",
     {"no rows at '/blockdevices'"}},
    {"too_deep", Lsblk(), std::string(100000, '[') + std::string(100000, ']'),
     {}, 0, "parse", {"output nests deeper than 64"}},
    {"too_many_values", Lsblk(), ManyValues(1000001),
     {}, 0, "parse", {"output holds more than 1000000 values"}},
    {"brackets_in_strings_do_not_nest", Lsblk(),
     R"({"blockdevices": [{"name": ")" + std::string(100, '[') +
         R"(\"", "size": 1, "model": "", "ro": true}]})",
     {"disk_size_bytes{device=\"" + std::string(100, '[') + "\\\"\",model=\"\"} 1",
      "disk_read_only{device=\"" + std::string(100, '[') + "\\\"\"} 1"},
     0, "", {}},
};

class JsonFormatTest : public testing::TestWithParam<Case> {};

TEST_P(JsonFormatTest, RowsToSamples) {
  const Case& c = GetParam();
  const Parsed parsed = ParseJson(c.document, c.format.layout, c.format.metrics);
  EXPECT_EQ(RenderedSamples(parsed.families), c.samples);
  EXPECT_EQ(parsed.parse, c.parse);
  EXPECT_EQ(parsed.failure, c.failure);
  EXPECT_EQ(parsed.notes, c.notes);
}

INSTANTIATE_TEST_SUITE_P(Documents, JsonFormatTest, testing::ValuesIn(kCases),
                         [](const auto& p) { return p.param.name; });

// A 100 MiB document over a 64 MiB output limit fails before any parse.
TEST(JsonFormatHostile, DocumentOverTheLimit) {
  std::string document = "[";
  document.append(100u << 20, ' ');
  document.append("]");
  const Parsed parsed = ParseJson(document, Lsblk().layout, Lsblk().metrics);
  EXPECT_EQ(parsed.failure, "parse");
  EXPECT_EQ(parsed.notes, (Lines{"output of 104857602 bytes is over the limit "
                                 "of 67108864"}));
}

TEST(JsonFormatPointer, Checked) {
  EXPECT_EQ(fetchlet::serve::CheckJsonPointer("/a/0/~1b"), "");
  EXPECT_EQ(fetchlet::serve::CheckJsonPointer(""), "");
  EXPECT_EQ(fetchlet::serve::CheckJsonPointer("a"), "'a' is not a JSON Pointer");
  EXPECT_EQ(fetchlet::serve::CheckJsonPointer("/~2"), "'/~2' is not a JSON Pointer");
  JsonFormat format = Lsblk();
  format.layout.children = "children";
  EXPECT_EQ(ParseJson(kLsblk, format.layout, format.metrics).notes,
            (Lines{"'children' is not a JSON Pointer"}));
}

}  // namespace
}  // namespace qvetest
