/*
 * The host contract: every service that the fetchlet plug-in calls, and the
 * only way it reaches memory, logs, results, character sets and processes.
 *
 * A host is any library that defines these functions. The plug-in calls them
 * by name and holds no table of them. Everything a host must do for the
 * plug-in to work is stated here; what is left open is said so.
 *
 * General rules
 *  - All calls for one metric evaluation come from the thread that called the
 *    plug-in's entry point. The one exception is the abort callback, which the
 *    host may call from any thread while it is registered.
 *  - Status results are signed 32-bit: 0 success, anything else failure.
 *  - Texts handed to host objects are copied by the host; the caller keeps
 *    ownership of what it passed.
 *  - "Owned by X" means X releases it; a pointer returned as "borrowed" stays
 *    valid as long as the object it came from, unless said otherwise.
 *  - The operations marked QVE_HOST_EXTRA are the embedded host's own, for
 *    hosts and programs: an agent's host need not offer them, and the plug-in
 *    never depends on them. Every other operation here is the agent's
 *    contract, listed in host/contract.symbols.
 */
#ifndef QVE_HOST_H_
#define QVE_HOST_H_

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define QVE_PRINTF(fmt, args) __attribute__((format(printf, fmt, args)))
/* The export mark: a host library built with hidden visibility exports
 * exactly what these enclose. */
#define QVE_HOST_EXPORTS_BEGIN _Pragma("GCC visibility push(default)")
#define QVE_HOST_EXPORTS_END _Pragma("GCC visibility pop")
#else
#define QVE_PRINTF(fmt, args)
#define QVE_HOST_EXPORTS_BEGIN
#define QVE_HOST_EXPORTS_END
#endif
/* Marks an operation outside the agent's contract. */
#define QVE_HOST_EXTRA

/* ------------------------------------------------------------------------ */
/* Constants                                                                */
/* ------------------------------------------------------------------------ */

/* Stream mask of a process's standard streams; a channel's stream kind is
 * QVE_STREAM_STDOUT or QVE_STREAM_STDERR. */
enum {
  QVE_STREAM_STDIN = 1,
  QVE_STREAM_STDOUT = 2,
  QVE_STREAM_STDERR = 4,
  QVE_STREAM_ALL = 7,
  QVE_STREAM_OUTPUTS = 6
};

/* Result codes of the process operations. */
enum {
  QVE_OK = 0,
  QVE_END_OF_STREAM = -10, /* read: the stream ended normally; write: failed */
  QVE_WRITE_FAILED = -11,  /* write: the reader is gone */
  QVE_NOT_FOUND = -12,     /* plain start: no such program */
  QVE_NO_PERMISSION = -13, /* plain start: no execute permission */
  QVE_PROCESS_LIMIT = -17  /* plain start: the process limit is reached */
};

/* Exception kinds. */
enum {
  QVE_EXC_TIMEOUT = 7,        /* time limit passed or run aborted */
  QVE_EXC_NO_RESULT = 10,     /* a metric result could not be created */
  QVE_EXC_BAD_REQUEST = 11,   /* invalid request */
  QVE_EXC_RUN_FAILED = 12,    /* not run or read, exit not 0, no memory */
  QVE_EXC_PROCESS_LIMIT = 15  /* the process limit was reached */
};

/* Server version from which current behaviour applies. */
#define QVE_SERVER_VERSION_CURRENT 0x410000

/* Identifier of UTF-8 among character-set identifiers (IANA MIBenum). */
#define QVE_CSID_UTF8 106

/* ------------------------------------------------------------------------ */
/* Opaque host objects                                                      */
/* ------------------------------------------------------------------------ */

typedef struct qveulm_LogSource qveulm_LogSource;
typedef struct qveulm_LogCtx qveulm_LogCtx;
typedef struct qveulx_LangHandle qveulx_LangHandle;
typedef struct qveulx_LanguageGlobal qveulx_LanguageGlobal;
typedef struct qvefet_Fetchlet qvefet_Fetchlet;
typedef struct qvlnv_NVList qvlnv_NVList;
typedef struct qvlsl_Iterator qvlsl_Iterator;
typedef struct qveue_Exception qveue_Exception;
typedef struct qvedrmr_MetricResult qvedrmr_MetricResult;
typedef struct qvedrvr_ValueRow qvedrvr_ValueRow;
typedef struct qvedrmv_MetricValue qvedrmv_MetricValue;
typedef struct qveusb_StringBuffer qveusb_StringBuffer;
typedef struct qveuv_Vector qveuv_Vector;
typedef struct sqvejcp_Process sqvejcp_Process;
typedef struct qvejcap_Process qvejcap_Process;
typedef struct sqvejcx_IOMuxor sqvejcx_IOMuxor;
typedef struct qvedcpdpr_PDPRuntime qvedcpdpr_PDPRuntime;

