#ifndef MAVIX_CSHARP_IPC_CONNECTION_H
#define MAVIX_CSHARP_IPC_CONNECTION_H

/* The functions that the managed binding calls.
 *
 * They reach the same process-wide client as the functions of IPCConnection_C.h; what stands there about
 * waiting, events and fork holds here, too. A handle keeps the client through the exit of the process; with
 * the last one gone before, it ends in order. Payloads travel as message buffers, which
 * CSharp_MessageBuffer.h makes and takes apart. A handle that is null or was destroyed is only allowed for
 * TCIPCConnection_Destroy, and there only null.
 *
 * There is one managed callback for each type of events, whichever handle it was registered through. */

#include "CSharp_MessageBuffer.h"
#include "IpcTypes.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Receives an event of the type that it was registered for: the id and the payload, which is empty when there
 * is none. The buffer is valid during the call only and stays the library's: copy what is to be kept. Called
 * on the thread that runs the default GLib main context. */
typedef void (*MavixManagedCallback)(int messageId, MavixMessageBuffer* payload);

/* A new handle, which shares the client and creates it if there is none yet; null when there can be none. The
 * texts and the flag are written to the log and mean nothing else; the texts may be null.
 *
 * Every call takes away all managed callbacks that were registered before, also those registered through
 * other handles. They must be registered anew. */
void* TCIPCConnection_Create(const char* first, const char* second, bool flag);

/* Ends a handle; null is ignored. Neither the client ends, nor callbacks, nor match rules. */
void TCIPCConnection_Destroy(void* handle);

/* Calls a function of the service and appends its result to `out`, as far as there is one. A null interface
 * name throws std::logic_error. True when the service answered well. */
bool TCIPCConnection_Call(void* handle, const char* interfaceName, short functionCode, MavixMessageBuffer* in,
                          MavixMessageBuffer* out);

/* Calls a function of the service without waiting for a result. A null interface name throws
 * std::logic_error. True when the message was accepted for sending. */
bool TCIPCConnection_CallAsync(void* handle, const char* interfaceName, short functionCode,
                               MavixMessageBuffer* in);

/* Waits until every bus that serves the interface has an owner, for each as long as a call does. A null name
 * throws std::logic_error, unless the device does not support the service: then every name is true at once.
 */
bool TCIPCConnection_WaitForCreateInterface(void* handle, const char* interfaceName);

/* As IPCConnection__AddMatchRule and IPCConnection__RemoveMatchRule. The parts of the handle are signed, and
 * the sign of the second extends into the first: the parts 0 and -1 make the handle 4294967295. */
bool TCIPCConnection_AddMatchRule(void* handle, int type, int messageId, int handleFirst, short handleSecond);
bool TCIPCConnection_RemoveMatchRule(void* handle, int type, int messageId, int handleFirst,
                                     short handleSecond);

/* Sets the managed callback of a type, in place of an earlier one, or takes it away. The types from 0 to
 * IPC_MESSAGE_HT are relayed; of the three above it nothing ever is. A type that does not exist is an
 * assertion: it stops the process, except on a release build, where nothing changes. After a type was unset,
 * and as soon as no callback of it runs, its callback is never called again. */
void TCPIConnection_SetCallbackFunction(void* handle, int type, MavixManagedCallback callback);
void TCPIConnection_UnsetCallbackFunction(void* handle, int type);

/* What the client calls for an event: hands it to the managed callback of its type, or drops it. */
void TCPIConnection_Callback(EIPCMessageType type, int messageId, const char* data, int size);

/* The same for one type each. */
void TCPIConnection_Callback_SIGNAL(int messageId, const char* data, int size);
void TCPIConnection_Callback_PIPELINE_EVENT(int messageId, const char* data, int size);
void TCPIConnection_Callback_DATA(int messageId, const char* data, int size);
void TCPIConnection_Callback_PROGRAM(int messageId, const char* data, int size);
void TCPIConnection_Callback_SECTION(int messageId, const char* data, int size);
void TCPIConnection_Callback_TEXTDATA(int messageId, const char* data, int size);
void TCPIConnection_Callback_DSM(int messageId, const char* data, int size);
void TCPIConnection_Callback_COPY_PROTECTION(int messageId, const char* data, int size);
void TCPIConnection_Callback_PESDATA(int messageId, const char* data, int size);
void TCPIConnection_Callback_EXPESDATA(int messageId, const char* data, int size);
void TCPIConnection_Callback_HT(int messageId, const char* data, int size);

/* Releases memory that the library handed out and that is to be released with this function; null is ignored.
 */
void TCFreeMemory(void* memory);

#ifdef __cplusplus
}
#endif

#endif
