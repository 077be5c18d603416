// The program's two renderings of every outcome a metric can have.
#include "cli/render.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "common/result_json.h"
#include "qve/host.h"

namespace {

using Json = nlohmann::json;

TEST(RenderTest, EveryOutcomeRendersAsTextAndJson) {
  // Rows as result_json.h writes them; null: no result.
  const struct {
    const char* name;
    Json rows;
    const char* warning;
    const char* text;
    const char* json;
  } cases[] = {
      {"no result", nullptr, nullptr, "(no result)\n",
       R"({"status":0,"result":null,"exception":null})"},
      {"no rows", Json::array(), nullptr, "(no rows)\n",
       R"({"status":0,"result":{"rows":[],"warning":null},"exception":null})"},
      {"warning alone", Json::array(), "disk low\n", "warning: disk low\n",
       R"({"status":0,"result":{"rows":[],"warning":"disk low\n"},"exception":null})"},
      {"null columns", R"([["a",null,null,"d"],[]])"_json, nullptr,
       "a | (null) | (null) | d\n\n",
       R"({"status":0,"result":{"rows":[["a",null,null,"d"],[]],"warning":null},"exception":null})"},
      {"whole output keeps its line feed", R"([["x\n"]])"_json, nullptr, "x\n",
       R"({"status":0,"result":{"rows":[["x\n"]],"warning":null},"exception":null})"},
      {"nested tables",
       R"([["top",{"rows":[["a","1"],["b",{"rows":[["deep"]]}]]}]])"_json,
       nullptr,
       "top | (table)\n  [column 1]\n    a | 1\n    b | (table)\n"
       "      [column 1]\n        deep\n",
       R"({"status":0,"result":{"rows":[["top",{"rows":[["a","1"],["b",{"rows":[["deep"]]}]]}]],"warning":null},"exception":null})"},
      {"escapes and invalid UTF-8",
       Json::array({Json::array(
           {"q\"\\\t\x01\x7f", "\xC3\xA9\xFF\xE2\x82", "\xED\xA0\x80"})}),
       nullptr, "q\"\\\t\x01\x7f | \xC3\xA9\xFF\xE2\x82 | \xED\xA0\x80\n",
       "{\"status\":0,\"result\":{\"rows\":[[\"q\\\"\\\\\\t\\u0001\x7f\",\"\xC3\xA9"
       "\xEF\xBF\xBD\xEF\xBF\xBD\",\"\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\"]],"
       "\"warning\":null},\"exception\":null}"},
  };
  for (const auto& c : cases) {
    qvedrmr_MetricResult* result =
        c.rows.is_null() ? nullptr : qvetest::NewResult(c.rows);
    if (c.warning != nullptr) qvedrmr_MetricResult_setWarning(result, c.warning);
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
