// Metric results and their JSON form.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

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
        JsonCase{"ColumnsSetBackwards",
                 [](qvedrmr_MetricResult* r) {
                   qvedrvr_ValueRow* row = qvedrvr_ValueRow_new();
                   const char* texts[] = {"a", "b", "c", "d"};
                   for (int32_t column = 3; column >= 0; --column) {
                     qvedrvr_ValueRow_setStringValue(row, column,
                                                     texts[column]);
                   }
                   qvedrmr_MetricResult_addValueRow(r, row);
                 },
                 R"({"rows":[["a","b","c","d"]],"warning":null})"},
        JsonCase{"LastSettingOfAColumnWins",
                 [](qvedrmr_MetricResult* r) {
                   qvedrvr_ValueRow* row = Row({"a", "b", "c"});
                   qvedrvr_ValueRow_setStringValue(row, 1, nullptr);
                   qvedrvr_ValueRow_setStringValue(row, 0, "x");
                   qvedrvr_ValueRow_setStringValue(row, 2, "");
                   qvedrvr_ValueRow_setStringValue(row, 2, "z");
                   qvedrmr_MetricResult_addValueRow(r, row);
                 },
                 R"({"rows":[["x",null,"z"]],"warning":null})"},
        JsonCase{"SameValueSetTwiceIsKept",
                 [](qvedrmr_MetricResult* r) {
                   qvedrvr_ValueRow* row = qvedrvr_ValueRow_new();
                   qvedrmv_MetricValue* value = Nested({Row({"k"})});
                   qvedrvr_ValueRow_setMetricValue(row, 2, value);
                   qvedrvr_ValueRow_setStringValue(row, 0, "s");
                   qvedrvr_ValueRow_setMetricValue(row, 2, value);
                   qvedrmr_MetricResult_addValueRow(r, row);
                 },
                 R"({"rows":[["s",null,{"rows":[["k"]]}]],"warning":null})"},
        JsonCase{"ValueReplacedByNullThenByAValue",
                 [](qvedrmr_MetricResult* r) {
                   qvedrvr_ValueRow* row = qvedrvr_ValueRow_new();
                   auto set = [row](int32_t column, qvedrmv_MetricValue* v) {
                     qvedrvr_ValueRow_setMetricValue(row, column, v);
                   };
                   set(0, Nested({Row({"gone"})}));
                   set(0, nullptr);
                   set(1, Nested({Row({"b"})}));
                   set(0, Nested({Row({"a"})}));
                   qvedrmr_MetricResult_addValueRow(r, row);
                 },
                 R"({"rows":[[{"rows":[["a"]]},{"rows":[["b"]]}]],)"
                 R"("warning":null})"},
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

// Rows of many sizes one after another: a row's first room follows the rows
// before it, so each shape meets rooms too small, too large and external.
TEST(ResultTest, RowsKeepTheirCellsWhateverTheRowsBefore) {
  const std::vector<std::vector<std::string>> shapes = {
      {"a"},
      {"b", "c", "d", std::string(100, 'e')},
      {std::string(10000, 'L'), "tail"},
      {"host00001.dc1", "eth1", "1500", "up", "7919", "104729", "1.01", "on"},
      {std::string(300, 'm')},
      {"host00002.dc1", "eth2", "9000", "down", "15838", "209458", "2.02", "x"},
      {"host00003.dc1", "eth3", "16500", "dormant", "23757", "31418", "3", "x"},
      {std::string(200, 'n'), std::string(30, 'o')},
      {},
      {"b", "c"}};
  qvedrmr_MetricResult* result = qvedrmr_MetricResult_new();
  nlohmann::json expected = nlohmann::json::array();
  for (int round = 0; round < 3; ++round) {
    for (const std::vector<std::string>& shape : shapes) {
      qvedrvr_ValueRow* row = qvedrvr_ValueRow_new();
      // Half the rows get their owner before their cells, as some callers do.
      if (round == 1) qvedrmr_MetricResult_addValueRow(result, row);
      for (size_t column = 0; column < shape.size(); ++column) {
        qvedrvr_ValueRow_setStringValue(row, static_cast<int32_t>(column),
                                        shape[column].c_str());
      }
      if (round != 1) qvedrmr_MetricResult_addValueRow(result, row);
      expected.push_back(shape);
    }
  }
  EXPECT_EQ(qvehost::ResultToJson(result)["rows"], expected);
  qvedrmr_MetricResult_delete(result);
}

// Rows, values and results built on many threads at once; the ledger check
// after the test sees every one of them released.
TEST(ResultTest, RowsBuiltOnManyThreadsStayIntact) {
  constexpr int kThreads = 8;
  std::vector<nlohmann::json> seen(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t, &seen] {
      qvedrmr_MetricResult* result = qvedrmr_MetricResult_new();
      for (int i = 0; i < 500; ++i) {
        std::string text(static_cast<size_t>((i * 37 + t) % 300), 'a');
        qvedrvr_ValueRow* row = Row({text.c_str(), "x"});
        if (i % 50 == 0) {
          qvedrvr_ValueRow_setMetricValue(row, 2, Nested({Row({"n"})}));
        }
        qvedrmr_MetricResult_addValueRow(result, row);
      }
      seen[static_cast<size_t>(t)] = qvehost::ResultToJson(result)["rows"];
      qvedrmr_MetricResult_delete(result);
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (int t = 0; t < kThreads; ++t) {
    const nlohmann::json& rows = seen[static_cast<size_t>(t)];
    ASSERT_EQ(rows.size(), 500u);
    for (int i = 0; i < 500; i += 7) {
      size_t length = static_cast<size_t>((i * 37 + t) % 300);
      EXPECT_EQ(rows[static_cast<size_t>(i)][0], std::string(length, 'a'));
      EXPECT_EQ(rows[static_cast<size_t>(i)].size(), i % 50 == 0 ? 3u : 2u);
    }
  }
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
