// The OS fetchlet through its exported entry points.
#include <gtest/gtest.h>

#include "fos/qvefos_os.h"
#include "qve/embedded.h"

namespace {

using Json = nlohmann::json;

class OsFetchletTest : public testing::Test {
 protected:
  OsFetchletTest() { EXPECT_EQ(qvefos_getFetchlet(context_, &fetchlet_), 0); }
  ~OsFetchletTest() override {
    qvefos_freeFetchlet(fetchlet_);
    qvehost::DeleteContext(context_);
  }

  // The result as JSON, or the exception as {"kind", "message"}.
  Json Evaluate(const std::vector<std::pair<std::string, std::string>>& props) {
    qvlnv_NVList* list = qvehost::NewPropertyList();
    for (const auto& [name, value] : props) qvehost::SetProperty(list, name, value);
    auto* result = reinterpret_cast<qvedrmr_MetricResult*>(&list);
    qveue_Exception* exception = nullptr;
    const int32_t status = qvefos_getMetric(context_, list, &result, &exception);
    qvehost::DeletePropertyList(list);
    Json outcome = {{"status", status}, {"result", nullptr}};
    if (result != nullptr) {
      outcome["result"] = qvehost::ResultToJson(result);
      qvedrmr_MetricResult_delete(result);
    }
    if (exception != nullptr) {
      outcome["kind"] = qveue_Exception_getKind(exception);
      outcome["message"] = qveue_Exception_getErrorMessage(exception);
      qveue_Exception_delete(exception);
    }
    return outcome;
  }

  qvefet_Context* context_ = qvehost::NewContext();
  qvefet_Fetchlet* fetchlet_ = nullptr;
};

struct LayoutCase {
  const char* name;
  const char* command;
  const char* separate;
  const char* warning;
  Json result;
};

class OsLayoutTest : public OsFetchletTest,
                     public testing::WithParamInterface<LayoutCase> {};

TEST_P(OsLayoutTest, OneRowForEachFlagCombination) {
  const LayoutCase& c = GetParam();
  Json outcome = Evaluate({{"command", c.command},
                           {"separateErrorStream", c.separate},
                           {"useStdErrForWarning", c.warning}});
  EXPECT_EQ(outcome["status"], 0);
  EXPECT_EQ(outcome["result"], c.result);
}

// One row of the given cells, and the warning.
Json OneRow(Json cells, Json warning = nullptr) {
  Json result = Json::object();
  result["rows"] = Json::array({std::move(cells)});
  result["warning"] = std::move(warning);
  return result;
}

constexpr const char* kBoth = "sh -c 'echo a; echo b >&2'";
constexpr const char* kSilent = "true";

INSTANTIATE_TEST_SUITE_P(
    Layouts, OsLayoutTest,
    testing::Values(
        LayoutCase{"Joined", kBoth, "", "",
                   OneRow(Json::array({"a\nb\n"}))},
        LayoutCase{"StderrAsWarning", kBoth, "", "TRUE",
                   OneRow(Json::array({"a\n"}), "b\n")},
        LayoutCase{"TwoColumns", kBoth, "TRUE", "",
                   OneRow(Json::array({"a\n", "b\n"}))},
        LayoutCase{"SeparateWithWarning", kBoth, "TRUE", "TRUE",
                   OneRow(Json::array({"a\n"}), "b\n")},
        LayoutCase{"SilentJoined", kSilent, "", "",
                   OneRow(Json::array({""}))},
        LayoutCase{"SilentSeparate", kSilent, "TRUE", "",
                   OneRow(Json::array({nullptr, nullptr}))},
        LayoutCase{"SilentWarning", kSilent, "", "TRUE",
                   OneRow(Json::array({""}))},
        LayoutCase{"LowerCaseFlagIsOff", kBoth, "true", "true",
                   OneRow(Json::array({"a\nb\n"}))}),
    [](const testing::TestParamInfo<LayoutCase>& param) {
      return std::string(param.param.name);
    });

TEST_F(OsFetchletTest, FailedCommandGivesTheExceptionAndNoResult) {
  Json outcome = Evaluate({{"command", "sh -c 'echo oops >&2; exit 1'"}});
  EXPECT_EQ(outcome, (Json{{"status", -1}, {"result", nullptr},
                           {"kind", QVE_EXC_RUN_FAILED}, {"message", "oops\n"}}));
}

TEST_F(OsFetchletTest, RefusedResultObjectIsKindTen) {
  qvehost::RefuseMetricResult(true);
  Json outcome = Evaluate({{"command", "echo hi"}});
  EXPECT_EQ(outcome, (Json{{"status", -1}, {"result", nullptr},
                           {"kind", QVE_EXC_NO_RESULT},
                           {"message", "cannot create OS fetchlet result object"}}));
}

}  // namespace
