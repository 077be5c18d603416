// The line and token table parser behind the OSLine and OSLineToken
// fetchlets.
#ifndef QVE_FOSLT_QVEFOSLT_PARSE_H_
#define QVE_FOSLT_QVEFOSLT_PARSE_H_

#include <cstdint>

#include "qve/host.h"

// Turns stdoutText into a metric result, reading "useStdErrForWarning",
// "warningStartsWith", "startsWith", "tableSeparator" and, when tokenize is
// not 0, "delimiter" from properties:
//  - a line starting with "startsWith" is data, with the prefix cut off;
//    else one starting with "warningStartsWith" is a warning line whose rest
//    joins the warning; else, with "startsWith" set, the line is dropped;
//    else it is data;
//  - line mode (tokenize 0): one row per data line, its text in column 0;
//    token mode: one row per data line, a column per field, where every byte
//    of "delimiter" ends a field and delimiters never merge;
//  - with "tableSeparator", a data line equal to it closes a table, and the
//    result is one row whose column k holds the k-th table as nested rows;
//  - the warning is stderrText when "useStdErrForWarning" is "TRUE" and the
//    text is not null, else the collected warning lines.
// Every log line goes to log; tokenize is also the number in the notice
// about conflicting warning properties.
//
// stdoutText (null allowed) is split in place and stays the caller's, as
// does stderrText, which is only read. The result belongs to the caller; it
// is null only when the host refused to make it.
qvedrmr_MetricResult* qvefoslt_getFromString(char* stdoutText,
                                             const char* stderrText,
                                             qvlnv_NVList* properties,
                                             qveulm_LogCtx* log,
                                             uint32_t tokenize);

#endif  // QVE_FOSLT_QVEFOSLT_PARSE_H_
