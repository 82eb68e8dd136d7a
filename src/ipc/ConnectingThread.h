#ifndef MAVIX_CONNECTING_THREAD_H
#define MAVIX_CONNECTING_THREAD_H

#include "Log.h"

#include <atomic>
#include <mutex>
#include <pthread.h>
#include <thread>

namespace MavixApiLite {

// What connections that connect on a thread of their own have in common. The fields are those of the
// connection; `source` names it in log lines.

// While one lives on the connecting thread, that thread is known by its id. Ids are reused, so they count
// only while their thread runs.
class TCConnectingThreadId final {
public:
    explicit TCConnectingThreadId(std::atomic<pthread_t>& id) : m_id(id) { m_id.store(pthread_self()); }
    ~TCConnectingThreadId() { m_id.store(pthread_t{}); }
    TCConnectingThreadId(const TCConnectingThreadId&) = delete;
    TCConnectingThreadId& operator=(const TCConnectingThreadId&) = delete;

private:
    std::atomic<pthread_t>& m_id;
};

// Whether the caller is the connecting thread, which must not wait for itself. Tells without the mutex, which
// others hold while they join that thread.
inline bool IsConnectingThread(const std::atomic<pthread_t>& id, const char* source) {
    if (pthread_equal(id.load(), pthread_self()) == 0) {
        return false;
    }
    MAVIX_LOG_AS(MAVIX_LOG_DEBUG, source, "m_ApiCallable", "Called from initializer. Do not block here");
    return true;
}

// Waits until connecting has ended; the raw connection, or null. The mutex is held while the thread is
// joined.
template <class Connection>
auto AwaitConnection(std::mutex& mutex, std::thread& thread, const std::atomic<bool>& connected,
                     const Connection& connection, const char* source) {
    constexpr const char* function = "m_GetConnection";
    if (connected) {
        return connection.get();
    }
    const std::lock_guard<std::mutex> lock(mutex);
    if (!connected) {
        if (!thread.joinable()) {
            MAVIX_LOG_AS(MAVIX_LOG_ERROR, source, function, "[API_LITE] called without prior Connect");
            return decltype(connection.get())();
        }
        MAVIX_LOG_AS(MAVIX_LOG_INFO, source, function, "[API_LITE][START] Wait for DBUS connection");
        thread.join();
        MAVIX_LOG_AS(MAVIX_LOG_INFO, source, function, "[API_LITE][END] Wait for DBUS connection %p",
                     static_cast<void*>(connection.get()));
    }
    return connection.get();
}

} // namespace MavixApiLite

#endif
