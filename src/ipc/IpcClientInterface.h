#ifndef MAVIX_IPC_CLIENT_INTERFACE_H
#define MAVIX_IPC_CLIENT_INTERFACE_H

#include "Export.h"
#include "IpcTypes.h"
#include "MessageBuffer.h"

#include <string>

namespace MavixApiLite {

// A client of the service. Every operation may be called from any thread; failures are logged and reported by
// the result. Requests wait until the client has connected. Buffers are used during the operation only;
// growing one may throw std::length_error or std::bad_alloc.
class MAVIX_API_EXPORT TIIpcClient {
public:
    virtual ~TIIpcClient();

    // Subscribe to, or no longer receive, events of a type with an id and a handle. Success says that the
    // request left.
    virtual bool AddMatchRule(EIPCMessageType type, int id, const MAVIXHandle& handle) = 0;
    virtual bool RemoveMatchRule(EIPCMessageType type, int id, const MAVIXHandle& handle) = 0;
    // Calls a function of the service with at most 16,777,216 bytes of input, waits for its result and
    // appends that to `output`. Waits 25 s for a bus name without owner, 50 s in the debug flavour, and the
    // last question to the bus, and then 25 s for the result, at most. A failed call leaves `output` as it
    // was, unless the reply is broken behind its payload.
    virtual bool Call(const std::string& interfaceName, short functionCode, TCMessageBuffer& input,
                      TCMessageBuffer& output) = 0;
    // Calls without waiting for a result. True when the message was accepted for sending.
    virtual bool CallAsync(const std::string& interfaceName, short functionCode, TCMessageBuffer& input) = 0;
    // Waits until every bus that serves the interface has an owner, for each as long as a call does; false
    // when one has none by then. True at once when the device does not support the service. Otherwise null
    // throws std::logic_error.
    virtual bool WaitForCreateInterface(const char* interfaceName) = 0;
    // One callback per type; it runs on the thread that iterates the default main context. Both operations
    // wait for a running callback of the type, except from inside it. A type that does not exist is an
    // assertion; on a release build nothing changes.
    virtual void SetCallbackFunction(EIPCMessageType type, void (*callback)(int, const char*, int)) = 0;
    virtual void UnsetCallbackFunction(EIPCMessageType type) = 0;
    // Whether calls lend the caller's CPU priority to the service. Always true.
    virtual bool UseBoostingInheritance(bool enable) = 0;
};

} // namespace MavixApiLite

#endif
