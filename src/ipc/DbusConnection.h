#ifndef MAVIX_DBUS_CONNECTION_H
#define MAVIX_DBUS_CONNECTION_H

#include "GMainLoopHandler.h"
#include "Handles.h"
#include "IpcConnection.h"

#include <dbus/dbus.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <pthread.h>
#include <string>
#include <thread>

namespace MavixApiLite {

// A connection over libdbus. Connects on a thread of its own, with a second between attempts; 60 failed ones
// raise an assertion, any other number ends in a log line. Incoming messages of every type go to the owner,
// on a dispatch thread of the connection's own or on the thread that iterates the default context. The mutex
// guards connect, the wait for it and clean-up; it is never held during a bus request.
//
// SendWithReply and BusHasOwner wait for ever on the thread that dispatches, which would have to wake them.
// AddMatch does not wait for the bus; RemoveMatch and ReleaseName do, on any thread. GetUniqueName throws
// std::logic_error when the bus gave none.
class MAVIX_API_EXPORT TCDbusConnection : public TIIpcConnection, public TIIpcMessageAllocator {
public:
    // At least one attempt is made. With useDefaultContext everything is dispatched on the process's default
    // main context; whoever iterates it must not stop before the connection is destroyed.
    TCDbusConnection(int maxAttempts, bool useDefaultContext);
    ~TCDbusConnection() override;
    TCDbusConnection(const TCDbusConnection&) = delete;
    TCDbusConnection& operator=(const TCDbusConnection&) = delete;

    bool Connect(std::string name, TIIpcConnectionOwner* owner) override;
    bool WaitConnected() override;
    bool Send(TIIpcMessage& message) override;
    bool SendWithReply(TIIpcMessage& message, int timeoutMs) override;
    bool AddMatch(const char* rule) override;
    bool RemoveMatch(const char* rule) override;
    std::string GetUniqueName() override;
    bool RequestName(const std::string& name) override;
    bool ReleaseName(const std::string& name) override;
    bool BusHasOwner(const std::string& name, int timeoutMs, bool& hasOwner) override;
    TIIpcMessageAllocator* GetMessageAllocatorInstance() override;

    std::unique_ptr<TIIpcMessage> NewMessage(void* raw) override;
    void DeleteRawMessage(void* raw) override;
    void (*GetRawMessageDeleter())(void*) override;

protected:
    void t_CleanupConnection();

private:
    friend struct TestAccess;

    void m_RunConnect(const std::string& name, TIIpcConnectionOwner* owner);
    bool m_Connect(std::string name, TIIpcConnectionOwner* owner);
    bool m_StartDispatching(const std::string& name, TIIpcConnectionOwner* owner);
    void m_Close();
    DBusConnection* m_GetConnection();
    bool m_ApiCallable();
    bool m_HandleMessage(DBusMessage* raw);
    static DBusHandlerResult m_MessageHandlerHelper(DBusConnection* connection, DBusMessage* message,
                                                    void* data);

    std::int32_t m_maxAttempts;
    std::mutex m_mutex;
    std::thread m_connectingThread;
    std::atomic<pthread_t> m_connectingThreadId; // counts only while the connecting thread runs; 0 otherwise
    std::atomic<bool> m_connected;               // set last by a successful connect
    DbusConnectionHandle m_connection;
    std::unique_ptr<TCGMainLoopHandler> m_mainLoopHandler; // absent when the default context is used
    bool m_useDefaultContext;
    std::atomic<TIIpcConnectionOwner*> m_owner; // not owned; set while the filter is installed
};

} // namespace MavixApiLite

#endif
