// The user-defined metric's output protocol and its result: tagged lines of
// a script's standard output become one row of four string columns (command
// ID, number value, string value, message).
#ifndef QVE_FOSUD_QVEFOSUD_PROTOCOL_H_
#define QVE_FOSUD_QVEFOSUD_PROTOCOL_H_

#include <cstdint>

#include "qve/host.h"

// Reads the run's standard output (converted to UTF-8; split in place, so it
// must not be read as one text afterwards) for the first line carrying the
// result tag, the failure tag and the message tag ("kt_result=",
// "kt_failure=", "kt_message=", or the values of "kt_result_tag",
// "kt_failure_tag", "kt_message_tag" when those are not empty).
//  - A value and no failure line: the row carries the value in the column
//    "valuetype" selects ("NUMBER" 1, "STRING" or absent 2; any other value
//    type gives status 0 and no result at all) and the message line's text or
//    a message naming the value.
//  - Otherwise (no output, no value, a failure line): a row without value,
//    with the message line's text or a no-output message. Not a failure.
// Returns 0, or -1 when the message or the result cannot be made (exception
// kind 12 or 10 in *exceptionOut when it is given). *resultOut receives the
// result, which the caller owns, or is left as it was.
int32_t qvefosud_getResultFromString(qvlnv_NVList* properties, char* stdoutText,
                                     qvedrmr_MetricResult** resultOut,
                                     qveue_Exception** exceptionOut,
                                     qveulm_LogCtx* log);

// What a failed first phase (status failedStatus) yields. A server at
// version 0x410000 or later: failedStatus with the exception left in
// *exceptionOut and no result. An older one: the held exception (if any) is
// deleted and the slot set to null, and for a "valuetype" of "NUMBER" or
// "STRING" (absent: "STRING") the result is a row carrying
// "scriptErrorValue" and the exception's message (or the no-output message),
// with status 0; any other value type returns failedStatus with no result
// and no exception. properties may be null.
int32_t qvefosud_getResultFromFailure(qvefet_Context* fetchletContext,
                                      qvlnv_NVList* properties,
                                      int32_t failedStatus,
                                      qvedrmr_MetricResult** resultOut,
                                      qveue_Exception** exceptionOut,
                                      qveulm_LogCtx* log);

// Stores in *resultOut a new result of one row: commandId, numberValue,
// stringValue, message (any may be null; the host copies them) and returns
// 0. When the host refuses the result: -1, *resultOut unchanged, and kind 10
// in *exceptionOut when it is given, else an error line in log.
int32_t qvefosud_createResultObject(
    const char* commandId, const char* numberValue, const char* stringValue,
    const char* message, qvedrmr_MetricResult** resultOut,
    qveue_Exception** exceptionOut, qveulm_LogCtx* log);

#endif  // QVE_FOSUD_QVEFOSUD_PROTOCOL_H_
