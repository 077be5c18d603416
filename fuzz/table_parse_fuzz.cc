// The line and token table parser on fuzzed output and properties.
//
// Header: byte 0 presence flags: 1 standard output, 2 standard error,
// 4 "useStdErrForWarning", 8 "warningStartsWith", 16 "startsWith",
// 32 "tableSeparator", 64 "delimiter", 128 token mode; byte 1 the token
// mode's number (0 reads as 1).
// Fields: standard output, standard error, then the five property values in
// the order of the flags.
//
// What must hold, besides no crash and no leak: a result comes back; no
// more rows than lines; every cell is text of the output (in token mode one
// without delimiter bytes); the warning is the error text when
// useStdErrForWarning asks for it; and the notice about both warning
// sources is logged exactly when both are given. The exact rows are the
// unit tests' (tests/foslt).
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

// Rows of the result, those of nested tables included.
void CollectRows(const Json& rows, std::vector<const Json*>* out) {
  for (const Json& row : rows) {
    out->push_back(&row);
    for (const Json& cell : row) {
      if (cell.is_object()) CollectRows(cell["rows"], out);
    }
  }
}

void CheckRows(const Options& o, const Json& got) {
  std::vector<const Json*> rows;
  CollectRows(got["rows"], &rows);
  const std::string out = o.out.value_or("");
  const size_t lines = qvefuzz::SplitLines(out).size();
  // The separator's table holder is a row of its own.
  Check(rows.size() <= lines + 1, "more rows than lines");
  const std::string delimiters = o.delimiters.value_or("");
  for (const Json* row : rows) {
    for (const Json& cell : *row) {
      if (!cell.is_string()) continue;
      const auto& text = cell.get_ref<const std::string&>();
      Check(out.find(text) != std::string::npos, "a cell is not output text",
            text);
      Check(o.tokenize == 0 || delimiters.empty() ||
                text.find_first_of(delimiters) == std::string::npos,
            "a field holds a delimiter", text);
    }
  }
  if (o.use_stderr == "TRUE" && o.err.has_value()) {
    Check(got["warning"] == *o.err, "the warning is not the error text");
  }
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
  qvefuzz::Properties properties;
  properties.SetIf("useStdErrForWarning", o.use_stderr);
  properties.SetIf("warningStartsWith", o.warning_prefix);
  properties.SetIf("startsWith", o.data_prefix);
  properties.SetIf("tableSeparator", o.separator);
  properties.SetIf("delimiter", o.delimiters);
  std::string out = o.out.value_or("");
  qvedrmr_MetricResult* result = qvefoslt_getFromString(
      o.out.has_value() ? out.data() : nullptr,
      o.err.has_value() ? o.err->c_str() : nullptr, properties.list(),
      session.Log(kLogName), o.tokenize);
  Check(result != nullptr, "no result");
  const Json got = qvetest::ResultJson(result);
  qvedrmr_MetricResult_delete(result);
  CheckNotice(o, session);
  CheckRows(o, got);
  return 0;
}