/* The fetchlet context: made and owned by the host, passed as the first
 * argument of getFetchlet, every getMetric and the abort callback. The plug-in
 * reads only these two leading fields, in this order; a host places its own
 * fields after them (embed this struct as the first member). */
typedef struct qvefet_Context {
  qveulx_LangHandle *langHandle;
  qveulm_LogSource *logSource;
} qvefet_Context;

/* One ready channel as the multiplexer's wait reports it. A list is one block
 * of records laid one after another; the plug-in reads only streamKind. */
typedef struct sqvejcx_Channel {
  void *hostProcess;   /* host's own: the process the stream belongs to */
  int32_t hostFd;      /* host's own: the ready descriptor, -1 when ended */
  uint32_t streamKind; /* QVE_STREAM_STDOUT or QVE_STREAM_STDERR */
} sqvejcx_Channel;

/* ------------------------------------------------------------------------ */
/* Fetchlet framework                                                       */
/* ------------------------------------------------------------------------ */

/* A family's metric operation. resultOut is written on every return (null on
 * failure); exceptionOut may be null. Result and exception belong to the host
 * once handed back. */
typedef int32_t (*qvefet_GetMetricFn)(qvefet_Context *fetchletContext,
                                      qvlnv_NVList *properties,
                                      qvedrmr_MetricResult **resultOut,
                                      qveue_Exception **exceptionOut);
typedef void (*qvefet_FreeFetchletFn)(qvefet_Fetchlet *fetchlet);
/* A family's getFetchlet, as an agent finds it in the plug-in: 0 with a new
 * handle in *fetchletOut, owned by the caller until the family's
 * freeFetchlet. */
typedef int32_t (*qvefet_GetFetchletFn)(qvefet_Context *fetchletContext,
                                        qvefet_Fetchlet **fetchletOut);

/* Abort callback: called with the context, the request identifier and the
 * user data given at registration. Its result is ignored by the host. */
typedef int32_t (*qvefet_AbortCallback)(qvefet_Context *fetchletContext,
                                        const char *requestId,
                                        void *userData);

/* The operations; the types above stay the host's own. */
QVE_HOST_EXPORTS_BEGIN

/* A new handle recording the three arguments, or null. Owned by the caller
 * until qvefet_freeFetchlet. */
qvefet_Fetchlet *qvefet_newFetchlet(qvefet_GetMetricFn getMetric,
                                    qvefet_Context *fetchletContext,
                                    qvefet_FreeFetchletFn freeFetchlet);
/* The context the handle was made with (borrowed). */
qvefet_Context *qvefet_getFetchletContext(qvefet_Fetchlet *fetchlet);
/* Releases the handle. The result carries no meaning. */
int32_t qvefet_freeFetchlet(qvefet_Fetchlet *fetchlet);

/* Registers callback for requestId; 0 when registered. The host copies the
 * identifier. Between this call and the return of qvefet_removeAbortCallback
 * the host may call the callback from any thread; never afterwards, so the
 * caller may release userData once removal has returned. */
int32_t qvefet_addAbortCallback(qvefet_Context *fetchletContext,
                                const char *requestId,
                                qvefet_AbortCallback callback, void *userData);
int32_t qvefet_removeAbortCallback(qvefet_Context *fetchletContext,
                                   const char *requestId);

/* The management server's version, compared with QVE_SERVER_VERSION_CURRENT. */
int32_t qvectx_getPLBVersion(qvefet_Context *fetchletContext);

/* ------------------------------------------------------------------------ */
/* Logging                                                                  */
/* ------------------------------------------------------------------------ */

/* The log context for a log name ("fetchlets.os", ...). Owned by the host,
 * never released by the caller, valid for the life of the host. */
qveulm_LogCtx *qveulm_getLogCtx(qveulm_LogSource *logSource,
                                const char *logName);
/* Developer-trace level; text is written as given (not a format). */
void qve_devtrc(qveulm_LogCtx *log, const char *text);
void qve_debug(qveulm_LogCtx *log, const char *format, ...) QVE_PRINTF(2, 3);
void qve_warn(qveulm_LogCtx *log, const char *format, ...) QVE_PRINTF(2, 3);
void qve_error(qveulm_LogCtx *log, const char *format, ...) QVE_PRINTF(2, 3);

