#ifndef MAVIX_GDBUS_CONNECTION_H
#define MAVIX_GDBUS_CONNECTION_H

#include "GMainLoopHandler.h"
#include "GSourceHandler.h"
#include "Handles.h"
#include "IpcConnection.h"

#include <gio/gio.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <pthread.h>
#include <string>
#include <thread>

namespace MavixApiLite {

// A connection over GIO. Connects once, on a thread of its own; when that fails an assertion is raised.
// Incoming method calls and signals go from GIO's worker through a queue to the dispatch thread, in order,
// and there to the owner. The mutex guards connect, the wait for it and clean-up; it is never held during a
// bus request.
//
// A process that has no bus is stopped shortly after Connect, unless it runs on a release build. A bus that
// accepts and stays silent makes everybody wait.
class MAVIX_API_EXPORT TCGdbusConnection : public TIIpcConnection, public TIIpcMessageAllocator {
public:
    TCGdbusConnection();
    ~TCGdbusConnection() override;
    TCGdbusConnection(const TCGdbusConnection&) = delete;
    TCGdbusConnection& operator=(const TCGdbusConnection&) = delete;

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

    // Waits, for at most 1 s, until everything accepted for sending has left; for a connection that the exit
    // of the process leaves open. Nothing before it is connected.
    void Flush();

    std::unique_ptr<TIIpcMessage> NewMessage(void* raw) override;
    void DeleteRawMessage(void* raw) override;
    void (*GetRawMessageDeleter())(void*) override;

protected:
    // A subclass that overrides one of these two calls t_CleanupConnection in its own destructor: the
    // connecting thread must not come to them when they are gone.
    virtual void t_SetConnectingThread(std::thread thread);
    // Called on the connecting thread when the connect failed.
    virtual void t_ConnectErrorHandler();
    void t_CleanupConnection();

private:
    friend struct TestAccess;

    void m_RunConnect(const std::string& name, TIIpcConnectionOwner* owner);
    bool m_Connect(const std::string& name, TIIpcConnectionOwner* owner);
    bool m_StartDispatching(const std::string& name, TIIpcConnectionOwner* owner);
    GDBusConnection* m_GetConnection();
    bool m_ApiCallable();
    bool m_SendBusRequest(const char* member, const char* argument, const std::uint32_t* flags);
    static bool m_InitializeBusRequest(TIIpcMessage& request, const char* member,
                                       const std::string& argument);
    void m_MessageHandler(TIIpcMessage& message);
    void m_AnswerUnhandled(TIIpcMessage& message);
    static GDBusMessage* m_MessageHandlerHelper(GDBusConnection* connection, GDBusMessage* message,
                                                gboolean incoming, gpointer data);

    ObjectHandle<GDBusConnection> m_connection;
    std::atomic<bool> m_connected; // set last by a successful connect
    std::thread m_connectingThread;
    std::atomic<pthread_t> m_connectingThreadId; // counts only while the connecting thread runs; 0 otherwise
    std::mutex m_mutex;
    std::unique_ptr<TCGMainLoopHandler> m_mainLoopHandler;
    std::unique_ptr<TCGSourceHandler> m_sourceHandler;
    guint m_filterId;
    TIIpcConnectionOwner* m_owner; // not owned; set while the filter is installed
};

} // namespace MavixApiLite

#endif
