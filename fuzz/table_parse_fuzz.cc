// The line and token table parser on fuzzed output and properties.
//
// Header: byte 0 presence flags: 1 standard output, 2 standard error,
// 4 "useStdErrForWarning", 8 "warningStartsWith", 16 "startsWith",
// 32 "tableSeparator", 64 "delimiter", 128 token mode; byte 1 the token
// mode's number (0 reads as 1); byte 2 a fault: 255 the host refuses the
// result, else an allocation fault of "qvefoslt" or, with bit 7, "qvefosl"
// (see ArmAllocationFault).
// Fields: standard output, standard error, then the five property values in
// the order of the flags.
//
// What must hold: the result is the one a plain reading of the lines gives
// (data, warning and dropped lines by the two prefixes, tables closed by the
// separator, in token mode d + 1 fields for a value with d delimiter bytes),
// the warning is the error text or the collected warning lines, and the
// notice about both warning sources is logged exactly when both are given.
// Under an allocation fault each row is a prefix of its expected row, or the
// lines are lost as a whole.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "foslt/qvefoslt_parse.h"
#include "fuzz_support.h"
#include "tests/common/result_json.h"

namespace {

using Json = nlohmann::json;
using qvefuzz::Check;

constexpr const char* kLogName = "fetchlets.oslinetok";

struct Options {
  std::optional<std::string> out, err;
  std::optional<std::string> use_stderr, warning_prefix, data_prefix;
  std::optional<std::string> separator, delimiters;
  uint32_t tokenize = 0;
};

std::vector<std::string> Fields(std::string_view value,
                                std::string_view delimiters) {
  std::vector<std::string> fields(1);
  for (const char c : value) {
    if (!delimiters.empty() && delimiters.find(c) != std::string_view::npos) {
      fields.emplace_back();
    } else {
      fields.back() += c;
    }
  }
  return fields;
}

Json Warning(const Options& o, const std::string& collected) {
  if (o.use_stderr == "TRUE" && o.err.has_value()) return *o.err;
  if (o.warning_prefix.has_value() && !collected.empty()) return collected;
  return nullptr;
}

// The result of reading lines under o.
Json Expected(const Options& o, const std::vector<std::string>& lines) {
  const std::string data = o.data_prefix.value_or("");
  const std::string warn = o.warning_prefix.value_or("");
  const std::string separator = o.separator.value_or("");
  std::string collected;
  Json tables = Json::array();
  Json rows = Json::array();
  for (const std::string& line : lines) {
    const std::string_view view(line);
    const bool is_data = !data.empty() && view.starts_with(data);
    if (!is_data && !warn.empty() && view.starts_with(warn)) {
      collected += line.substr(warn.size()) + "\n";
      continue;
    }
    if (!is_data && !data.empty()) continue;
    if (!separator.empty() && line == separator) {
      tables.push_back(Json{{"rows", rows}});
      rows = Json::array();
      continue;
    }
    const std::string value = line.substr(data.size());
    rows.push_back(o.tokenize != 0
                       ? Json(Fields(value, o.delimiters.value_or("")))
                       : Json::array({value}));
  }
  Json result_rows = rows;
  if (!separator.empty()) {
    if (!rows.empty()) tables.push_back(Json{{"rows", rows}});
    result_rows = Json::array({tables});
  }
  return Json{{"rows", result_rows}, {"warning", Warning(o, collected)}};
}

bool PrefixRows(const Json& got, const Json& want) {
  if (got.size() != want.size()) return false;
  for (size_t i = 0; i < got.size(); ++i) {
    if (got[i].size() > want[i].size()) return false;
    for (size_t k = 0; k < got[i].size(); ++k) {
      if (got[i][k] != want[i][k]) return false;
    }
  }
  return true;
}

// Rows cut short by failed field copies, and nothing else changed.
bool CutShort(const Json& got, const Json& want, bool nested) {
  if (got["warning"] != want["warning"]) return false;
  if (!nested) return PrefixRows(got["rows"], want["rows"]);
  const Json& cells = got["rows"][0];
  const Json& wanted = want["rows"][0];
  if (cells.size() != wanted.size()) return false;
  for (size_t k = 0; k < cells.size(); ++k) {
    if (!PrefixRows(cells[k]["rows"], wanted[k]["rows"])) return false;
  }
  return true;
}

void CheckNotice(const Options& o, const qvefuzz::Session& session) {
  const std::string notice =
      "Mutually exclusive properties \"useStdErrForWarning\" and "
      "\"warningStarter\" specified for OSLine" +
      std::to_string(o.tokenize) + " fetchlet";
  const bool both = o.use_stderr == "TRUE" && o.warning_prefix.has_value();
  const auto warnings =
      session.capture().Texts(qvehost::LogLevel::kWarn, kLogName);
  Check(warnings == (both ? std::vector<std::string>{notice}
                          : std::vector<std::string>{}),
        "warning-level log differs");
}

Options ReadOptions(qvefuzz::Input& input) {
  const uint8_t flags = input.Byte();
  const uint8_t number = input.Byte();
  Options o;
  o.tokenize = (flags & 128) == 0 ? 0 : number == 0 ? 1 : number;
  o.out = input.FieldIf((flags & 1) != 0);
  o.err = input.FieldIf((flags & 2) != 0);
  o.use_stderr = input.FieldIf((flags & 4) != 0);
  o.warning_prefix = input.FieldIf((flags & 8) != 0);
  o.data_prefix = input.FieldIf((flags & 16) != 0);
  o.separator = input.FieldIf((flags & 32) != 0);
  o.delimiters = input.FieldIf((flags & 64) != 0);
  return o;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qvefuzz::Session session;
  qvefuzz::Input input(data, size);
  const Options o = ReadOptions(input);
  const uint8_t fault_code = input.Byte();
  qvefuzz::Properties properties;
  properties.SetIf("useStdErrForWarning", o.use_stderr);
  properties.SetIf("warningStartsWith", o.warning_prefix);
  properties.SetIf("startsWith", o.data_prefix);
  properties.SetIf("tableSeparator", o.separator);
  properties.SetIf("delimiter", o.delimiters);

  const bool refused = fault_code == 255;
  if (refused) qvehost::RefuseMetricResult(true);
  const bool fault = !refused && qvefuzz::ArmAllocationFault(
                                     fault_code, "qvefoslt", "qvefosl");
  std::string out = o.out.value_or("");
  qvedrmr_MetricResult* result = qvefoslt_getFromString(
      o.out.has_value() ? out.data() : nullptr,
      o.err.has_value() ? o.err->c_str() : nullptr, properties.list(),
      session.Log(kLogName), o.tokenize);
  qvehost::ResetFaults();
  const Json got = qvetest::ResultJson(result);
  if (result != nullptr) qvedrmr_MetricResult_delete(result);

  CheckNotice(o, session);
  if (refused) {
    Check(result == nullptr, "a refused result came back");
    return 0;
  }
  Check(result != nullptr, "no result");
  const Json want = Expected(o, qvefuzz::SplitLines(o.out.value_or("")));
  if (got == want) return 0;
  const bool nested = !o.separator.value_or("").empty();
  if (!fault || (got != Expected(o, {}) && !CutShort(got, want, nested))) {
    qvefuzz::Fail("result differs",
                  qvefuzz::Dump(got) + "\nexpected " + qvefuzz::Dump(want));
  }
  return 0;
}
