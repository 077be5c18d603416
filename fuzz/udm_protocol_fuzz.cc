// The user-defined metric's output protocol on fuzzed output and properties.
//
// Header: byte 0 presence flags: 1 standard output, 2 "kt_result_tag",
// 4 "kt_message_tag", 8 "kt_failure_tag", 16 "valuetype", 32 "ID", 64 no
// exception slot; byte 1 a fault: 255 the host refuses the result, else an
// allocation fault of "qvefosud" or, with bit 7, "qvefosl" (see
// ArmAllocationFault).
// Fields: standard output, then the five property values in the order of
// the flags.
//
// What must hold: the status is 0 and the one row is (ID, value in the
// column "valuetype" selects, message) where the first line carrying each
// tag supplies the value, the failure and the message; a failure line or no
// value gives a row without value and the message line's text or the
// no-output message; an unknown value type gives no result. Under a fault
// the status is 0 with a well-formed row, or -1 with kind 10 or 12 and no
// result.
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

constexpr size_t kNoOutputSize = 512;

struct Options {
  std::optional<std::string> out, result_tag, message_tag, failure_tag;
  std::optional<std::string> value_type, id;
};

std::string Tag(const std::optional<std::string>& value, const char* fallback) {
  return value.has_value() && !value->empty() ? *value : fallback;
}

std::string NoOutputMessage(const std::optional<std::string>& id) {
  const std::string text = "User Defined Metric " + id.value_or("(null)") +
                           " did not generate any output";
  return text.substr(0, kNoOutputSize - 1);
}

// The formatter cuts the text to the buffer sized from the ID and value.
std::string ValueMessage(const std::optional<std::string>& id,
                         const std::string& value) {
  const size_t size = id.value_or("").size() + value.size() + 44;
  const std::string text = "User Defined Metric " + id.value_or("(null)") +
                           " returned a value of " + value;
  return text.substr(0, size - 1);
}

std::optional<std::string> FirstTagged(const std::vector<std::string>& lines,
                                       const std::string& tag) {
  for (const std::string& line : lines) {
    if (std::string_view(line).starts_with(tag)) return line.substr(tag.size());
  }
  return std::nullopt;
}

Json Row(const Options& o, Json number, Json string,
         const std::string& message) {
  const Json id = o.id.has_value() ? Json(*o.id) : Json();
  return Json{
      {"rows", Json::array({Json::array({id, number, string, message})})},
      {"warning", nullptr}};
}

// The expected result, null for none.
Json Expected(const Options& o) {
  if (o.out.value_or("").empty())
    return Row(o, nullptr, nullptr, NoOutputMessage(o.id));
  const std::vector<std::string> lines = qvefuzz::SplitLines(*o.out);
  const auto value = FirstTagged(lines, Tag(o.result_tag, "kt_result="));
  const auto failure = FirstTagged(lines, Tag(o.failure_tag, "kt_failure="));
  const auto message = FirstTagged(lines, Tag(o.message_tag, "kt_message="));
  if (failure.has_value() || !value.has_value()) {
    return Row(o, nullptr, nullptr, message.value_or(NoOutputMessage(o.id)));
  }
  const std::string text = message.value_or(ValueMessage(o.id, *value));
  const std::string type = o.value_type.value_or("STRING");
  if (type == "NUMBER") return Row(o, *value, nullptr, text);
  if (type == "STRING") return Row(o, nullptr, *value, text);
  return nullptr;
}

bool WellFormed(const Json& got, const Options& o) {
  if (got.is_null()) return true;
  const Json& rows = got["rows"];
  return rows.size() == 1 && rows[0].size() == 4 &&
         rows[0][0] == (o.id.has_value() ? Json(*o.id) : Json());
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

void CheckFaulted(int32_t status, const Json& got, qveue_Exception* exception,
                  const Options& o) {
  if (status == 0) {
    Check(exception == nullptr, "exception with status 0");
    if (!WellFormed(got, o)) {
      qvefuzz::Fail("malformed row under a fault", qvefuzz::Dump(got));
    }
    return;
  }
  Check(status == -1 && got.is_null(), "failure with a result");
  if (exception == nullptr) return;
  const int32_t kind = qveue_Exception_getKind(exception);
  Check(kind == 10 || kind == 12, "unexpected exception kind");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qvefuzz::Session session;
  qvefuzz::Input input(data, size);
  const uint8_t flags = input.Byte();
  const uint8_t fault_code = input.Byte();
  const Options o = ReadOptions(input, flags);
  qvefuzz::Properties properties;
  properties.SetIf("kt_result_tag", o.result_tag);
  properties.SetIf("kt_message_tag", o.message_tag);
  properties.SetIf("kt_failure_tag", o.failure_tag);
  properties.SetIf("valuetype", o.value_type);
  properties.SetIf("ID", o.id);

  const bool refused = fault_code == 255;
  if (refused) qvehost::RefuseMetricResult(true);
  const bool fault =
      refused || qvefuzz::ArmAllocationFault(fault_code, "qvefosud", "qvefosl");
  const bool slot = (flags & 64) == 0;
  std::string out = o.out.value_or("");
  qvedrmr_MetricResult* result = nullptr;
  qveue_Exception* exception = nullptr;
  const int32_t status = qvefosud_getResultFromString(
      properties.list(), o.out.has_value() ? out.data() : nullptr, &result,
      slot ? &exception : nullptr, session.Log("fetchlets.udm"));
  qvehost::ResetFaults();
  const Json got = qvetest::ResultJson(result);
  if (result != nullptr) qvedrmr_MetricResult_delete(result);

  if (fault) {
    CheckFaulted(status, got, exception, o);
  } else {
    Check(status == 0 && exception == nullptr, "protocol reading failed");
    const Json want = Expected(o);
    if (got != want) {
      qvefuzz::Fail("result differs",
                    qvefuzz::Dump(got) + "\nexpected " + qvefuzz::Dump(want));
    }
  }
  if (exception != nullptr) qveue_Exception_delete(exception);
  return 0;
}
