// The user-defined metric's output protocol on fuzzed output and properties.
//
// Header: byte 0 presence flags: 1 standard output, 2 "kt_result_tag",
// 4 "kt_message_tag", 8 "kt_failure_tag", 16 "valuetype", 32 "ID", 64 no
// exception slot.
// Fields: standard output, then the five property values in the order of
// the flags.
//
// What must hold, besides no crash and no leak: the status is 0 without an
// exception; an unknown value type gives no result, any other one row
// (ID, NUMBER value, STRING value, message) whose value, when there is one,
// stands in the column valuetype selects and is text of the output, and
// whose message is always set. Which line supplies what is the unit tests'
// (tests/fosud).
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "fosud/qvefosud_protocol.h"
#include "fuzz_support.h"
#include "tests/common/result_json.h"

namespace {

using Json = nlohmann::json;
using qvefuzz::Check;

struct Options {
  std::optional<std::string> out, result_tag, message_tag, failure_tag;
  std::optional<std::string> value_type, id;
};

void CheckResult(const Options& o, const Json& got) {
  const std::string type = o.value_type.value_or("STRING");
  if (type != "NUMBER" && type != "STRING" && !o.out.value_or("").empty()) {
    Check(got.is_null(), "a result for an unknown value type");
    return;
  }
  if (got.is_null()) return;  // an unknown type with no output to read
  const Json& rows = got["rows"];
  Check(rows.size() == 1 && rows[0].size() == 4, "not one row of four cells",
        qvefuzz::Dump(got));
  const Json& row = rows[0];
  Check(row[0] == (o.id.has_value() ? Json(*o.id) : Json()), "not the ID");
  Check(row[3].is_string(), "no message");
  const size_t column = type == "NUMBER" ? 1 : 2;
  Check(row[3 - column].is_null(), "a value in the other type's column");
  if (row[column].is_string()) {
    Check(o.out.value_or("").find(row[column].get<std::string>()) !=
              std::string::npos,
          "a value that is not output text");
  }
}

Options ReadOptions(qvefuzz::Input& input, uint8_t flags) {
  Options o;
  o.out = input.FieldIf((flags & 1) != 0);
  o.result_tag = input.FieldIf((flags & 2) != 0);
  o.message_tag = input.FieldIf((flags & 4) != 0);
  o.failure_tag = input.FieldIf((flags & 8) != 0);
  o.value_type = input.FieldIf((flags & 16) != 0);
  o.id = input.FieldIf((flags & 32) != 0);
  return o;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qvefuzz::Session session;
  qvefuzz::Input input(data, size);
  const uint8_t flags = input.Byte();
  const Options o = ReadOptions(input, flags);
  qvefuzz::Properties properties;
  properties.SetIf("kt_result_tag", o.result_tag);
  properties.SetIf("kt_message_tag", o.message_tag);
  properties.SetIf("kt_failure_tag", o.failure_tag);
  properties.SetIf("valuetype", o.value_type);
  properties.SetIf("ID", o.id);
  const bool slot = (flags & 64) == 0;
  std::string out = o.out.value_or("");
  qvedrmr_MetricResult* result = nullptr;
  qveue_Exception* exception = nullptr;
  const int32_t status = qvefosud_getResultFromString(
      properties.list(), o.out.has_value() ? out.data() : nullptr, &result,
      slot ? &exception : nullptr, session.Log("fetchlets.udm"));
  const Json got = qvetest::ResultJson(result);
  if (result != nullptr) qvedrmr_MetricResult_delete(result);
  if (exception != nullptr) qveue_Exception_delete(exception);
  Check(status == 0 && exception == nullptr, "protocol reading failed");
  CheckResult(o, got);
  return 0;
}
