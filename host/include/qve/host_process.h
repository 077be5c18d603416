/*
 * The host contract, continued: the process families. Included by host.h,
 * whose general rules hold here too; include host.h.
 */
#ifndef QVE_HOST_PROCESS_H_
#define QVE_HOST_PROCESS_H_

#include "qve/host.h"

#ifdef __cplusplus
extern "C" {
#endif

QVE_HOST_EXPORTS_BEGIN

/* ------------------------------------------------------------------------ */
/* Plain process                                                            */
/* ------------------------------------------------------------------------ */

/* A process object for argv[0..argc) and envp[0..envc) (envp null: the
 * host's own environment); the arrays are copied. Null when no memory. The
 * object is released with sqvejcp_Process_delete, which kills and reaps a
 * process still running, so no zombie and no orphan is ever left. */
sqvejcp_Process *sqvejcp_Process_new_argv_envp(qvefet_Context *fetchletContext,
                                               char **argv, int32_t argc,
                                               char **envp, int32_t envc);
/* Starts the program (PATH search) with pipes for the streams in mask, in a
 * process group of its own: 0, or QVE_NOT_FOUND, QVE_NO_PERMISSION,
 * QVE_PROCESS_LIMIT or another non-zero value. */
int32_t sqvejcp_Process_run_need_pipes(sqvejcp_Process *process, int32_t mask);
/* Bytes written (possibly fewer than length), or QVE_END_OF_STREAM or
 * QVE_WRITE_FAILED. Never raises SIGPIPE. Writing to a process that never
 * started reports length without writing. */
int32_t sqvejcp_Process_stdin_write(sqvejcp_Process *process, const char *data,
                                    uint32_t length);
void sqvejcp_Process_stdin_close(sqvejcp_Process *process);
/* Bytes read into buffer (not NUL-terminated), at most maximum;
 * QVE_END_OF_STREAM at the end; 0 or another negative value on failure. */
int32_t sqvejcp_Process_stdout_read(sqvejcp_Process *process, char *buffer,
                                    int32_t maximum);
int32_t sqvejcp_Process_stderr_read(sqvejcp_Process *process, char *buffer,
                                    int32_t maximum);
void sqvejcp_Process_stdout_close(sqvejcp_Process *process);
void sqvejcp_Process_stderr_close(sqvejcp_Process *process);
/* Returns once the process has ended and been reaped. */
int32_t sqvejcp_Process_blocking_wait(sqvejcp_Process *process);
/* Ends the process's whole group and reaps the process. */
int32_t sqvejcp_Process_kill(sqvejcp_Process *process);
/* The exit value: the exit status, 128 + the signal for a signalled process,
 * -1 when it is unknown (never started, or the wait failed). */
int32_t sqvejcp_Process_getExitValue(sqvejcp_Process *process,
                                     int32_t *exitValue);
void sqvejcp_Process_delete(sqvejcp_Process *process);

/* ------------------------------------------------------------------------ */
/* Authenticated process                                                    */
/* ------------------------------------------------------------------------ */

/* Like the plain process, but the command runs under username with password
 * through the host's launcher. The credentials are used for the start only;
 * the host never logs them. reserved is always null. */
qvejcap_Process *qvejcap_Process_new(qvefet_Context *fetchletContext,
                                     char **argv, int32_t argc, char **envp,
                                     int32_t envc, int32_t separateErrorStream,
                                     const char *username,
                                     const char *password, void *reserved);
/* Starts with pipes for all three streams. 0 once the launcher has executed
 * the command under the user, or has refused the user (wrong password,
 * unknown user, expired account, ...): its one-line reason then waits in
 * qvejcap_Process_qvo_stderr_read and the process exits non-zero. Non-zero
 * when the command could not be executed; there are no codes for the cause. */
int32_t qvejcap_Process_run(qvejcap_Process *process);
/* Bytes of the buffer that qvejcap_Process_qvo_stderr_read fills: the text
 * is at most one less, then its NUL. */
#define QVE_LAUNCHER_TEXT_BUFFER 8208

/* Leaves in buffer the launcher's own error text, NUL-terminated, possibly
 * empty (buffer holds at least QVE_LAUNCHER_TEXT_BUFFER bytes). The two zero
 * arguments are reserved. Returns 0. */
int32_t qvejcap_Process_qvo_stderr_read(qvejcap_Process *process,
                                        char *buffer, int32_t reserved1,
                                        int32_t reserved2);
int32_t qvejcap_Process_command_stderr_read(qvejcap_Process *process,
                                            char *buffer, int32_t maximum);
int32_t qvejcap_Process_stdin_write(qvejcap_Process *process, const char *data,
                                    uint32_t length);
void qvejcap_Process_stdin_close(qvejcap_Process *process);
int32_t qvejcap_Process_stdout_read(qvejcap_Process *process, char *buffer,
                                    int32_t maximum);
void qvejcap_Process_stdout_close(qvejcap_Process *process);
void qvejcap_Process_stderr_close(qvejcap_Process *process);
int32_t qvejcap_Process_blocking_wait(qvejcap_Process *process);
int32_t qvejcap_Process_kill(qvejcap_Process *process);
int32_t qvejcap_Process_getExitValue(qvejcap_Process *process,
                                     int32_t *exitValue);
void qvejcap_Process_delete(qvejcap_Process *process);

/* ------------------------------------------------------------------------ */
/* Multiplexer                                                              */
/* ------------------------------------------------------------------------ */

/* Waits on the standard output and standard error of registered processes.
 * Null when no memory. Delete also works with streams still registered. */
sqvejcx_IOMuxor *sqvejcx_IOMuxor_new(qvefet_Context *fetchletContext);
/* Registers the streams of mask (QVE_STREAM_OUTPUTS bits); 0 on success. */
int32_t sqvejcx_IOMuxor_addProcess(sqvejcx_IOMuxor *mux,
                                   sqvejcp_Process *process, int32_t mask);
int32_t sqvejcx_IOMuxor_addAuthProcess(sqvejcx_IOMuxor *mux,
                                       qvejcap_Process *process, int32_t mask);
/* Waits at most waitBound milliseconds. 0 after a wait, with *count ready
 * channels (possibly 0) in *channels, a list owned by the caller until
 * sqvejcx_IOMuxor_freeChannels (null when count is 0 is allowed). A stream
 * that has ended, or that holds data the process drained earlier, is
 * reported ready. Non-zero: the wait failed (nothing registered, or poll
 * failed). */
int32_t sqvejcx_IOMuxor_select(sqvejcx_IOMuxor *mux, int32_t waitBound,
                               uint32_t *count, sqvejcx_Channel **channels);
/* Releases a list returned by select; null is allowed. */
void sqvejcx_IOMuxor_freeChannels(sqvejcx_Channel *channels);
/* Stops watching one stream (kind QVE_STREAM_STDOUT or QVE_STREAM_STDERR). */
int32_t sqvejcx_IOMuxor_removeProcess(sqvejcx_IOMuxor *mux,
                                      sqvejcp_Process *process, int32_t kind);
int32_t sqvejcx_IOMuxor_removeAuthProcess(sqvejcx_IOMuxor *mux,
                                          qvejcap_Process *process,
                                          int32_t kind);
void sqvejcx_IOMuxor_delete(sqvejcx_IOMuxor *mux);

/* ------------------------------------------------------------------------ */
/* Privilege delegation                                                     */
/* ------------------------------------------------------------------------ */

/* A runtime handle made from the properties, or null; released with
 * qvedcpdpr_PDPRuntime_delete. It only records the properties it saw. */
qvedcpdpr_PDPRuntime *qvedcpdpr_getPDPRuntimeFromNVPairs(
    qvefet_Context *fetchletContext, qvlnv_NVList *properties);
void qvedcpdpr_PDPRuntime_delete(qvedcpdpr_PDPRuntime *runtime);

QVE_HOST_EXPORTS_END

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* QVE_HOST_PROCESS_H_ */
