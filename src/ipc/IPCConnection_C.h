#ifndef MAVIX_IPC_CONNECTION_C_H
#define MAVIX_IPC_CONNECTION_C_H

/* The connection API for C and C++.
 *
 * One client per process reaches the service over the system bus. It is created by the first of these
 * functions that needs it, connects in the background and lives until the process exits. Every function may
 * be called from any thread at the same time. Failures are written to the platform's log and reported by the
 * result: false is all that a caller learns. Texts and bytes that are passed in are copied, never kept.
 *
 * - A process without a system bus is stopped shortly after the first use, except on a release build.
 * - Creating the client takes about 30 free file descriptors: while there are fewer, the functions that need
 *   it fail. So does a call for which none is left.
 * - Requests wait until the client has connected: for up to 10 s until the bus is ready, and for a bus that
 *   accepts and stays silent without limit.
 * - Calls, also those without a result, to a bus name of the service without owner wait until it has one,
 *   for up to 25 s, or 50 s in the debug flavour, and the last question to the bus.
 * - Events are delivered on the thread that runs the process's default GLib main context: a process that does
 *   not run it receives none. They are queued, without limit, until it does.
 * - Do not call exit() from an event callback: except on a release build that aborts the process.
 * - After a fork without exec the child cannot use a client that its parent had created: every function that
 *   needs the client fails at once. So does every such call once the process has begun to exit.
 * - The library stays loaded after a dlclose(). */

#include "IpcTypes.h"

#ifndef __cplusplus
#include <stdbool.h>
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Creates the client if there is none yet; does not wait for the bus. True when the client exists, whether or
 * not the bus can be reached. */
bool IPCConnection__Create(void);

/* Does nothing: the client lives until the process exits. */
void IPCConnection__Destroy(void);

/* Calls a function of the service and waits for its result, within the bus library's limit of 25 s.
 *
 * interfaceName  for example "com.norvale.IAVControl"; not null; a name that D-Bus does not allow fails
 * functionCode   the function of that interface; a negative one also sets every flag of the message
 * input          `inputLength` bytes of arguments, at most 16,777,216; null for none, whatever the length
 * inputLength    in bytes; a negative length with non-null input fails
 * outputBuffer   receives the result's bytes in a new array, to be released with
 *                IPCConnection__CallDisposeOutputBuffer, or null when there are none; not null
 * outputLength   receives the result's length in bytes; not null
 *
 * True when the service answered well. Both outputs are written on failure too, usually with null and 0, but
 * a reply that is broken behind its payload still hands the payload out, which is to be released. They are
 * left alone only when an argument is null that must not be. */
bool IPCConnection__Call(const char* interfaceName, short functionCode, const void* input, int inputLength,
                         void** outputBuffer, unsigned int* outputLength);

/* Releases, once, what IPCConnection__Call handed out; null is ignored. Needs no client. */
void IPCConnection__CallDisposeOutputBuffer(void* buffer);

/* Calls a function of the service without waiting for a result. Arguments as above. True when the message was
 * accepted for sending; whether it arrived, or what the service made of it, is not reported. */
bool IPCConnection__CallAsync(const char* interfaceName, short functionCode, const void* input,
                              int inputLength);

/* True at once for any name; false for null, and where there is no client. It does not wait: every call waits
 * for its bus by itself. */
bool IPCConnection__WaitForCreateInterface(const char* interfaceName);

/* Begins to receive the events of a type with this id about this handle, or ends it. An event reaches the
 * type's callback once for however many rules it matches. The handle is one number, in which both parts count
 * in full: (handleFirst << 16) | handleSecond. A type that does not exist is not refused and matches nothing.
 * Rules are counted: one that was added twice is ended by removing it twice. A rule is in force before any
 * later call is answered. True when the request was accepted for sending. */
bool IPCConnection__AddMatchRule(EIPCMessageType type, int id, unsigned int handleFirst,
                                 unsigned int handleSecond);
bool IPCConnection__RemoveMatchRule(EIPCMessageType type, int id, unsigned int handleFirst,
                                    unsigned int handleSecond);

/* Sets the one callback of a type, in place of an earlier one, or takes it away; a null callback or a type
 * that does not exist is logged and changes nothing. Events of a type without a callback are dropped. A
 * callback may itself call any function of this header. Setting and unsetting wait for a running callback of
 * the same type, except from inside that callback: afterwards the old one no longer runs. Do not hold a lock
 * meanwhile that the callback takes. */
void IPCConnection__SetCallbackFunction(EIPCMessageType type, MavixEventCallback callback);
void IPCConnection__UnsetCallbackFunction(EIPCMessageType type);

/* Whether synchronous calls lend the calling thread's CPU priority to the service; on by default. Only the
 * low byte of `enable` counts. True when the client exists. */
bool IPCConnection__UseBoostingInheritance(int enable);

#ifdef __cplusplus
}
#endif

#endif
