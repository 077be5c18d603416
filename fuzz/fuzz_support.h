// Shared pieces of the fuzz targets: the input framing, the per-input host
// session that proves the allocation ledger empty, property lists that
// remember what they hold, and checks on texts.
//
// Input framing, the same for every target:
//   HEADER FIELD0 NUL FIELD1 NUL FIELD2 ...
// HEADER is a fixed number of option bytes that each target documents
// (missing bytes read as 0). The rest is cut at NUL bytes into fields; a
// field past the end reads as empty. Fields never hold NUL, which suits the
// C strings every target feeds the plug-in.
#ifndef QVE_FUZZ_FUZZ_SUPPORT_H_
#define QVE_FUZZ_FUZZ_SUPPORT_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "qve/embedded.h"
#include "qve/host.h"

namespace qvefuzz {

// ---- Framing ----------------------------------------------------------------

class Input {
 public:
  Input(const uint8_t* data, size_t size)
      : rest_(reinterpret_cast<const char*>(data), size) {}

  // The next header byte, 0 when the input has run out.
  uint8_t Byte();
  // The next NUL-ended field (the rest when no NUL follows), "" at the end.
  std::string Field();
  // Field() when present, else nullopt; consumes the field either way.
  std::optional<std::string> FieldIf(bool present);
  bool AtEnd() const { return rest_.empty(); }

 private:
  std::string_view rest_;
};

// ---- Checks -----------------------------------------------------------------

// Prints what failed and aborts, so that libFuzzer keeps the input.
[[noreturn]] void Fail(std::string_view what, std::string_view detail = {});

inline void Check(bool holds, std::string_view what,
                  std::string_view detail = {}) {
  if (!holds) Fail(what, detail);
}

// JSON for a failure message; invalid UTF-8 shows as replacement characters.
std::string Dump(const nlohmann::json& json);

// Aborts unless no host block is live, naming the leaked sites.
void CheckLedgerEmpty();

// ---- Session ----------------------------------------------------------------

// One input's host state: a context, a log capture (every level is
// formatted, nothing reaches the terminal) and, on the way out, the fault
// switches cleared and the ledger proven empty. Declare it first in a target
// so that it is destroyed last.
class Session {
 public:
  Session();
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  qvefet_Context* context() const { return context_; }
  qveulm_LogCtx* Log(const char* name) const;
  const qvehost::LogCapture& capture() const { return capture_; }

 private:
  qvefet_Context* context_;
  qvehost::LogCapture capture_;
};

// ---- Properties -------------------------------------------------------------

using Pairs = std::vector<std::pair<std::string, std::string>>;

// A host property list and a copy of its pairs in list order (setting a name
// again replaces its value in place, as the host does).
class Properties {
 public:
  Properties() : list_(qvehost::NewPropertyList()) {}
  ~Properties() { qvehost::DeletePropertyList(list_); }
  Properties(const Properties&) = delete;
  Properties& operator=(const Properties&) = delete;

  void Set(const std::string& name, const std::string& value);
  void SetIf(const char* name, const std::optional<std::string>& value) {
    if (value.has_value()) Set(name, *value);
  }
  // Every remaining field pair of input as NAME, VALUE.
  void SetPairs(Input& input);

  qvlnv_NVList* list() const { return list_; }
  const Pairs& pairs() const { return pairs_; }
  // What the host list holds now (the plug-in may shorten values in place).
  std::optional<std::string> HostValue(const char* name) const;

 private:
  qvlnv_NVList* list_;
  Pairs pairs_;
};

// ---- Texts -------------------------------------------------------

// The lines of text: cut at each line feed, a carriage return right before
// one dropped, a last line without a line feed kept, none after a final one.
std::vector<std::string> SplitLines(std::string_view text);

// Length of the well-formed UTF-8 character at text[at], 0 when it is not
// one (decoded and checked against the shortest form, the surrogates and
// U+10FFFF).
size_t Utf8CharLength(std::string_view text, size_t at);
bool IsValidUtf8(std::string_view text);
// Whether part is whole with some bytes left out.
bool IsSubsequence(std::string_view part, std::string_view whole);

// A C string as a value; null reads as nullopt.
std::optional<std::string> Text(const char* text);

}  // namespace qvefuzz

#endif  // QVE_FUZZ_FUZZ_SUPPORT_H_
