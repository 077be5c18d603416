// Metric results and their JSON form.
#include <gtest/gtest.h>

#include <string>

#include "qve/embedded.h"
#include "qve/host.h"

namespace {

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

struct JsonCase {
  const char* name;
  void (*build)(qvedrmr_MetricResult*);
  const char* json;
};

class ResultJsonTest : public testing::TestWithParam<JsonCase> {};

TEST_P(ResultJsonTest, SerialisesRowsCellsAndWarning) {
  const JsonCase& c = GetParam();
  qvedrmr_MetricResult* result = qvedrmr_MetricResult_new();
  ASSERT_NE(result, nullptr);
  c.build(result);
  EXPECT_EQ(qvehost::ResultToJson(result).dump(), c.json);
  qvedrmr_MetricResult_delete(result);
}

INSTANTIATE_TEST_SUITE_P(
    Shapes, ResultJsonTest,
    testing::Values(
        JsonCase{"Empty", [](qvedrmr_MetricResult*) {},
                 R"({"rows":[],"warning":null})"},
        JsonCase{"WarningString",
                 [](qvedrmr_MetricResult* r) {
                   qvedrmr_MetricResult_setWarning(r, "w1\nw2");
                   qvedrmr_MetricResult_addValueRow(r, Row({"a", "b"}));
                 },
                 R"({"rows":[["a","b"]],"warning":"w1\nw2"})"},
        JsonCase{"WarningSetBackToNull",
                 [](qvedrmr_MetricResult* r) {
                   qvedrmr_MetricResult_setWarning(r, "w");
                   qvedrmr_MetricResult_setWarning(r, nullptr);
                 },
                 R"({"rows":[],"warning":null})"},
        JsonCase{"UnsetColumnsBelowTheHighestAreNull",
                 [](qvedrmr_MetricResult* r) {
                   qvedrvr_ValueRow* row = qvedrvr_ValueRow_new();
                   qvedrvr_ValueRow_setStringValue(row, 3, "d");
                   qvedrvr_ValueRow_setStringValue(row, 1, "");
                   qvedrmr_MetricResult_addValueRow(r, row);
                   qvedrmr_MetricResult_addValueRow(r, qvedrvr_ValueRow_new());
                 },
                 R"({"rows":[[null,"",null,"d"],[]],"warning":null})"},
        JsonCase{"ColumnSetToNullCountsAsSet",
                 [](qvedrmr_MetricResult* r) {
                   qvedrvr_ValueRow* row = qvedrvr_ValueRow_new();
                   qvedrvr_ValueRow_setStringValue(row, 2, nullptr);
                   qvedrmr_MetricResult_addValueRow(r, row);
                 },
                 R"({"rows":[[null,null,null]],"warning":null})"},
        JsonCase{"NestedRowsInAColumn",
                 [](qvedrmr_MetricResult* r) {
                   qvedrvr_ValueRow* row = Row({"outer"});
                   qvedrvr_ValueRow_setMetricValue(
                       row, 1, Nested({Row({"x", nullptr}), Row({"y"})}));
                   qvedrmr_MetricResult_addValueRow(r, row);
                 },
                 R"({"rows":[["outer",{"rows":[["x",null],["y"]]}]],"warning":null})"},
        JsonCase{"ReplacementsFreeWhatTheyReplace",
                 [](qvedrmr_MetricResult* r) {
                   qvedrvr_ValueRow* row = Row({"old", "old"});
                   qvedrvr_ValueRow_setMetricValue(row, 0, Nested({Row({"gone"})}));
                   qvedrvr_ValueRow_setStringValue(row, 0, "new");
                   qvedrvr_ValueRow_setMetricValue(row, 1, Nested({Row({"n"})}));
                   qvedrvr_ValueRow_setMetricValue(row, 1, Nested({}));
                   qvedrmr_MetricResult_addValueRow(r, row);
                 },
                 R"({"rows":[["new",{"rows":[]}]],"warning":null})"},
        JsonCase{"ValueWithoutRows",
                 [](qvedrmr_MetricResult* r) {
                   qvedrvr_ValueRow* row = qvedrvr_ValueRow_new();
                   qvedrvr_ValueRow_setMetricValue(row, 0, qvedrmv_MetricValue_new());
                   qvedrmr_MetricResult_addValueRow(r, row);
                 },
                 R"({"rows":[[{"rows":[]}]],"warning":null})"}),
    [](const auto& p) { return std::string(p.param.name); });

TEST(ResultTest, TextsAreKeptByteForByte) {
  qvedrmr_MetricResult* result = qvedrmr_MetricResult_new();
  qvedrmr_MetricResult_addValueRow(result, Row({"\xe9t\xe9", "caf\xc3\xa9"}));
  nlohmann::json json = qvehost::ResultToJson(result);
  EXPECT_EQ(json["rows"][0][0].get<std::string>(), "\xe9t\xe9");
  EXPECT_EQ(json["rows"][0][1].get<std::string>(), "caf\xc3\xa9");
  qvedrmr_MetricResult_delete(result);
}

// Columns and texts outgrow the row's first buffer in turn; every cell must
// keep its own text through each move.
TEST(ResultTest, WideRowsWithLongTextsKeepEveryCell) {
  qvedrvr_ValueRow* row = qvedrvr_ValueRow_new();
  nlohmann::json expected = nlohmann::json::array();
  for (int32_t column = 0; column < 40; ++column) {
    std::string text(static_cast<size_t>(column * 7 % 50), static_cast<char>('a' + column % 26));
    qvedrvr_ValueRow_setStringValue(row, column, text.c_str());
    expected.push_back(text);
  }
  qvedrvr_ValueRow_setStringValue(row, 3, "replaced");
  expected[3] = "replaced";
  qvedrvr_ValueRow_setStringValue(row, 60, std::string(5000, 'z').c_str());
  for (int column = 40; column < 60; ++column) expected.push_back(nullptr);
  expected.push_back(std::string(5000, 'z'));

  qvedrmr_MetricResult* result = qvedrmr_MetricResult_new();
  qvedrmr_MetricResult_addValueRow(result, row);
  EXPECT_EQ(qvehost::ResultToJson(result)["rows"][0], expected);
  qvedrmr_MetricResult_delete(result);
}

TEST(ResultTest, RefusedResultIsNull) {
  qvehost::RefuseMetricResult(true);
  EXPECT_EQ(qvedrmr_MetricResult_new(), nullptr);
  qvehost::RefuseMetricResult(false);
  qvedrmr_MetricResult* result = qvedrmr_MetricResult_new();
  EXPECT_NE(result, nullptr);
  qvedrmr_MetricResult_delete(result);
}

// Objects handed over to a null owner are released, not leaked.
TEST(ResultTest, HandedOverObjectsWithoutAnOwnerAreReleased) {
  qvedrmr_MetricResult_addValueRow(nullptr, Row({"a"}));
  qvedrvr_ValueRow_setMetricValue(nullptr, 0, Nested({Row({"b"})}));
  qvedrmv_setNestedRows(nullptr, qveuv_Vector_new());
  EXPECT_TRUE(qvehost::LiveBlocks().empty()) << qvehost::DescribeLiveBlocks();
}

}  // namespace
