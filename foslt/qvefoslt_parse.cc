// The table parser: classifies the lines of a command's output, splits data
// lines into rows, cuts nested tables at separator lines and picks the
// warning.
#include "fos/qvefos_flags.h"
#include "foslt/qvefoslt_parse.h"

#include <cstring>
#include <utility>

#include "fos/qvefos_memory.h"
#include "fosl/qvefosl_lines.h"

namespace {

using qvefos::kFosltMemory;

constexpr const char* kEntryTrace =
    "qvefoslt : Entering function - qvefoslt_getFromString\n";
constexpr const char* kExclusiveNotice =
    "Mutually exclusive properties \"useStdErrForWarning\" and "
    "\"warningStarter\" specified for OSLine%d fetchlet";
constexpr const char* kLineDebug = "line(%d) = %30.30s...\n";
constexpr const char* kTokenDebug = "token (%d,%d)= %s\n";

constexpr const char* kUseStdErrForWarning = "useStdErrForWarning";
constexpr const char* kWarningStartsWith = "warningStartsWith";
constexpr const char* kDelimiter = "delimiter";
constexpr const char* kStartsWith = "startsWith";
constexpr const char* kTableSeparator = "tableSeparator";
constexpr const char* kNoDelimiters = "";

// A property used as a line prefix; absent reads as null with length 0.
struct Prefix {
  Prefix() = default;
  explicit Prefix(const char* value)
      : text(value),
        length(value != nullptr ? static_cast<uint32_t>(std::strlen(value))
                                : 0) {}

  bool Begins(const char* line) const {
    return length != 0 && std::strncmp(line, text, length) == 0;
  }

  const char* text = nullptr;
  uint32_t length = 0;
};

enum class LineKind { kData, kWarning, kDropped };

// The working state of one call. The destructor is the one clean-up that
// every path reaches.
class TableParser {
 public:
  TableParser(qvlnv_NVList* properties, qveulm_LogCtx* log, uint32_t tokenize)
      : properties_(properties), log_(log), tokenize_(tokenize) {}
  TableParser(const TableParser&) = delete;
  TableParser& operator=(const TableParser&) = delete;

  ~TableParser() {
    if (lines_ != nullptr) kFosltMemory.Free(lines_);
    if (warnings_ != nullptr) qveusb_StringBuffer_delete(warnings_);
    if (rows_ != nullptr) qveuv_Vector_delete(rows_);
    if (tables_ != nullptr) qveuv_Vector_delete(tables_);
  }

  qvedrmr_MetricResult* Parse(char* stdoutText, const char* stderrText) {
    qve_devtrc(log_, kEntryTrace);
    ReadProperties();
    lineCount_ = qvefosl_getLines(stdoutText, &lines_);
    qvedrmr_MetricResult* result = qvedrmr_MetricResult_new();
    if (result == nullptr) return nullptr;
    separator_ = Prefix(qvlnvlgv_getValue(properties_, kTableSeparator));
    if (!MakeContainers()) return result;
    for (uint32_t i = 0; i < lineCount_; ++i) TakeLine(lines_[i]);
    if (Nested()) {
      AssembleNested(result);
    } else {
      AssembleFlat(result);
    }
    AttachWarning(result, stderrText);
    return result;
  }

 private:
  void ReadProperties() {
    stderrWarning_ =
        qvefos::PropertyIsTrue(properties_, kUseStdErrForWarning);
    warningPrefix_ = Prefix(qvlnvlgv_getValue(properties_, kWarningStartsWith));
    if (warningPrefix_.text != nullptr) {
      warnings_ = qveusb_StringBuffer_new();
      if (stderrWarning_) {
        qve_warn(log_, kExclusiveNotice, static_cast<int>(tokenize_));
      }
    }
    if (tokenize_ != 0) {
      const char* delimiters = qvlnvlgv_getValue(properties_, kDelimiter);
      delimiters_ = delimiters != nullptr ? delimiters : kNoDelimiters;
    }
    dataPrefix_ = Prefix(qvlnvlgv_getValue(properties_, kStartsWith));
  }

  bool Nested() const { return separator_.length != 0; }

  // The table list and the first row list; in the nested shape also the one
  // row that will take the tables, made before any line so that its refusal
  // cannot strand rows that only it could hold.
  bool MakeContainers() {
    tables_ = qveuv_Vector_new();
    if (tables_ == nullptr) return false;
    rows_ = qveuv_Vector_new();
    if (rows_ == nullptr) return false;
    if (Nested()) nestedRow_ = qvedrvr_ValueRow_new();
    return !Nested() || nestedRow_ != nullptr;
  }

  LineKind Classify(const char* line) const {
    if (dataPrefix_.Begins(line)) return LineKind::kData;
    if (warningPrefix_.Begins(line)) return LineKind::kWarning;
    return dataPrefix_.length != 0 ? LineKind::kDropped : LineKind::kData;
  }

  void TakeLine(const char* line) {
    switch (Classify(line)) {
      case LineKind::kData:
        TakeDataLine(line);
        break;
      case LineKind::kWarning:
        CollectWarning(line + warningPrefix_.length);
        break;
      case LineKind::kDropped:
        break;
    }
  }

