// Metric results, rows, metric values and vectors: what each cell shows, and
// who releases what. The ledger check after each test finds anything left.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "common/result_json.h"
#include "qve/embedded.h"
#include "qve/host.h"

namespace {

using Json = nlohmann::json;
using Row = qvedrvr_ValueRow*;

// A table value of rows as result_json.h writes them.
qvedrmv_MetricValue* Nested(const Json& rows) {
  qveuv_Vector* vector = qveuv_Vector_new();
  for (const Json& row : rows) {
    qveuv_Vector_addElement(vector, qvetest::NewRow(row));
  }
  qvedrmv_MetricValue* value = qvedrmv_MetricValue_new();
  qvedrmv_setNestedRows(value, vector);
  return value;
}

// Unset columns below the highest are null, and null counts as set. A
// replaced value is released; the same value set twice is kept once.
TEST(ResultTest, CellsShowTheLastSettingOfEachColumn) {
  constexpr auto text = qvedrvr_ValueRow_setStringValue;
  constexpr auto value = qvedrvr_ValueRow_setMetricValue;
  // clang-format off
  const std::pair<std::function<void(Row)>, const char*> cases[] = {
      {[=](Row r) { text(r, 3, "d"); text(r, 1, ""); },
       R"([null,"",null,"d"])"},
      {[=](Row r) { text(r, 2, nullptr); }, "[null,null,null]"},
      {[=](Row r) { text(r, 0, "a"); text(r, 0, "b"); text(r, 1, "");
                    text(r, 1, nullptr); }, R"(["b",null])"},
      {[=](Row r) {
         text(r, 0, "o");
         value(r, 1, Nested(R"([["x",null],[]])"_json));
       },
       R"(["o",{"rows":[["x",null],[]]}])"},
      {[=](Row r) {
         value(r, 0, Nested(R"([["gone"]])"_json)); text(r, 0, "new");
         value(r, 1, Nested(R"([["n"]])"_json));
         value(r, 1, Nested(Json::array()));
         value(r, 2, Nested(R"([["gone"]])"_json)); value(r, 2, nullptr);
       }, R"(["new",{"rows":[]},null])"},
      {[=](Row r) {
         qvedrmv_MetricValue* kept = Nested(R"([["k"]])"_json);
         value(r, 1, kept); text(r, 0, "s"); value(r, 1, kept);
       }, R"(["s",{"rows":[["k"]]}])"},
  };
  // clang-format on
  for (const auto& [build, json] : cases) {
    Row row = qvedrvr_ValueRow_new();
    build(row);
    qvedrmr_MetricResult* result = qvedrmr_MetricResult_new();
    qvedrmr_MetricResult_addValueRow(result, row);
    EXPECT_EQ(qvetest::ResultJson(result)["rows"][0].dump(), json);
    qvedrmr_MetricResult_delete(result);
  }
}

// A row's first room follows the rows before it, so each shape meets rooms
// too small, too large and external, and moves its cells as it outgrows
// them; some callers hand a row to its owner before filling it. Texts are
// kept byte for byte.
TEST(ResultTest, RowsKeepTheirCellsWhateverTheRowsBefore) {
  const std::vector<std::vector<std::string>> shapes = {
      {"a"},
      {"b", "c", "d", std::string(100, 'e')},
      {std::string(10000, 'L'), "tail"},
      {"host00001.dc1", "eth1", "1500", "up", "7919", "104729", "1.01", "on"},
      {std::string(300, 'm')},
      {"\xe9t\xe9", "caf\xc3\xa9"},
      {"host00003.dc1", "eth3", "16500", "dormant", "23757", "31418", "3", "x"},
      {std::string(200, 'n'), std::string(30, 'o')},
      {}};
  qvedrmr_MetricResult* result = qvedrmr_MetricResult_new();
  Json expected = Json::array();
  for (const bool owned_first : {false, true, false}) {
    for (const std::vector<std::string>& shape : shapes) {
      Row row = qvedrvr_ValueRow_new();
      if (owned_first) qvedrmr_MetricResult_addValueRow(result, row);
      for (size_t column = 0; column < shape.size(); ++column) {
        qvedrvr_ValueRow_setStringValue(row, static_cast<int32_t>(column),
                                        shape[column].c_str());
      }
      if (!owned_first) qvedrmr_MetricResult_addValueRow(result, row);
      expected.push_back(shape);
    }
  }
  EXPECT_EQ(qvetest::ResultJson(result)["rows"], expected);
  qvedrmr_MetricResult_delete(result);
}

// What is handed to a null owner is released, not leaked.
TEST(ResultTest, RefusedResultIsNullAndOwnerlessHandOversAreReleased) {
  qvehost::RefuseMetricResult(true);
  EXPECT_EQ(qvedrmr_MetricResult_new(), nullptr);
  qvedrmr_MetricResult_addValueRow(nullptr,
                                   qvetest::NewRow(Json::array({"a"})));
  qvedrvr_ValueRow_setMetricValue(nullptr, 0, Nested(R"([["b"]])"_json));
  qvedrmv_setNestedRows(nullptr, qveuv_Vector_new());
  EXPECT_TRUE(qvehost::LiveBlocks().empty()) << qvehost::DescribeLiveBlocks();
}

// The plug-in never calls deleteAll; the ledger check proves it releases.
TEST(ResultTest, VectorDeleteAllReleasesEveryElement) {
  qveuv_Vector* vector = qveuv_Vector_new();
  qveuv_Vector_addElement(vector, qve_allocpy0("x", "test", 1));
  qveuv_Vector_addElement(vector, qve_allocpy0("y", "test", 2));
  qveuv_Vector_deleteAll(vector, qve_freecb);
}

}  // namespace
