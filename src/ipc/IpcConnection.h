#ifndef MAVIX_IPC_CONNECTION_H
#define MAVIX_IPC_CONNECTION_H

#include "IpcMessage.h"

#include <string>

namespace MavixApiLite {

class TIIpcConnection;

// What a connection calls back. Must outlive the connection's dispatching.
class MAVIX_API_EXPORT TIIpcConnectionOwner {
public:
    virtual ~TIIpcConnectionOwner();

    // Called on the connecting thread, once per attempt, when the bus connection exists and before any
    // message is dispatched. The owner subscribes here and must not wait for another thread. False aborts the
    // attempt.
    virtual bool InitializeIpcConnection(TIIpcConnection* connection) = 0;
    // Called on the dispatch thread for every incoming message; true means handled.
    virtual bool FilterIpcMessage(TIIpcMessage& message) = 0;
};

// A connection to the system bus. Every operation may be called from any thread; one that needs the bus waits
// until the connect has finished, except on the connecting thread itself. Failures are logged and reported by
// the result; a null match rule throws std::logic_error.
class MAVIX_API_EXPORT TIIpcConnection {
public:
    virtual ~TIIpcConnection();

    // Starts connecting in the background and returns true at once. `name` names the dispatch thread; `owner`
    // may be null. Does nothing while connecting or connected.
    virtual bool Connect(std::string name, TIIpcConnectionOwner* owner) = 0;
    // Waits until the connect has finished; whether a connection exists. Not for InitializeIpcConnection: the
    // connecting thread would wait for itself.
    virtual bool WaitConnected() = 0;
    // Finishes the message and queues it for sending. A message is sent once.
    virtual bool Send(TIIpcMessage& message) = 0;
    // Finishes and sends the message, waits for the reply and replaces the message's content by it. An error
    // reply is a reply too. -1 is the bus library's default time limit; nothing else is negative. After a
    // failure the message cannot be sent again.
    virtual bool SendWithReply(TIIpcMessage& message, int timeoutMs) = 0;
    // Ask the bus to deliver, or no longer deliver, what a rule matches. Rules are counted. What success says
    // differs from transport to transport: at least that the request left.
    virtual bool AddMatch(const char* rule) = 0;
    virtual bool RemoveMatch(const char* rule) = 0;
    // Empty when not connected.
    virtual std::string GetUniqueName() = 0;
    // Asks for a well-known name; how, differs from transport to transport. Success says that the request
    // left.
    virtual bool RequestName(const std::string& name) = 0;
    // Gives a well-known name back and waits for the bus to say so.
    virtual bool ReleaseName(const std::string& name) = 0;
    // Whether the question was answered; the answer goes to `hasOwner`, which is otherwise left as it was.
    // The time limit is as above.
    virtual bool BusHasOwner(const std::string& name, int timeoutMs, bool& hasOwner) = 0;
    // Makes the messages of this transport; lives as long as the connection.
    virtual TIIpcMessageAllocator* GetMessageAllocatorInstance() = 0;
};

} // namespace MavixApiLite

#endif
