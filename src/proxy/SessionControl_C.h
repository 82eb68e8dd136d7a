#ifndef MAVIX_SESSION_CONTROL_C_H
#define MAVIX_SESSION_CONTROL_C_H

/* The process's session with the service, for C and C++.
 *
 * A program that uses the service opens a session before and closes it afterwards. Within a process many
 * components may do so independently: opens are counted, and the service sees one open for the first and one
 * close for the last. Every function may be called from any thread at the same time.
 *
 * Results: 0 success, -1 failure, -2 invalid argument; other results of an open, a close or the sessions'
 * text are the service's own. Failures are written to the platform's log.
 *
 * - The first and the last of several opens and closes wait for the service to come, as every call does
 * (IPCConnection_C.h), and for its answer, within the bus library's limit of 25 s; others that come
 * meanwhile wait with them.
 * - After the first use the client is kept until the process has gone: its threads run through the exit.
 * - After a fork without exec every function fails at once in the child, if its parent had created the
 *   client. The parent's session is not the child's. */

#ifdef __cplusplus
#include <cstdint>
#else
#include <stdint.h>
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* What a debug trace tells the service about its caller; filled in by the caller. */
typedef struct SessionControlDebugInfo {
    int32_t structSize;     /* 24, on every platform */
    const char* callerInfo; /* text about the caller; null for the calling thread's stack trace */
    int32_t traceParam;     /* handed to the service as it is */
} SessionControlDebugInfo;

/* Opens the session, or counts one more open of it. A failed open counts as well, so that its close still
 * balances it; the next open then asks the service again. Any answer of the service but -1 opens the session.
 */
int SessionControl__Open(void);

/* Takes back one open; the last one closes the session. -2 without an open. */
int SessionControl__Close(void);

/* Begins or ends a trace of the service's under a number that the caller chooses, without waiting for the
 * service. `info` is not kept. */
int SessionControl__OpenDebugTrace(long long traceId, SessionControlDebugInfo* info);
int SessionControl__CloseDebugTrace(long long traceId);

/* Asks for a text about the service's sessions. *text is then to be released with free(); it is left alone
 * unless the result is 0. */
int SessionControl__GetSessionsDebugInfo(char** text);

/* Asks whether the service has been terminated: *isTerminated is then not 0. It is left alone unless the
 * result is 0, and never receives the service's own error. */
int SessionControl__IsMavixTerminated(int* isTerminated);

#ifdef __cplusplus
}
#endif

#endif
