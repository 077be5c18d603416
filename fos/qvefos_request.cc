// Argument splitting, the standard-input text and the driver's small rules:
// command line, time limit, request identifier and runner choice.
#include "fos/qvefos_flags.h"
#include "fos/qvefos_request.h"

#include <cstdint>
#include <cstring>
#include <limits>
#include <string_view>

#include "fos/qvefos_memory.h"

namespace {

using qvefos::kFosMemory;

constexpr char kCommandIsNull[] = "Command for fetchlet is NULL";
constexpr char kMismatchQuotes[] = "Argument '%s' has mismatch quotes";
constexpr char kUnableToAllocate[] = "Unable to allocate memory";
constexpr char kMemoryNotAllocated[] = "Memory could not be allocated\n";
constexpr size_t kMessageSize = 512;

void StoreException(qveue_Exception** slot, int32_t kind,
                    const char* message) {
  if (slot != nullptr) *slot = qveue_Exception_new_init(kind, message);
}

bool IsSeparator(char c) { return c == ' ' || c == '\t'; }
bool IsQuote(char c) { return c == '\'' || c == '"'; }

// Calls visit(token) for each token of line in order; stops early and
// returns false when visit does. The line's quotes must match.
template <typename Visit>
bool ForEachToken(std::string_view line, Visit visit) {
  bool quoted = false;
  size_t start = std::string_view::npos;
  for (size_t i = 0; i < line.size(); ++i) {
    const char c = line[i];
    if (start == std::string_view::npos) {
      if (IsSeparator(c)) continue;
      start = i;
    }
    if (IsQuote(c)) {
      quoted = !quoted;
    } else if (IsSeparator(c) && !quoted) {
      if (!visit(line.substr(start, i - start))) return false;
      start = std::string_view::npos;
    }
  }
  if (start == std::string_view::npos) return true;
  return visit(line.substr(start));
}

// Tokens ended by a separator outside quotes; *quoted tells whether the line
// ends inside quotes.
size_t CountSeparatedTokens(std::string_view line, bool* quoted) {
  size_t count = 0;
  bool in_token = false;
  *quoted = false;
  for (const char c : line) {
    if (IsQuote(c)) {
      *quoted = !*quoted;
    } else if (IsSeparator(c) && !*quoted) {
      if (in_token) ++count;
      in_token = false;
      continue;
    }
    in_token = true;
  }
  return count;
}

// A fresh copy of token; one that begins with a quote loses its first and
// last byte, whatever the last one is.
char* CopyToken(std::string_view token) {
  if (!token.empty() && IsQuote(token.front())) {
    token.remove_prefix(1);
    if (!token.empty()) token.remove_suffix(1);
  }
  auto* copy = static_cast<char*>(kFosMemory.Alloc(token.size() + 1));
  if (copy != nullptr) std::memcpy(copy, token.data(), token.size());
  return copy;
}

char** SplitNullLine(qveue_Exception** exceptionOut) {
  StoreException(exceptionOut, QVE_EXC_BAD_REQUEST, kCommandIsNull);
  return kFosMemory.AllocArray<char*>(1);
}

void RefuseMismatchedQuotes(const char* line, qveue_Exception** exceptionOut) {
  char message[kMessageSize];
  qveupt_snprintf(message, sizeof message, kMismatchQuotes, line);
  StoreException(exceptionOut, QVE_EXC_BAD_REQUEST, message);
}

constexpr bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\n'; }

// Skips the leading blanks and cuts the trailing ones by storing a NUL in the
// value itself, so the property list keeps the shortened value.
char* TrimInPlace(char* value) {
  while (IsBlank(*value)) ++value;
  char* end = value + std::strlen(value);
  while (end > value && IsBlank(end[-1])) --end;
  if (*end != '\0') *end = '\0';
  return value;
}

void AppendWithBlank(char* line, const char* part) {
  if (part == nullptr) return;
  std::strcat(line, " ");
  std::strcat(line, part);
}

size_t LengthOrZero(const char* text) {
  return text == nullptr ? 0 : std::strlen(text);
}

// strtol's reading of a decimal number, clamped to the int32_t range.
int32_t ParseDecimal(const char* text) {
  constexpr std::string_view kWhiteSpace = " \t\n\v\f\r";
  while (*text != '\0' && kWhiteSpace.find(*text) != std::string_view::npos) {
    ++text;
  }
  const bool negative = *text == '-';
  if (*text == '-' || *text == '+') ++text;
  constexpr int64_t kMax = std::numeric_limits<int32_t>::max();
  const int64_t limit = negative ? kMax + 1 : kMax;
  int64_t value = 0;
  for (; *text >= '0' && *text <= '9'; ++text) {
    value = value * 10 + (*text - '0');
    if (value > limit) value = limit;
  }
  return static_cast<int32_t>(negative ? -value : value);
}

constexpr char kStdinPrefix[] = "STDIN";
constexpr char kBeginProp[] = "__BeginProp__";
constexpr char kEndProp[] = "__EndProp__";

void AppendStdinEntry(qveusb_StringBuffer* buffer, const char* name,
                      const char* value) {
  qveusb_StringBuffer_appendStr(buffer, name + std::strlen(kStdinPrefix));
  qveusb_StringBuffer_appendStr(buffer, "=");
  if (std::strchr(value, '\n') != nullptr) {
    qveusb_StringBuffer_appendStr(buffer, kBeginProp);
    qveusb_StringBuffer_appendChar(buffer, '\n');
    qveusb_StringBuffer_appendStr(buffer, value);
    qveusb_StringBuffer_appendChar(buffer, '\n');
    qveusb_StringBuffer_appendStr(buffer, kEndProp);
  } else {
    qveusb_StringBuffer_appendStr(buffer, value);
  }
  qveusb_StringBuffer_appendChar(buffer, '\n');
}

}  // namespace

