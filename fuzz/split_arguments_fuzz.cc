// The command line rule and the argument splitter on fuzzed commands.
//
// Header: byte 0 flags: 1 "command" present, 2 "script" present, 4 "args"
// present, 8 no exception slot, 16 also split a null line. Allocation
// faults are the fault sweep's.
// Fields: command, script, args.
//
// What must hold: the command line is the trimmed command, then " script"
// and " args" when present, and the property keeps the command without its
// trailing blanks; a line with an odd number of quote bytes is refused with
// kind 11 and the whole line in the message; otherwise the tokens are bytes
// of the line in their order, and without quotes they are exactly the line's
// words: no token empty or holding a blank or tab, nothing else left out.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "fos/qvefos_request.h"
#include "fuzz_support.h"

namespace {

using qvefuzz::Check;

constexpr size_t kMessageSize = 512;

bool IsSeparator(char c) { return c == ' ' || c == '\t'; }
bool IsQuote(char c) { return c == '\'' || c == '"'; }
bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\n'; }

bool HasQuote(std::string_view line) {
  return line.find_first_of("'\"") != std::string_view::npos;
}

bool OddQuotes(std::string_view line) {
  size_t quotes = 0;
  for (const char c : line) quotes += IsQuote(c) ? 1 : 0;
  return quotes % 2 == 1;
}

void CheckException(qveue_Exception* exception, int32_t kind,
                    const std::string& message) {
  Check(exception != nullptr, "no exception stored", message);
  Check(qveue_Exception_getKind(exception) == kind, "exception kind", message);
  Check(qveue_Exception_getErrorMessage(exception) == message,
        "exception message", message);
}

void CheckTokens(char** argv, const std::string& line) {
  std::string joined;
  for (char** token = argv; *token != nullptr; ++token) {
    const std::string_view text = *token;
    if (!HasQuote(line)) {
      Check(!text.empty() && text.find_first_of(" \t") == std::string::npos,
            "a word is empty or holds a separator", line);
    }
    joined += text;
  }
  if (HasQuote(line)) {
    Check(qvefuzz::IsSubsequence(joined, line), "a token is not the line's",
          line);
    return;
  }
  std::string words = line;
  std::erase_if(words, IsSeparator);
  Check(joined == words, "the words differ from the line's", line);
}

void CheckSplit(const char* line, bool slot) {
  qveue_Exception* exception = nullptr;
  char** argv = qvefos_splitArguments(line, slot ? &exception : nullptr);
  const std::string text = line != nullptr ? line : "";
  if (line == nullptr) {
    Check(argv != nullptr && argv[0] == nullptr, "null line gives a token");
    if (slot) CheckException(exception, 11, "Command for fetchlet is NULL");
  } else if (OddQuotes(text)) {
    Check(argv == nullptr, "unmatched quotes accepted", text);
    const std::string message = "Argument '" + text + "' has mismatch quotes";
    if (slot)
      CheckException(exception, 11, message.substr(0, kMessageSize - 1));
  } else {
    Check(argv != nullptr, "matched quotes refused", text);
    Check(exception == nullptr, "exception on success", text);
    CheckTokens(argv, text);
  }
  qvefos_freeArguments(argv);
  if (exception != nullptr) qveue_Exception_delete(exception);
}

std::string Trimmed(std::string_view text) {
  while (!text.empty() && IsBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && IsBlank(text.back())) text.remove_suffix(1);
  return std::string(text);
}

std::string TrailingCut(std::string_view text) {
  while (!text.empty() && IsBlank(text.back())) text.remove_suffix(1);
  return std::string(text);
}

struct Request {
  std::optional<std::string> command, script, args;
};

std::string ExpectedLine(const Request& request) {
  std::string line = Trimmed(*request.command);
  if (request.script.has_value()) line += " " + *request.script;
  if (request.args.has_value()) line += " " + *request.args;
  return line;
}

// The built line, or nullopt when the rule refused the request.
std::optional<std::string> CheckCommandLine(const Request& request, bool slot,
                                            qveulm_LogCtx* log) {
  qvefuzz::Properties properties;
  properties.SetIf("command", request.command);
  properties.SetIf("script", request.script);
  properties.SetIf("args", request.args);
  char* line = nullptr;
  qveue_Exception* exception = nullptr;
  const int32_t status = qvefos::BuildCommandLine(properties.list(), log, &line,
                                                  slot ? &exception : nullptr);
  std::optional<std::string> built = qvefuzz::Text(line);
  if (line != nullptr) qve_free0(line, "fuzz", __LINE__);
  const bool refused = !request.command.has_value() || request.command->empty();
  if (refused) {
    Check(status == -1 && !built.has_value(), "empty command accepted");
    if (slot) CheckException(exception, 11, "Command for fetchlet is NULL");
  } else {
    Check(status == 0, "command refused");
    Check(built == ExpectedLine(request), "command line differs", *built);
    const std::optional<std::string> kept = properties.HostValue("command");
    // A command of blanks only has no last non-blank byte to cut behind.
    Check(kept == TrailingCut(*request.command) ||
              (Trimmed(*request.command).empty() && kept == request.command),
          "command property not cut behind its last non-blank");
  }
  if (exception != nullptr) qveue_Exception_delete(exception);
  return built;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qvefuzz::Session session;
  qvefuzz::Input input(data, size);
  const uint8_t flags = input.Byte();
  const bool slot = (flags & 8) == 0;
  Request request;
  request.command = input.FieldIf((flags & 1) != 0);
  request.script = input.FieldIf((flags & 2) != 0);
  request.args = input.FieldIf((flags & 4) != 0);

  CheckSplit(request.command.value_or("").c_str(), slot);
  if ((flags & 16) != 0) CheckSplit(nullptr, slot);
  const std::optional<std::string> line =
      CheckCommandLine(request, slot, session.Log("fetchlets.os"));
  if (line.has_value()) CheckSplit(line->c_str(), slot);
  return 0;
}
