#include "serve/module_params.h"

#include <re2/re2.h>

#include <algorithm>

namespace fetchlet::serve {
namespace {

// A label of a host name (an IPv4 address reads as four of them).
#define FETCHLET_HOST_LABEL "[A-Za-z0-9](?:[A-Za-z0-9-]{0,61}[A-Za-z0-9])?"

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool Decode(std::string_view text, std::string* out) {
  out->clear();
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '+') {
      *out += ' ';
    } else if (text[i] != '%') {
      *out += text[i];
    } else {
      if (i + 2 >= text.size()) return false;
      const int high = HexDigit(text[i + 1]);
      const int low = HexDigit(text[i + 2]);
      if (high < 0 || low < 0) return false;
      *out += static_cast<char>(high * 16 + low);
      i += 2;
    }
  }
  return true;
}

const ModuleParam* Find(const ModuleConfig& module, std::string_view name) {
  for (const ModuleParam& param : module.params) {
    if (param.name == name) return &param;
  }
  return nullptr;
}

}  // namespace

const char kDefaultTargetPattern[] =
    "(?:" FETCHLET_HOST_LABEL "(?:\\." FETCHLET_HOST_LABEL ")*"
    "|\\[[0-9A-Fa-f:.]{2,45}\\])(?::[0-9]{1,5})?";

bool ParamReferences(std::string_view text, std::vector<std::string>* names) {
  for (size_t at = text.find("${"); at != std::string_view::npos;
       at = text.find("${", at)) {
    const size_t end = text.find('}', at + 2);
    if (end == std::string_view::npos) return false;
    names->emplace_back(text.substr(at + 2, end - at - 2));
    at = end + 1;
  }
  return true;
}

std::string Substitute(std::string_view text, const ParamValues& values) {
  std::string out;
  size_t from = 0;
  for (size_t at = text.find("${"); at != std::string_view::npos;
       at = text.find("${", from)) {
    const size_t end = text.find('}', at + 2);
    if (end == std::string_view::npos) break;
    const std::string_view name = text.substr(at + 2, end - at - 2);
    const auto value = std::find_if(values.begin(), values.end(),
                                    [&](const auto& v) { return v.first == name; });
    out.append(text.substr(from, at - from));
    if (value != values.end()) {
      out += value->second;
    } else {
      out.append(text.substr(at, end + 1 - at));
    }
    from = end + 1;
  }
  out.append(text.substr(from));
  return out;
}

std::string ValueProblem(const ModuleParam& param, std::string_view value) {
  if (value.size() > kMaxParamValueBytes) return "is too long";
  for (const char c : value) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7f) return "holds a control character";
    if (c == ' ' || c == '\'' || c == '"') return "holds a blank or a quote";
  }
  if (value.starts_with('-')) return "begins with '-'";
  if (!param.compiled ||
      !RE2::FullMatch(re2::StringPiece(value.data(), value.size()),
                      *param.compiled)) {
    return "does not match its pattern";
  }
  return "";
}

bool BindParams(const ModuleConfig& module, const ParamValues& query,
                ParamValues* values, std::string* problem) {
  values->clear();
  for (const auto& [name, value] : query) {
    const ModuleParam* param = Find(module, name);
    if (param == nullptr) {
      *problem = "a parameter is not among the module's params";
      return false;
    }
    if (std::any_of(values->begin(), values->end(),
                    [&](const auto& v) { return v.first == name; })) {
      *problem = "parameter '" + param->name + "' is given twice";
      return false;
    }
    if (const std::string why = ValueProblem(*param, value); !why.empty()) {
      *problem = "parameter '" + param->name + "' " + why;
      return false;
    }
    values->emplace_back(name, value);
  }
  ParamValues ordered;
  for (const ModuleParam& param : module.params) {
    const auto given = std::find_if(values->begin(), values->end(),
                                    [&](const auto& v) { return v.first == param.name; });
    if (given != values->end()) {
      ordered.push_back(std::move(*given));
    } else if (param.default_value) {
      ordered.emplace_back(param.name, *param.default_value);
    } else {
      *problem = "parameter '" + param.name + "' is missing";
      return false;
    }
  }
  *values = std::move(ordered);
  return true;
}

bool DecodeQuery(std::string_view target, ParamValues* pairs) {
  pairs->clear();
  const size_t question = target.find('?');
  if (question == std::string_view::npos) return true;
  std::string_view query = target.substr(question + 1);
  while (!query.empty()) {
    const size_t amp = query.find('&');
    const std::string_view pair = query.substr(0, amp);
    query = amp == std::string_view::npos ? "" : query.substr(amp + 1);
    if (pair.empty()) continue;
    const size_t equals = pair.find('=');
    std::string name, value;
    if (!Decode(pair.substr(0, equals), &name)) return false;
    if (equals != std::string_view::npos &&
        !Decode(pair.substr(equals + 1), &value)) {
      return false;
    }
    pairs->emplace_back(std::move(name), std::move(value));
  }
  return true;
}

}  // namespace fetchlet::serve
