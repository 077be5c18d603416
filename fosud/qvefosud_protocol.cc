// The user-defined metric's result: the tagged lines of its output, or the
// run-failure rule, shaped into the four-column row.
#include "fosud/qvefosud_protocol.h"

#include <cstring>
#include <span>
#include <string_view>

#include "fos/qvefos_memory.h"
#include "fos/qvefos_result.h"
#include "fosl/qvefosl_lines.h"

namespace {

using qvefos::kFosudMemory;

constexpr char kResultFromStringTrace[] =
    "qvefosud : Entering function - qvefosud_getResultFromString\n";
constexpr char kCreateResultObjectTrace[] =
    "qvefosud : Entering function - qvefosud_createResultObject\n";

constexpr char kNoOutputFormat[] =
    "User Defined Metric %s did not generate any output";
constexpr size_t kNoOutputSize = 512;
constexpr char kValueFormat[] = "User Defined Metric %s returned a value of ";
// The format's own text, 41 bytes, and room to spare.
constexpr size_t kValueMessageExtra = 44;

constexpr char kOutputLog[] = "qvefosud_getResultFromString: output = %s\n";
constexpr char kMessageMemoryLog[] =
    "qvefosud_getResultFromString: cannot allocate memory for UDM message\n";
constexpr char kMessageMemory[] = "unable to allocate memory for UDM MESSAGE";
constexpr char kResultRefused[] = "cannot create UDM fetchlet result object";
constexpr char kResultRefusedLog[] =
    "qvefosud_createResultObject: cannot create UDM fetchlet result object\n";

constexpr char kNumberType[] = "NUMBER";
constexpr char kStringType[] = "STRING";

struct Tags {
  std::string_view result;
  std::string_view message;
  std::string_view failure;
};

// The first value each tag supplied, pointing into the split output.
struct TaggedValues {
  const char* result = nullptr;
  const char* failure = nullptr;
  const char* message = nullptr;
};

enum class ValueColumn { kNumber, kString, kNone };

size_t Length(const char* text) {
  return text != nullptr ? std::strlen(text) : 0;
}

// A replacing property counts only when it holds something; the "=" belongs
// to the default tags alone.
std::string_view ReadTag(qvlnv_NVList* properties, const char* name,
                         std::string_view fallback) {
  const char* value = qvlnvlgv_getValue(properties, name);
  return value != nullptr && *value != '\0' ? std::string_view(value)
                                            : fallback;
}

Tags ReadTags(qvlnv_NVList* properties) {
  Tags tags;
  tags.result = ReadTag(properties, "kt_result_tag", "kt_result=");
  tags.message = ReadTag(properties, "kt_message_tag", "kt_message=");
  tags.failure = ReadTag(properties, "kt_failure_tag", "kt_failure=");
  return tags;
}

// Only an absent "valuetype" defaults; an empty one selects no column.
ValueColumn ReadValueColumn(qvlnv_NVList* properties) {
  const char* type = qvlnvlgv_getValue(properties, "valuetype");
  const std::string_view declared = type != nullptr ? type : kStringType;
  if (declared == kNumberType) return ValueColumn::kNumber;
  if (declared == kStringType) return ValueColumn::kString;
  return ValueColumn::kNone;
}

// Keeps the rest of line after tag in *slot unless an earlier line did.
void TakeFirst(const char** slot, const char* line, std::string_view tag) {
  if (*slot == nullptr && std::strncmp(line, tag.data(), tag.size()) == 0) {
    *slot = line + tag.size();
  }
}

TaggedValues Scan(std::span<char* const> lines, const Tags& tags) {
  TaggedValues found;
  for (const char* line : lines) {
    TakeFirst(&found.result, line, tags.result);
    TakeFirst(&found.failure, line, tags.failure);
    TakeFirst(&found.message, line, tags.message);
  }
  return found;
}

// Null when the buffer cannot be had; longer texts are cut to fit.
char* NoOutputMessage(const char* commandId) {
  auto* message = kFosudMemory.AllocArray<char>(kNoOutputSize);
  if (message != nullptr) {
    qveupt_snprintf(message, kNoOutputSize, kNoOutputFormat, commandId);
  }
  return message;
}

char* ValueMessage(const char* commandId, const char* value) {
  const size_t size = Length(commandId) + Length(value) + kValueMessageExtra;
  auto* message = kFosudMemory.AllocArray<char>(size);
  if (message == nullptr) return nullptr;
  qveupt_snprintf(message, size, kValueFormat, commandId);
  // strncat writes its NUL behind the bound, hence the one byte kept back.
  std::strncat(message, value, size - std::strlen(message) - 1);
  return message;
}

int32_t CreateTypedResult(ValueColumn column, const char* commandId,
                          const char* value, const char* message,
                          qvedrmr_MetricResult** resultOut,
                          qveue_Exception** exceptionOut, qveulm_LogCtx* log) {
  const bool number = column == ValueColumn::kNumber;
  return qvefosud_createResultObject(commandId, number ? value : nullptr,
                                     number ? nullptr : value, message,
                                     resultOut, exceptionOut, log);
}

// One reading of a script's output. The line array, then the message, are
// released when it ends, whichever way the reading went.
class OutputReading {
 public:
  OutputReading(qvlnv_NVList* properties, qvedrmr_MetricResult** resultOut,
                qveue_Exception** exceptionOut, qveulm_LogCtx* log)
      : tags_(ReadTags(properties)),
        column_(ReadValueColumn(properties)),
        commandId_(qvlnvlgv_getValue(properties, "ID")),
        resultOut_(resultOut),
        exceptionOut_(exceptionOut),
        log_(log) {}
  OutputReading(const OutputReading&) = delete;
  OutputReading& operator=(const OutputReading&) = delete;
  ~OutputReading() {
    if (lines_ != nullptr) kFosudMemory.Free(lines_);
    if (message_ != nullptr) kFosudMemory.Free(message_);
  }