/* ------------------------------------------------------------------------ */
/* Memory and strings                                                       */
/* ------------------------------------------------------------------------ */

/* Every block is told the asking module ("qvefos", "qvefosl", "qvefoslt",
 * "qvefosud", "sqvefos") and a source line. Blocks are zero-filled; the
 * plug-in relies on that for NUL termination. A block may be released under
 * another module's name than it was made under. A 0-byte request gives a
 * valid block. Results are null when memory is exhausted. */
void *qve_alloc0(size_t size, const char *module, int line);
/* A new copy of text, or null; a null text gives null. */
char *qve_allocpy0(const char *text, const char *module, int line);
/* Resizes block (null: allocates), keeping its contents; bytes past the old
 * size are zero. Null on failure, and block is then still live. */
void *qve_realloc0(void *block, size_t size, const char *module, int line);
/* Releases a block; never given null by the plug-in. */
void qve_free0(void *block, const char *module, int line);
/* Release function for qveuv_Vector_deleteAll. */
void qve_freecb(void *block);

/* Bounded copy, strncpy's semantics; returns destination. */
char *qveustr_strncpy(char *destination, const char *source, size_t bound);
/* Bounded formatting; the text is cut to fit and always NUL-terminated when
 * size > 0. Returns the length the whole text would have. */
int qveupt_snprintf(char *buffer, size_t size, const char *format, ...)
    QVE_PRINTF(3, 4);
/* Non-zero when equal, letter case counting; 0 when first is null. */
int32_t qve_equals(const char *first, const char *second);
/* 0 when equal ignoring ASCII letter case (the core runtime's comparison). */
int32_t strcaseeq(const char *first, const char *second);
/* Wall-clock time in whole seconds. */
uint32_t qveut_currentSeconds(void);

/* ------------------------------------------------------------------------ */
/* Property list                                                            */
/* ------------------------------------------------------------------------ */

/* The list, its names and values are owned by the host. Values are writable
 * in place (the plug-in shortens "command" by storing a NUL) and valid for
 * the whole call. Null when the name is absent or the list is null. */
char *qvlnvlgv_getValue(qvlnv_NVList *properties, const char *name);
/* An iterator over the names in list order; released with
 * qvlsldi_destroyIterator. The list must not change while it lives. */
qvlsl_Iterator *qvlslci_createIterator(qvlnv_NVList *properties);
/* The next name (borrowed from the list), or null at the end. */
const char *qvlnvinn_iteratorNextName(qvlsl_Iterator *iterator);
void qvlsldi_destroyIterator(qvlsl_Iterator *iterator);

/* ------------------------------------------------------------------------ */
/* String buffer and vector                                                 */
/* ------------------------------------------------------------------------ */

qveusb_StringBuffer *qveusb_StringBuffer_new(void); /* null when no memory */
void qveusb_StringBuffer_appendStr(qveusb_StringBuffer *buffer,
                                   const char *text);
void qveusb_StringBuffer_appendChar(qveusb_StringBuffer *buffer, char c);
/* Appends the host's line break: one line feed. */
void qveusb_StringBuffer_appendNewLine(qveusb_StringBuffer *buffer);
int32_t qveusb_StringBuffer_size(qveusb_StringBuffer *buffer);
/* The content, NUL-terminated, borrowed until the next change or delete. */
const char *qveusb_StringBuffer_getBuffer(qveusb_StringBuffer *buffer);
/* A new copy of the content, made by the host allocator; the caller frees it
 * with qve_free0. Null when no memory. */
char *qveusb_StringBuffer_toString(qveusb_StringBuffer *buffer);
void qveusb_StringBuffer_delete(qveusb_StringBuffer *buffer);

/* Comparison for qveuv_Vector_findIndex: non-zero when element matches key. */
typedef int32_t (*qveuv_MatchFn)(const void *element, const void *key);
/* Release function for qveuv_Vector_deleteAll. */
typedef void (*qveuv_ReleaseFn)(void *element);

/* A vector holds pointers it does not own, except under deleteAll. */
qveuv_Vector *qveuv_Vector_new(void); /* null when no memory */
void qveuv_Vector_addElement(qveuv_Vector *vector, void *element);
int32_t qveuv_Vector_size(qveuv_Vector *vector);
void *qveuv_Vector_elementAt(qveuv_Vector *vector, int32_t index);
/* Index of the first element for which match(element, key) is non-zero, or
 * -1 when none. */
