// Metric results, rows and metric values, and their JSON form.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "qve/embedded.h"
#include "qve/host.h"

namespace {

using Json = nlohmann::json;

qvedrvr_ValueRow* Row(std::initializer_list<const char*> texts) {
  qvedrvr_ValueRow* row = qvedrvr_ValueRow_new();
  int32_t column = 0;
  for (const char* text : texts) qvedrvr_ValueRow_setStringValue(row, column++, text);
  return row;
}

qvedrmv_MetricValue* Nested(std::initializer_list<qvedrvr_ValueRow*> rows) {
  qveuv_Vector* vector = qveuv_Vector_new();
  for (qvedrvr_ValueRow* row : rows) qveuv_Vector_addElement(vector, row);
  qvedrmv_MetricValue* value = qvedrmv_MetricValue_new();
  qvedrmv_setNestedRows(value, vector);
  return value;
}

// The rows of a result made of rows, and the result released.
Json RowsOf(const std::vector<qvedrvr_ValueRow*>& rows) {
  qvedrmr_MetricResult* result = qvedrmr_MetricResult_new();
  for (qvedrvr_ValueRow* row : rows) qvedrmr_MetricResult_addValueRow(result, row);
  Json json = qvehost::ResultToJson(result)["rows"];
  qvedrmr_MetricResult_delete(result);
  return json;
}

// Every case releases what it replaces: the ledger check after the test
// finds any metric value or row left behind.
TEST(ResultTest, CellsShowTheLastSettingOfEachColumn) {
  constexpr auto text = qvedrvr_ValueRow_setStringValue;
  constexpr auto value = qvedrvr_ValueRow_setMetricValue;
  using R = qvedrvr_ValueRow*;
  const struct {
    const char* name;
    std::function<void(R)> build;
    const char* json;
  } cases[] = {
      {"unset columns below the highest are null",
       [=](R r) { text(r, 3, "d"); text(r, 1, ""); }, R"([null,"",null,"d"])"},
      {"column set to null counts as set", [=](R r) { text(r, 2, nullptr); }, "[null,null,null]"},
      {"columns set backwards",
       [=](R r) { text(r, 2, "c"); text(r, 1, "b"); text(r, 0, "a"); }, R"(["a","b","c"])"},
      {"last setting wins",
       [=](R r) { text(r, 0, "a"); text(r, 0, "b"); text(r, 1, ""); text(r, 1, nullptr); },
       R"(["b",null])"},
      {"nested rows",
       [=](R r) { text(r, 0, "outer"); value(r, 1, Nested({Row({"x", nullptr}), Row({"y"})})); },
       R"(["outer",{"rows":[["x",null],["y"]]}])"},
      {"replacements release what they replace",
       [=](R r) {
         value(r, 0, Nested({Row({"gone"})})); text(r, 0, "new");
         value(r, 1, Nested({Row({"n"})})); value(r, 1, Nested({}));
         value(r, 2, Nested({Row({"gone"})})); value(r, 2, nullptr);
       },
       R"(["new",{"rows":[]},null])"},
      {"same value set twice is kept once",
       [=](R r) {
         qvedrmv_MetricValue* kept = Nested({Row({"k"})});
         value(r, 1, kept); text(r, 0, "s"); value(r, 1, kept);
       },
       R"(["s",{"rows":[["k"]]}])"},
      {"value without rows", [=](R r) { value(r, 0, qvedrmv_MetricValue_new()); },
       R"([{"rows":[]}])"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    qvedrvr_ValueRow* row = qvedrvr_ValueRow_new();
    c.build(row);
    EXPECT_EQ(RowsOf({row})[0].dump(), c.json);
  }
}

// A row's first room follows the rows before it, so each shape meets rooms
// too small, too large and external, and moves its cells as it outgrows
// them. Texts are kept byte for byte.
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
  for (int round = 0; round < 3; ++round) {
    for (const std::vector<std::string>& shape : shapes) {
      qvedrvr_ValueRow* row = qvedrvr_ValueRow_new();
      // Some callers hand a row to its owner before filling it.
      if (round == 1) qvedrmr_MetricResult_addValueRow(result, row);
      for (size_t column = 0; column < shape.size(); ++column) {
        qvedrvr_ValueRow_setStringValue(row, static_cast<int32_t>(column), shape[column].c_str());
      }
      if (round != 1) qvedrmr_MetricResult_addValueRow(result, row);
      expected.push_back(shape);
    }
  }
  EXPECT_EQ(qvehost::ResultToJson(result)["rows"], expected);
  qvedrmr_MetricResult_delete(result);
}

// What is handed to a null owner is released, not leaked.
TEST(ResultTest, RefusedResultIsNullAndOwnerlessHandOversAreReleased) {
  qvehost::RefuseMetricResult(true);
  EXPECT_EQ(qvedrmr_MetricResult_new(), nullptr);
  qvedrmr_MetricResult_addValueRow(nullptr, Row({"a"}));
  qvedrvr_ValueRow_setMetricValue(nullptr, 0, Nested({Row({"b"})}));
  qvedrmv_setNestedRows(nullptr, qveuv_Vector_new());
  EXPECT_TRUE(qvehost::LiveBlocks().empty()) << qvehost::DescribeLiveBlocks();
}

}  // namespace
