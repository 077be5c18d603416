// Request assembly: what a runner takes (argument vector, standard-input
// text, time limit, request identifier, runner and credentials), read from a
// metric's property list. The environment has its own header.
//
// Every string and array handed out here comes from the host allocator under
// the module "qvefos"; the receiver releases it as each contract says.
#ifndef QVE_FOS_QVEFOS_REQUEST_H_
#define QVE_FOS_QVEFOS_REQUEST_H_

#include <cstdint>

#include "qve/host.h"

// Splits line at blanks and tabs outside quotes (' and " share one quoted
// state; no escapes). Returns a null-terminated vector of fresh strings, owned
// by the caller and released with qvefos_freeArguments; a token that starts
// with a quote loses its first and last byte. A null line gives a one-slot
// vector holding null, with kind 11 in *exceptionOut. Unmatched quotes give
// null with kind 11; a failed allocation gives null with kind 12. Exceptions
// are stored only when exceptionOut is not null.
char** qvefos_splitArguments(const char* line, qveue_Exception** exceptionOut);

// Releases every string up to the first null slot, then the array. Null is
// ignored; the caller's pointer is left as it is.
void qvefos_freeArguments(char** argv);

// The standard-input text: one NAME=VALUE line per property named "STDIN..."
// in list order (a value holding a line feed goes between "__BeginProp__" and
// "__EndProp__" lines). Null when no such property has a value; otherwise the
// caller deletes the buffer with qveusb_StringBuffer_delete.
qveusb_StringBuffer* qvefos_getStdinParameters(qvlnv_NVList* properties,
                                               qveulm_LogCtx* log);

namespace qvefos {

// The command line: "command" trimmed of spaces, tabs and line feeds (its
// trailing ones cut in the property's own value), then " " and "script" and
// " " and "args" when those exist. On success returns 0 with a fresh string
// in *commandLineOut that the caller frees. Otherwise returns -1 with null
// there and, when exceptionOut is not null, kind 11 (no command) or kind 12
// (no memory, also logged at error level) in *exceptionOut.
int32_t BuildCommandLine(qvlnv_NVList* properties, qveulm_LogCtx* log,
                         char** commandLineOut,
                         qveue_Exception** exceptionOut);

// Seconds of "KT_METRIC_TIMEOUT" read as a decimal integer (leading white
// space, an optional sign, digits; no digits give 0; saturated to the int32_t
// range), or -1 when it is absent or empty. 0 or less means no limit.
int32_t ReadTimeoutSeconds(qvlnv_NVList* properties);

// "KTDCLIENT_REQUEST_ID" (borrowed from the list), or null when it is absent
// or empty; writes one debug line either way.
const char* ReadRequestId(qvlnv_NVList* properties, qveulm_LogCtx* log);

enum class Runner {
  kPlain,
  kAuthenticated,
  // "isSecureCommand" asks for credentials that are not there: the request
  // fails with status -1 and no exception; the reason is already logged.
  kMissingCredentials,
};

struct RunnerChoice {
  Runner runner = Runner::kPlain;
  const char* username = nullptr;  // borrowed; set for kAuthenticated only
  const char* password = nullptr;  // borrowed; set for kAuthenticated only
};

// The authenticated runner when "isSecureCommand" equals "TRUE" ignoring case
// and both "username" and "password" are present (empty ones pass); the
// plain runner in every other case.
RunnerChoice ChooseRunner(qvlnv_NVList* properties, qveulm_LogCtx* log);

}  // namespace qvefos

#endif  // QVE_FOS_QVEFOS_REQUEST_H_