  int32_t Read(char* output) {
    if (output == nullptr || *output == '\0') {
      message_ = NoOutputMessage(commandId_);
      return CreateWithoutValue();
    }
    const uint32_t count = qvefosl_getLines(output, &lines_);
    const TaggedValues found = Scan({lines_, count}, tags_);
    if (found.failure != nullptr || found.result == nullptr) {
      return ReportNoValue(output, found.message);
    }
    return ReportValue(found.result, found.message);
  }

 private:
  int32_t CreateWithoutValue() {
    return qvefosud_createResultObject(commandId_, nullptr, nullptr, message_,
                                       resultOut_, exceptionOut_, log_);
  }

  // The output has been split: the log line shows its first line only.
  int32_t ReportNoValue(const char* output, const char* messageValue) {
    qve_error(log_, kOutputLog, output);
    message_ = kFosudMemory.Copy(messageValue);
    if (message_ == nullptr) message_ = NoOutputMessage(commandId_);
    return CreateWithoutValue();
  }

  int32_t ReportValue(const char* value, const char* messageValue) {
    message_ = kFosudMemory.Copy(messageValue);
    if (message_ == nullptr) message_ = ValueMessage(commandId_, value);
    if (message_ == nullptr) {
      qve_error(log_, "%s", kMessageMemoryLog);
      if (exceptionOut_ != nullptr) {
        *exceptionOut_ =
            qveue_Exception_new_init(QVE_EXC_RUN_FAILED, kMessageMemory);
      }
      return -1;
    }
    if (column_ == ValueColumn::kNone) return 0;
    return CreateTypedResult(column_, commandId_, value, message_, resultOut_,
                             exceptionOut_, log_);
  }

  const Tags tags_;
  const ValueColumn column_;
  const char* const commandId_;
  qvedrmr_MetricResult** const resultOut_;
  qveue_Exception** const exceptionOut_;
  qveulm_LogCtx* const log_;
  char** lines_ = nullptr;
  char* message_ = nullptr;
};

}  // namespace

int32_t qvefosud_getResultFromString(qvlnv_NVList* properties, char* stdoutText,
                                     qvedrmr_MetricResult** resultOut,
                                     qveue_Exception** exceptionOut,
                                     qveulm_LogCtx* log) {
  qve_devtrc(log, kResultFromStringTrace);
  OutputReading reading(properties, resultOut, exceptionOut, log);
  return reading.Read(stdoutText);
}

int32_t qvefosud_getResultFromFailure(qvefet_Context* fetchletContext,
                                      qvlnv_NVList* properties,
                                      int32_t failedStatus,
                                      qvedrmr_MetricResult** resultOut,
                                      qveue_Exception** exceptionOut,
                                      qveulm_LogCtx* log) {
  if (qvectx_getPLBVersion(fetchletContext) >= QVE_SERVER_VERSION_CURRENT) {
    return failedStatus;
  }
  // Older servers take a script error as a value, never as an exception.
  const char* commandId = qvlnvlgv_getValue(properties, "ID");
  const char* errorValue = qvlnvlgv_getValue(properties, "scriptErrorValue");
  const ValueColumn column = ReadValueColumn(properties);
  qveue_Exception* held = exceptionOut != nullptr ? *exceptionOut : nullptr;
  char* message = held != nullptr
                      ? kFosudMemory.Copy(qveue_Exception_getErrorMessage(held))
                      : NoOutputMessage(commandId);
  if (held != nullptr) {
    qveue_Exception_delete(held);
    *exceptionOut = nullptr;
  }
  int32_t status = failedStatus;
  if (column != ValueColumn::kNone) {
    status = CreateTypedResult(column, commandId, errorValue, message,
                               resultOut, exceptionOut, log);
  }
  if (message != nullptr) kFosudMemory.Free(message);
  return status;
}

int32_t qvefosud_createResultObject(
    const char* commandId, const char* numberValue, const char* stringValue,
    const char* message, qvedrmr_MetricResult** resultOut,
    qveue_Exception** exceptionOut, qveulm_LogCtx* log) {
  qve_devtrc(log, kCreateResultObjectTrace);
  qvedrmr_MetricResult* result = qvedrmr_MetricResult_new();
  qvedrvr_ValueRow* row = result != nullptr ? qvedrvr_ValueRow_new() : nullptr;
  if (row == nullptr) {
    // A row the host cannot make fails like a refused result.
    qvefos::ReleaseUnhandedResult(result);
    if (exceptionOut != nullptr) {
      *exceptionOut =
          qveue_Exception_new_init(QVE_EXC_NO_RESULT, kResultRefused);
    } else {
      qve_error(log, "%s", kResultRefusedLog);
    }
    return -1;
  }
  qvedrmr_MetricResult_addValueRow(result, row);
  const char* const columns[] = {commandId, numberValue, stringValue, message};
  for (int32_t column = 0; column < 4; ++column) {
    qvedrvr_ValueRow_setStringValue(row, column, columns[column]);
  }
  *resultOut = result;
  return 0;
}
