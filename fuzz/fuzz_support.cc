#include "fuzz_support.h"

#include <cstdio>
#include <cstdlib>

namespace qvefuzz {

uint8_t Input::Byte() {
  if (rest_.empty()) return 0;
  const auto byte = static_cast<uint8_t>(rest_.front());
  rest_.remove_prefix(1);
  return byte;
}

std::string Input::Field() {
  const size_t end = rest_.find('\0');
  std::string field(rest_.substr(0, end));
  rest_.remove_prefix(end == std::string_view::npos ? rest_.size() : end + 1);
  return field;
}

std::optional<std::string> Input::FieldIf(bool present) {
  std::string field = Field();
  if (!present) return std::nullopt;
  return field;
}

void Fail(std::string_view what, std::string_view detail) {
  std::fprintf(stderr, "fuzz check failed: %.*s\n",
               static_cast<int>(what.size()), what.data());
  if (!detail.empty()) {
    std::fprintf(stderr, "%.*s\n", static_cast<int>(detail.size()),
                 detail.data());
  }
  std::abort();
}

std::string Dump(const nlohmann::json& json) {
  return json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

void CheckLedgerEmpty() {
  if (qvehost::LiveBlocks().empty()) return;
  Fail("blocks left live in the ledger", qvehost::DescribeLiveBlocks());
}

Session::Session() : context_(qvehost::NewContext()) {
  // The capture formats every level; the terminal gets nothing.
  static const bool quiet = [] {
    qvehost::SetLogLevel(qvehost::LogLevel::kOff);
    return true;
  }();
  (void)quiet;
}

Session::~Session() {
  qvehost::DeleteContext(context_);
  qvehost::ResetFaults();
  CheckLedgerEmpty();
}

qveulm_LogCtx* Session::Log(const char* name) const {
  return qveulm_getLogCtx(context_->logSource, name);
}

void Properties::Set(const std::string& name, const std::string& value) {
  qvehost::SetProperty(list_, name, value);
  for (auto& pair : pairs_) {
    if (pair.first == name) {
      pair.second = value;
      return;
    }
  }
  pairs_.emplace_back(name, value);
}

void Properties::SetPairs(Input& input) {
  while (!input.AtEnd()) {
    std::string name = input.Field();
    Set(name, input.Field());
  }
}

std::optional<std::string> Properties::HostValue(const char* name) const {
  return Text(qvlnvlgv_getValue(list_, name));
}

std::vector<std::string> SplitLines(std::string_view text) {
  std::vector<std::string> lines;
  std::string line;
  for (const char c : text) {
    if (c != '\n') {
      line += c;
      continue;
    }
    if (!line.empty() && line.back() == '\r') line.pop_back();
    lines.push_back(std::move(line));
    line.clear();
  }
  if (!line.empty()) lines.push_back(std::move(line));
  return lines;
}

size_t Utf8CharLength(std::string_view text, size_t at) {
  const auto lead = static_cast<unsigned char>(text[at]);
  if (lead < 0x80) return 1;
  size_t length = 0;
  uint32_t code = 0;
  if ((lead & 0xE0) == 0xC0) {
    length = 2;
    code = lead & 0x1Fu;
  } else if ((lead & 0xF0) == 0xE0) {
    length = 3;
    code = lead & 0x0Fu;
  } else if ((lead & 0xF8) == 0xF0) {
    length = 4;
    code = lead & 0x07u;
  } else {
    return 0;
  }
  if (at + length > text.size()) return 0;
  for (size_t i = 1; i < length; ++i) {
    const auto next = static_cast<unsigned char>(text[at + i]);
    if ((next & 0xC0) != 0x80) return 0;
    code = (code << 6) | (next & 0x3Fu);
  }
  constexpr uint32_t kShortest[] = {0, 0, 0x80, 0x800, 0x10000};
  if (code < kShortest[length] || code > 0x10FFFF) return 0;
  if (code >= 0xD800 && code <= 0xDFFF) return 0;
  return length;
}

bool IsValidUtf8(std::string_view text) {
  for (size_t at = 0; at < text.size();) {
    const size_t length = Utf8CharLength(text, at);
    if (length == 0) return false;
    at += length;
  }
  return true;
}

bool IsSubsequence(std::string_view part, std::string_view whole) {
  size_t at = 0;
  for (const char c : whole) {
    if (at < part.size() && part[at] == c) ++at;
  }
  return at == part.size();
}

std::optional<std::string> Text(const char* text) {
  if (text == nullptr) return std::nullopt;
  return std::string(text);
}

}  // namespace qvefuzz
