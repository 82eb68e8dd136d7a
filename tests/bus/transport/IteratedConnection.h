#ifndef MAVIX_TEST_ITERATED_CONNECTION_H
#define MAVIX_TEST_ITERATED_CONNECTION_H

#include "DbusConnection.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <pthread.h>
#include <thread>

namespace MavixTest {

// While one lives, a thread of the test iterates the default context; all of them share it.
class TCDefaultContextThread final {
public:
    static constexpr const char* name = "DefaultContext";

    static std::shared_ptr<TCDefaultContextThread> Get() {
        static std::mutex& mutex = *new std::mutex;
        static auto& known = *new std::weak_ptr<TCDefaultContextThread>;
        const std::lock_guard<std::mutex> lock(mutex);
        std::shared_ptr<TCDefaultContextThread> thread = known.lock();
        if (!thread) {
            thread = std::make_shared<TCDefaultContextThread>();
            known = thread;
        }
        return thread;
    }

    // The context is made here, because making it is what GLib hands over unseen.
    TCDefaultContextThread() : m_context(g_main_context_default()) {
        m_thread = std::thread([this] {
            pthread_setname_np(pthread_self(), name);
            while (!m_done) {
                g_main_context_iteration(m_context, TRUE);
            }
        });
    }
    ~TCDefaultContextThread() {
        m_done = true;
        g_main_context_wakeup(m_context);
        m_thread.join();
    }

private:
    GMainContext* const m_context;
    std::atomic<bool> m_done{false};
    std::thread m_thread;
};

// A part of a connection that must outlive the rest of it.
struct IteratedDefaultContext {
    std::shared_ptr<TCDefaultContextThread> thread = TCDefaultContextThread::Get();
};

// A connection that is dispatched on the default context, which is iterated.
class TCIteratedDbusConnection final : private IteratedDefaultContext, public MavixApiLite::TCDbusConnection {
public:
    TCIteratedDbusConnection() : TCDbusConnection(1, true) {}
    // While this is still the whole object, because the connecting thread may use it until then.
    ~TCIteratedDbusConnection() override { t_CleanupConnection(); }
    TCIteratedDbusConnection(const TCIteratedDbusConnection&) = delete;
    TCIteratedDbusConnection& operator=(const TCIteratedDbusConnection&) = delete;
};

} // namespace MavixTest

#endif
