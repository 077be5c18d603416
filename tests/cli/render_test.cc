// The program's two renderings of every outcome a metric can have.
#include "cli/render.h"

#include <gtest/gtest.h>

#include <functional>
#include <sstream>
#include <string>

#include "qve/host.h"

namespace {

using Build = std::function<qvedrmr_MetricResult*()>;

qvedrvr_ValueRow* Row(std::initializer_list<const char*> cells) {
  qvedrvr_ValueRow* row = qvedrvr_ValueRow_new();
  int32_t column = 0;
  for (const char* cell : cells) qvedrvr_ValueRow_setStringValue(row, column++, cell);
  return row;
}

qvedrmr_MetricResult* Result(std::initializer_list<qvedrvr_ValueRow*> rows) {
  qvedrmr_MetricResult* result = qvedrmr_MetricResult_new();
  for (qvedrvr_ValueRow* row : rows) qvedrmr_MetricResult_addValueRow(result, row);
  return result;
}

qvedrmv_MetricValue* Table(std::initializer_list<qvedrvr_ValueRow*> rows) {
  qveuv_Vector* vector = qveuv_Vector_new();
  for (qvedrvr_ValueRow* row : rows) qveuv_Vector_addElement(vector, row);
  qvedrmv_MetricValue* value = qvedrmv_MetricValue_new();
  qvedrmv_setNestedRows(value, vector);
  return value;
}

TEST(RenderTest, EveryOutcomeRendersAsTextAndJson) {
  struct Case {
    const char* name;
    Build build;
    const char* text;
    const char* json;
  };
  const Case cases[] = {
      {"no result", [] { return nullptr; }, "(no result)\n",
       R"({"status":0,"result":null,"exception":null})"},
      {"no rows", [] { return Result({}); }, "(no rows)\n",
       R"({"status":0,"result":{"rows":[],"warning":null},"exception":null})"},
      {"warning alone",
       [] {
         qvedrmr_MetricResult* r = Result({});
         qvedrmr_MetricResult_setWarning(r, "disk low\n");
         return r;
       },
       "warning: disk low\n",
       R"({"status":0,"result":{"rows":[],"warning":"disk low\n"},"exception":null})"},
      {"null and unset columns",
       [] {
         qvedrvr_ValueRow* row = Row({"a", nullptr});
         qvedrvr_ValueRow_setStringValue(row, 3, "d");
         return Result({row, Row({})});
       },
       "a | (null) | (null) | d\n\n",
       R"({"status":0,"result":{"rows":[["a",null,null,"d"],[]],"warning":null},"exception":null})"},
      {"whole output keeps its line feed", [] { return Result({Row({"x\n"})}); },
       "x\n", R"({"status":0,"result":{"rows":[["x\n"]],"warning":null},"exception":null})"},
      {"nested tables",
       [] {
         qvedrvr_ValueRow* row = Row({"top"});
         qvedrvr_ValueRow* inner = Row({"b"});
         qvedrvr_ValueRow_setMetricValue(inner, 1, Table({Row({"deep"})}));
         qvedrvr_ValueRow_setMetricValue(row, 1, Table({Row({"a", "1"}), inner}));
         return Result({row});
       },
       "top | (table)\n  [column 1]\n    a | 1\n    b | (table)\n"
       "      [column 1]\n        deep\n",
       R"({"status":0,"result":{"rows":[["top",{"rows":[["a","1"],["b",{"rows":[["deep"]]}]]}]],"warning":null},"exception":null})"},
      {"escapes and invalid UTF-8",
       [] { return Result({Row({"q\"\\\t\x01\x7f", "\xC3\xA9\xFF\xE2\x82", "\xED\xA0\x80"})}); },
       "q\"\\\t\x01\x7f | \xC3\xA9\xFF\xE2\x82 | \xED\xA0\x80\n",
       "{\"status\":0,\"result\":{\"rows\":[[\"q\\\"\\\\\\t\\u0001\x7f\",\"\xC3\xA9"
       "\xEF\xBF\xBD\xEF\xBF\xBD\",\"\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\"]],"
       "\"warning\":null},\"exception\":null}"},
  };
  for (const Case& c : cases) {
    qvedrmr_MetricResult* result = c.build();
    std::ostringstream text, json;
    fetchlet::PrintTable(text, result);
    fetchlet::PrintJson(json, 0, result, nullptr);
    EXPECT_EQ(text.str(), c.text) << c.name;
    EXPECT_EQ(json.str(), std::string(c.json) + "\n") << c.name;
    if (result != nullptr) qvedrmr_MetricResult_delete(result);
  }
}

TEST(RenderTest, FailuresNameTheirKindOrStatus) {
  qveue_Exception* exception = qveue_Exception_new_init(12, "bad \"x\"\n");
  std::ostringstream text, json, bare;
  fetchlet::PrintFailure(text, -1, exception);
  fetchlet::PrintJson(json, -1, nullptr, exception);
  fetchlet::PrintFailure(bare, 5, nullptr);
  EXPECT_EQ(text.str(), "error (kind 12): bad \"x\"\n\n");
  EXPECT_EQ(json.str(),
            "{\"status\":-1,\"result\":null,\"exception\":{\"kind\":12,"
            "\"message\":\"bad \\\"x\\\"\\n\"}}\n");
  EXPECT_EQ(bare.str(), "error: the metric failed with status 5 and no exception\n");
  qveue_Exception_delete(exception);
}

}  // namespace