  void CollectWarning(const char* rest) {
    if (warnings_ == nullptr) return;
    qveusb_StringBuffer_appendStr(warnings_, rest);
    qveusb_StringBuffer_appendNewLine(warnings_);
  }

  // The separator test sees the whole line, prefix included.
  void TakeDataLine(const char* line) {
    if (Nested() && std::strcmp(line, separator_.text) == 0) {
      CloseTable();
      return;
    }
    qvedrvr_ValueRow* row = qvedrvr_ValueRow_new();
    if (row == nullptr) return;  // the line is skipped, as a failed field
    ++rowNumber_;
    qveuv_Vector_addElement(rows_, row);
    const char* value = line + dataPrefix_.length;
    if (tokenize_ != 0) {
      FillByToken(row, value);
    } else {
      FillByLine(row, value);
    }
  }

  // Without a fresh list the tables run on as one rather than lose rows.
  void CloseTable() {
    qveuv_Vector* fresh = qveuv_Vector_new();
    if (fresh == nullptr) return;
    qveuv_Vector_addElement(tables_, rows_);
    rows_ = fresh;
    rowNumber_ = 0;
  }

  // The row copies the text, so the line goes in straight from the output.
  void FillByLine(qvedrvr_ValueRow* row, const char* value) {
    qvedrvr_ValueRow_setStringValue(row, 0, value);
    qve_debug(log_, kLineDebug, rowNumber_, value);
  }

  // Every delimiter byte ends a field, so d delimiters give d + 1 fields. A
  // field that cannot be copied ends the row there.
  void FillByToken(qvedrvr_ValueRow* row, const char* value) {
    if (*delimiters_ == '\0') {
      if (char* field = kFosltMemory.Copy(value)) SetField(row, 0, field);
      return;
    }
    for (int32_t column = 0;; ++column) {
      const size_t length = std::strcspn(value, delimiters_);
      auto* field = kFosltMemory.AllocArray<char>(length + 1);
      if (field == nullptr) return;
      std::memcpy(field, value, length);
      SetField(row, column, field);
      if (value[length] == '\0') return;
      value += length + 1;
    }
  }

  void SetField(qvedrvr_ValueRow* row, int32_t column, char* field) {
    qvedrvr_ValueRow_setStringValue(row, column, field);
    qve_debug(log_, kTokenDebug, rowNumber_, column, field);
    kFosltMemory.Free(field);
  }

  // A row list that no metric value can take cannot be released through
  // the host's contract; the host refuses objects only when out of memory.
  void AssembleNested(qvedrmr_MetricResult* result) {
    if (qveuv_Vector_size(rows_) > 0) {
      qveuv_Vector_addElement(tables_, std::exchange(rows_, nullptr));
    }
    const int32_t count = qveuv_Vector_size(tables_);
    for (int32_t k = 0; k < count; ++k) {
      qvedrmv_MetricValue* value = qvedrmv_MetricValue_new();
      if (value == nullptr) continue;
      qvedrmv_setNestedRows(value, static_cast<qveuv_Vector*>(
                                       qveuv_Vector_elementAt(tables_, k)));
      qvedrvr_ValueRow_setMetricValue(nestedRow_, k, value);
    }
    qvedrmr_MetricResult_addValueRow(result,
                                     std::exchange(nestedRow_, nullptr));
  }

  void AssembleFlat(qvedrmr_MetricResult* result) {
    const int32_t count = qveuv_Vector_size(rows_);
    for (int32_t i = 0; i < count; ++i) {
      qvedrmr_MetricResult_addValueRow(
          result,
          static_cast<qvedrvr_ValueRow*>(qveuv_Vector_elementAt(rows_, i)));
    }
  }

  // The error text wins even when empty; collected lines come second.
  void AttachWarning(qvedrmr_MetricResult* result, const char* stderrText) {
    if (stderrWarning_ && stderrText != nullptr) {
      qvedrmr_MetricResult_setWarning(result, stderrText);
    } else if (warnings_ != nullptr &&
               qveusb_StringBuffer_size(warnings_) > 0) {
      qvedrmr_MetricResult_setWarning(result,
                                      qveusb_StringBuffer_getBuffer(warnings_));
    }
  }

  qvlnv_NVList* const properties_;
  qveulm_LogCtx* const log_;
  const uint32_t tokenize_;
  bool stderrWarning_ = false;
  Prefix warningPrefix_;
  Prefix dataPrefix_;
  Prefix separator_;
  const char* delimiters_ = kNoDelimiters;
  qveusb_StringBuffer* warnings_ = nullptr;
  char** lines_ = nullptr;
  uint32_t lineCount_ = 0;
  qveuv_Vector* tables_ = nullptr;
  qveuv_Vector* rows_ = nullptr;
  qvedrvr_ValueRow* nestedRow_ = nullptr;
  int32_t rowNumber_ = 0;
};

}  // namespace

qvedrmr_MetricResult* qvefoslt_getFromString(char* stdoutText,
                                             const char* stderrText,
                                             qvlnv_NVList* properties,
                                             qveulm_LogCtx* log,
                                             uint32_t tokenize) {
  TableParser parser(properties, log, tokenize);
  return parser.Parse(stdoutText, stderrText);
}
