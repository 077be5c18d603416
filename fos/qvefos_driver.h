// The local metric driver behind the OS, OSLine and OSLineToken fetchlets.
#ifndef QVE_FOS_QVEFOS_DRIVER_H_
#define QVE_FOS_QVEFOS_DRIVER_H_

#include <cstdint>

#include "fos/qvefos_export.h"
#include "qve/host.h"

// Runs the command the properties describe. On 0, *stdoutOut and *stderrOut
// hold the texts (null when a stream gave nothing), in UTF-8 when
// "needCharsetConvert" asks for it, and belong to the caller. On any other
// status the slots keep what they held and the exception, if one was made,
// is in *exceptionOut (which may be null). separateErrorStream keeps the
// standard output out of a failed exit's message.
QVEFOS_EXPORT int32_t qvefos_getLocalMetric(
    qvefet_Context* fetchletContext, qvlnv_NVList* properties,
    int32_t separateErrorStream, char** stdoutOut, char** stderrOut,
    qveue_Exception** exceptionOut, qveulm_LogCtx* log);

#endif  // QVE_FOS_QVEFOS_DRIVER_H_
