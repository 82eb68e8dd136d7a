#ifndef MAVIX_DBUS_DISPATCH_SOURCE_H
#define MAVIX_DBUS_DISPATCH_SOURCE_H

#include "Handles.h"

#include <dbus/dbus.h>

#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

namespace MavixApiLite {

struct SignalSemaphore;
class TCDbusWaitingCall;

// Dispatches a libdbus connection on a main context: dbus-glib's sources live on an inner context, which this
// source iterates under one lock, free while the dispatch context polls and while a message is with the
// connection's owner. Also gives calls that wait their end when the bus is lost. Kept in a data slot of the
// connection. Nothing under the lock calls back into the library, except to signal a semaphore.
class TCDbusDispatchSource final {
public:
    // Dispatches on `context`, or on the default context. False when memory has run out.
    static bool Attach(DBusConnection* connection, GMainContext* context);
    // Waits for the message in work, unless called by its filter; from then on nothing is dispatched.
    static void Detach(DBusConnection* connection);

    TCDbusDispatchSource(const TCDbusDispatchSource&) = delete;
    TCDbusDispatchSource& operator=(const TCDbusDispatchSource&) = delete;

private:
    friend class TCDbusSendLock;
    friend class TCDbusDispatchUnlock;
    friend class TCDbusWaitingCall;

    struct Record; // the GSource
    struct Watched {
        int fd;
        gushort events;
        gpointer tag;
    };

    explicit TCDbusDispatchSource(GSource* source);
    ~TCDbusDispatchSource() = default;

    static TCDbusDispatchSource* m_Of(DBusConnection* connection);
    static TCDbusDispatchSource& m_Self(GSource* source);
    static gboolean m_Prepare(GSource* source, gint* timeout) noexcept;
    static gboolean m_Check(GSource* source) noexcept;
    static gboolean m_Dispatch(GSource* source, GSourceFunc callback, gpointer data) noexcept;
    static void m_Finalize(GSource* source) noexcept;

    static DBusHandlerResult m_TakeLostReply(DBusConnection* connection, DBusMessage* message, void* data);

    gint m_PrepareInner();
    void m_WatchWhatInnerPolls();

    GSource* const m_source; // owns this object
    const MainContextHandle m_inner;
    std::mutex m_lock; // guards what follows, the inner context and dbus-glib's records of the connection
    std::condition_variable m_dispatched;
    std::thread::id m_dispatchingThread;
    bool m_detached = false;
    gint m_priority = 0;
    gint64 m_pollEnd = 0; // when the dispatch context looks at the timeouts again, at the latest
    std::vector<GPollFD> m_polled;
    std::vector<Watched> m_watched;
    std::map<dbus_uint32_t, TCDbusWaitingCall*> m_waitingCalls; // by number
};

// Held around calls into libdbus that send, or that change what a connection watches. Does nothing for a
// connection without dispatch source.
class TCDbusSendLock final {
public:
    explicit TCDbusSendLock(DBusConnection* connection);
    TCDbusSendLock(const TCDbusSendLock&) = delete;
    TCDbusSendLock& operator=(const TCDbusSendLock&) = delete;

private:
    TCDbusDispatchSource* const m_dispatchSource;
    std::unique_lock<std::mutex> m_lock;
};

// A synchronous call, from before it is sent until its reply is there. Lives on the calling thread's stack.
class TCDbusWaitingCall final {
public:
    TCDbusWaitingCall(DBusConnection* connection, SignalSemaphore& semaphore);
    ~TCDbusWaitingCall();
    TCDbusWaitingCall(const TCDbusWaitingCall&) = delete;
    TCDbusWaitingCall& operator=(const TCDbusWaitingCall&) = delete;

    // To be called right after sending, under the same lock. Makes sure that the dispatch context looks at
    // the call's time limit in time; -1 is libdbus's default.
    void Begin(dbus_uint32_t number, int timeoutMs);
    // The reply that came because the bus was lost, with one reference for the caller; null otherwise.
    DBusMessage* TakeLostReply();

private:
    friend class TCDbusDispatchSource;

    TCDbusDispatchSource* const m_dispatchSource;
    SignalSemaphore& m_semaphore;
    dbus_uint32_t m_number = 0;
    DbusMessageHandle m_lostReply; // guarded by the lock of the dispatch source
};

// Held in a filter while it runs code of others: the lock of the connection's dispatch source is free.
class TCDbusDispatchUnlock final {
public:
    explicit TCDbusDispatchUnlock(DBusConnection* connection);
    ~TCDbusDispatchUnlock();
    TCDbusDispatchUnlock(const TCDbusDispatchUnlock&) = delete;
    TCDbusDispatchUnlock& operator=(const TCDbusDispatchUnlock&) = delete;

private:
    TCDbusDispatchSource* const m_dispatchSource;
};

} // namespace MavixApiLite

#endif
