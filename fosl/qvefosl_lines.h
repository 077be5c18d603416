// The one line splitter of the plug-in: cuts a captured output text into
// lines in place.
#ifndef QVE_FOSL_QVEFOSL_LINES_H_
#define QVE_FOSL_QVEFOSL_LINES_H_

#include <cstdint>

#include "fos/qvefos_export.h"

// Splits text (writable, NUL-terminated, or null) at its line feeds: each
// line feed, and a carriage return directly before one, becomes a NUL byte,
// and *linesOut receives a host-allocated array of pointers to the starts of
// the lines. A last line without a line feed counts; a text ending in a line
// feed has no empty line after it. Returns the line count.
//
// A null or empty text, or an array that cannot be allocated, gives 0 and a
// null array. Otherwise the caller releases the array with qve_free0; the
// pointers lead into text, which stays the caller's, must outlive their use
// and is not restored.
QVEFOS_EXPORT uint32_t qvefosl_getLines(char* text, char*** linesOut);

#endif  // QVE_FOSL_QVEFOSL_LINES_H_
