// Conversion of a run's captured texts and exception message to UTF-8.
#ifndef QVE_FOS_QVEFOS_CONVERT_H_
#define QVE_FOS_QVEFOS_CONVERT_H_

#include <cstdint>

#include "qve/host.h"

// When "needCharsetConvert" is TRUE (any letter case), replaces in place:
//  - *stdoutOut, converted strictly from the set "ConvertFromCharset" names
//    (the operating system's set when absent or unknown); left as it is when
//    it cannot be converted;
//  - *stderrOut, converted tolerantly from the operating system's set; left
//    as it is when even that fails;
//  - the message of exception (when not null), converted tolerantly from the
//    operating system's set, or replaced by a fixed text when that fails.
// The slots hold host-allocated texts or null; a replaced text is freed with
// qve_free0 and the slot then owns the new host-allocated one. Nothing is
// reported to the caller: the result is always 0, and what happened is
// written to log.
int32_t qvefos_convertOutputToUTF8(qvefet_Context* fetchletContext,
                                   qvlnv_NVList* properties, char** stdoutOut,
                                   char** stderrOut, qveue_Exception* exception,
                                   qveulm_LogCtx* log);

#endif  // QVE_FOS_QVEFOS_CONVERT_H_
