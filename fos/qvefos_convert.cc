#include "fos/qvefos_flags.h"
#include "fos/qvefos_convert.h"

#include <cstdint>
#include <cstring>

#include "fos/qvefos_memory.h"
#include "qve/host.h"

namespace {

using qvefos::kFosMemory;

constexpr const char* kEntryTrace =
    "qvefos : Entering function - qvefos_convertOutputToUTF8\n";
constexpr const char* kNeedCharsetConvert = "needCharsetConvert";
constexpr const char* kConvertFromCharset = "ConvertFromCharset";
constexpr const char* kNullShown = "(null)";

constexpr const char* kNeedConvertLog = "needCharsetConvert = %s\n";
constexpr const char* kFromCharsetLog = "convertFromCharset = %s\n";
constexpr const char* kUnknownCharsetLog =
    "unknown charset %s, will try to convert from  os charset\n";
constexpr const char* kLookupLog =
    "csidlookup returns convert_from_lang_id = %d\n";
constexpr const char* kFromCharsetNullLog = "convertFromCharset is NULL\n";
constexpr const char* kFromIdLog = "convert_from_lang_id is %d\n";
constexpr const char* kOsIdLog = "os_lang_id is %d\n";
constexpr const char* kOutputFailedLog =
    "cannot convert result output %s to UTF8\n";
constexpr const char* kErrorFailedLog =
    "cannot convert result error %s to UTF8\n";
constexpr const char* kMessageFailedLog =
    "cannot convert result error message %s to UTF8\n";
constexpr const char* kMessageFailed =
    "Error while converting result error message from native language to "
    "UTF-8.";

using ConvertFn = int32_t (*)(qveulx_LangHandle*, int32_t, const char*, int32_t,
                              char**);

const char* Shown(const char* text) {
  return text != nullptr ? text : kNullShown;
}

// The set of the standard output: the one "ConvertFromCharset" names when
// the host knows it, else the operating system's.
int32_t StdoutCharset(qveulx_LangHandle* language, qvlnv_NVList* properties,
                      int32_t osId, qveulm_LogCtx* log) {
  const char* name = qvlnvlgv_getValue(properties, kConvertFromCharset);
  if (name == nullptr) {
    qve_debug(log, "%s", kFromCharsetNullLog);
    return osId;
  }
  qve_debug(log, kFromCharsetLog, name);
  int32_t id = csidlookup(name, static_cast<int32_t>(std::strlen(name)),
                          qveulx_getLanguageGlobal(language));
  if (id == 0) {
    qve_error(log, kUnknownCharsetLog, name);
    return osId;
  }
  qve_debug(log, kLookupLog, id);
  return id;
}

// Replaces the text in slot by its conversion; on failure the old text
// stays and failedLog shows it.
void ConvertSlot(ConvertFn convert, qveulx_LangHandle* language, int32_t fromId,
                 int32_t toId, char** slot, const char* failedLog,
                 qveulm_LogCtx* log) {
  char* converted = nullptr;
  if (convert(language, fromId, *slot, toId, &converted) == 0) {
    if (*slot != nullptr) kFosMemory.Free(*slot);
    *slot = converted;
    return;
  }
  qve_debug(log, failedLog, Shown(*slot));
  if (converted != nullptr) kFosMemory.Free(converted);
}

void ConvertMessage(qveulx_LangHandle* language, int32_t osId, int32_t utf8Id,
                    qveue_Exception* exception, qveulm_LogCtx* log) {
  const char* message = qveue_Exception_getErrorMessage(exception);
  char* converted = nullptr;
  if (qveulx_Convert_CharsetID_ignrerr(language, osId, message, utf8Id,
                                       &converted) == 0) {
    qveue_Exception_setErrorMessage(exception, converted);
    if (converted != nullptr) kFosMemory.Free(converted);
    return;
  }
  qve_debug(log, kMessageFailedLog, Shown(message));
  if (converted != nullptr) kFosMemory.Free(converted);
  char* replacement = kFosMemory.Copy(kMessageFailed);
  qveue_Exception_setErrorMessage(
      exception, replacement != nullptr ? replacement : kMessageFailed);
  if (replacement != nullptr) kFosMemory.Free(replacement);
}

}  // namespace

int32_t qvefos_convertOutputToUTF8(qvefet_Context* fetchletContext,
                                   qvlnv_NVList* properties, char** stdoutOut,
                                   char** stderrOut, qveue_Exception* exception,
                                   qveulm_LogCtx* log) {
  qve_devtrc(log, kEntryTrace);
  qveulx_LangHandle* language =
      fetchletContext != nullptr ? fetchletContext->langHandle : nullptr;
  int32_t osId = qveulx_get_OS_LangID(language);
  int32_t utf8Id = qveulx_get_UTF8_LangID(language);

  const char* need = qvlnvlgv_getValue(properties, kNeedCharsetConvert);
  qve_debug(log, kNeedConvertLog, Shown(need));
  if (!qvefos::IsTrueIgnoringCase(need)) return 0;

  int32_t fromId = StdoutCharset(language, properties, osId, log);
  qve_debug(log, kFromIdLog, fromId);
  qve_debug(log, kOsIdLog, osId);

  ConvertSlot(qveulx_Convert_CharsetID, language, fromId, utf8Id, stdoutOut,
              kOutputFailedLog, log);
  ConvertSlot(qveulx_Convert_CharsetID_ignrerr, language, osId, utf8Id,
              stderrOut, kErrorFailedLog, log);
  if (exception != nullptr) {
    ConvertMessage(language, osId, utf8Id, exception, log);
  }
  return 0;
}