int32_t qveuv_Vector_findIndex(qveuv_Vector *vector, const void *key,
                               qveuv_MatchFn match);
/* Releases the vector only; the elements stay alive. */
void qveuv_Vector_delete(qveuv_Vector *vector);
/* Releases every element with release, then the vector. */
void qveuv_Vector_deleteAll(qveuv_Vector *vector, qveuv_ReleaseFn release);

/* ------------------------------------------------------------------------ */
/* Metric results                                                           */
/* ------------------------------------------------------------------------ */

/* A result owns its rows; a row owns its metric values; a metric value owns
 * its vector of nested rows and those rows. A result handed to the host
 * through a getMetric slot belongs to the host. Texts are copied. */
qvedrmr_MetricResult *qvedrmr_MetricResult_new(void); /* null when refused */
void qvedrmr_MetricResult_addValueRow(qvedrmr_MetricResult *result,
                                      qvedrvr_ValueRow *row);
void qvedrmr_MetricResult_setWarning(qvedrmr_MetricResult *result,
                                     const char *text);
/* Releases a result with all it owns (the plug-in never frees a result it
 * has handed back, and calls this only when a host offers it). */
QVE_HOST_EXTRA void qvedrmr_MetricResult_delete(qvedrmr_MetricResult *result);

qvedrvr_ValueRow *qvedrvr_ValueRow_new(void);
/* Sets column (from 0) to a copy of text; null marks the column as set with
 * no content. */
void qvedrvr_ValueRow_setStringValue(qvedrvr_ValueRow *row, int32_t column,
                                     const char *text);
/* Sets column to a nested value; the row owns it from now on. */
void qvedrvr_ValueRow_setMetricValue(qvedrvr_ValueRow *row, int32_t column,
                                     qvedrmv_MetricValue *value);

qvedrmv_MetricValue *qvedrmv_MetricValue_new(void);
/* The value owns rows (a vector of qvedrvr_ValueRow) and its rows. */
void qvedrmv_setNestedRows(qvedrmv_MetricValue *value, qveuv_Vector *rows);

/* ------------------------------------------------------------------------ */
/* Exceptions                                                               */
/* ------------------------------------------------------------------------ */

/* A new exception with its own copy of message. */
qveue_Exception *qveue_Exception_new_init(int32_t kind, const char *message);
/* The message, owned by the exception. */
const char *qveue_Exception_getErrorMessage(qveue_Exception *exception);
/* Replaces the message with a copy of text. */
void qveue_Exception_setErrorMessage(qveue_Exception *exception,
                                     const char *text);
/* The kind (the plug-in does not read it). */
QVE_HOST_EXTRA int32_t qveue_Exception_getKind(qveue_Exception *exception);
void qveue_Exception_delete(qveue_Exception *exception);
/* Hands exception (which may be null) to the caller's slot: stores it there
 * when the slot is non-null; otherwise releases it. */
void qveue_propogateException(qveue_Exception **slot,
                              qveue_Exception *exception);

/* ------------------------------------------------------------------------ */
/* National language                                                        */
/* ------------------------------------------------------------------------ */

/* Character-set identifiers are IANA MIBenum numbers; 0 means unknown. */
int32_t qveulx_get_OS_LangID(qveulx_LangHandle *language);
int32_t qveulx_get_UTF8_LangID(qveulx_LangHandle *language);
qveulx_LanguageGlobal *qveulx_getLanguageGlobal(qveulx_LangHandle *language);
/* The identifier of a character-set name (length bytes, IANA names and
 * aliases, letter case ignored), 0 when unknown. */
int32_t csidlookup(const char *name, int32_t length,
                   qveulx_LanguageGlobal *global);
/* Converts text from one set to another into a new host-allocated text in
 * *result (freed by the caller with qve_free0); 0 on success. Strict: fails
 * on any invalid or unconvertible byte, and *result is then null. A null
 * text gives a null result and 0. */
int32_t qveulx_Convert_CharsetID(qveulx_LangHandle *language, int32_t fromId,
                                 const char *text, int32_t toId,
                                 char **result);
/* The same, but drops what cannot be converted. */
int32_t qveulx_Convert_CharsetID_ignrerr(qveulx_LangHandle *language,
                                         int32_t fromId, const char *text,
                                         int32_t toId, char **result);

QVE_HOST_EXPORTS_END

#ifdef __cplusplus
} /* extern "C" */
#endif

/* The process families: plain, authenticated, multiplexer, privileges. */
#include "qve/host_process.h"

#endif /* QVE_HOST_H_ */