char** qvefos_splitArguments(const char* line,
                             qveue_Exception** exceptionOut) {
  if (line == nullptr) return SplitNullLine(exceptionOut);
  const std::string_view text(line);
  bool quoted = false;
  const size_t count = CountSeparatedTokens(text, &quoted);
  if (quoted) {
    RefuseMismatchedQuotes(line, exceptionOut);
    return nullptr;
  }
  // Every token but the last is ended by a separator: count + 1 tokens at
  // most, and a null slot after them.
  char** argv = kFosMemory.AllocArray<char*>(count + 2);
  size_t next = 0;
  const bool copied = argv != nullptr &&
                      ForEachToken(text, [&](std::string_view token) {
                        if (next > count) return true;
                        argv[next] = CopyToken(token);
                        return argv[next++] != nullptr;
                      });
  if (!copied) {
    qvefos_freeArguments(argv);
    StoreException(exceptionOut, QVE_EXC_RUN_FAILED, kUnableToAllocate);
    return nullptr;
  }
  return argv;
}

void qvefos_freeArguments(char** argv) {
  if (argv == nullptr) return;
  for (char** slot = argv; *slot != nullptr; ++slot) {
    kFosMemory.Free(*slot);
    *slot = nullptr;
  }
  kFosMemory.Free(argv);
}

qveusb_StringBuffer* qvefos_getStdinParameters(qvlnv_NVList* properties,
                                               qveulm_LogCtx* log) {
  qve_devtrc(log, "qvefos : Entering function - qvefos_getStdinParameters\n");
  qvlsl_Iterator* names = qvlslci_createIterator(properties);
  if (names == nullptr) return nullptr;
  qveusb_StringBuffer* buffer = nullptr;
  while (const char* name = qvlnvinn_iteratorNextName(names)) {
    if (!std::string_view(name).starts_with(kStdinPrefix)) continue;
    const char* value = qvlnvlgv_getValue(properties, name);
    if (value == nullptr) {
      qve_error(log, "%s, is null\n", name);
      continue;
    }
    if (buffer == nullptr) buffer = qveusb_StringBuffer_new();
    if (buffer == nullptr) break;
    AppendStdinEntry(buffer, name, value);
  }
  qvlsldi_destroyIterator(names);
  return buffer;
}

namespace qvefos {

int32_t BuildCommandLine(qvlnv_NVList* properties, qveulm_LogCtx* log,
                         char** commandLineOut,
                         qveue_Exception** exceptionOut) {
  *commandLineOut = nullptr;
  char* command = qvlnvlgv_getValue(properties, "command");
  if (command == nullptr || *command == '\0') {
    StoreException(exceptionOut, QVE_EXC_BAD_REQUEST, kCommandIsNull);
    return -1;
  }
  command = TrimInPlace(command);
  const char* script = qvlnvlgv_getValue(properties, "script");
  const char* args = qvlnvlgv_getValue(properties, "args");
  auto* line = static_cast<char*>(kFosMemory.Alloc(
      std::strlen(command) + LengthOrZero(script) + LengthOrZero(args) + 3));
  if (line == nullptr) {
    qve_error(log, "%s", kMemoryNotAllocated);
    StoreException(exceptionOut, QVE_EXC_RUN_FAILED, kUnableToAllocate);
    return -1;
  }
  std::strcpy(line, command);
  AppendWithBlank(line, script);
  AppendWithBlank(line, args);
  *commandLineOut = line;
  return 0;
}

int32_t ReadTimeoutSeconds(qvlnv_NVList* properties) {
  const char* value = qvlnvlgv_getValue(properties, "KT_METRIC_TIMEOUT");
  if (value == nullptr || *value == '\0') return -1;
  return ParseDecimal(value);
}

const char* ReadRequestId(qvlnv_NVList* properties, qveulm_LogCtx* log) {
  const char* id = qvlnvlgv_getValue(properties, "KTDCLIENT_REQUEST_ID");
  if (id == nullptr || *id == '\0') {
    qve_debug(log, "%s", "Request ID not found");
    return nullptr;
  }
  qve_debug(log, "Metric evaluation for KTD request ID  %s", id);
  return id;
}

RunnerChoice ChooseRunner(qvlnv_NVList* properties, qveulm_LogCtx* log) {
  constexpr char kMissingCredentials[] =
      "Error running secure command. Either username or password isn't "
      "provided while isSecureCommand is set to TRUE.";
  const char* secure = qvlnvlgv_getValue(properties, "isSecureCommand");
  if (!qvefos::IsTrueIgnoringCase(secure)) return {};
  RunnerChoice choice;
  choice.username = qvlnvlgv_getValue(properties, "username");
  choice.password = qvlnvlgv_getValue(properties, "password");
  if (choice.username == nullptr || choice.password == nullptr) {
    qve_error(log, "%s", kMissingCredentials);
    return {Runner::kMissingCredentials, nullptr, nullptr};
  }
  choice.runner = Runner::kAuthenticated;
  return choice;
}

}  // namespace qvefos
