#ifndef MAVIX_TEST_MAIN_LOOP_FIXTURE_H
#define MAVIX_TEST_MAIN_LOOP_FIXTURE_H

#include "Await.h"
#include "GMainLoopHandler.h"
#include "GlibLog.h"
#include "RecordingPlatform.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <pthread.h>
#include <string>
#include <vector>

namespace MavixApiLite {

struct TestAccess {
    using Notification = TCGMainLoopHandler::WatchdogNotification;

    static GMainContext* Context(TCGMainLoopHandler& handler) { return handler.m_pGMainContext.get(); }
    static GMainLoop* Loop(TCGMainLoopHandler& handler) { return handler.m_pGMainLoop.get(); }
    static std::thread& Thread(TCGMainLoopHandler& handler) { return handler.m_thread; }
    static guint TimeoutAdd(TCGMainLoopHandler& handler, guint interval, GSourceFunc function,
                            gpointer data) {
        return handler.m_GTimeoutAdd(interval, function, data);
    }
    static guint IdleAdd(TCGMainLoopHandler& handler, GSourceFunc function, gpointer data) {
        return handler.m_GIdleAdd(function, data);
    }
    static gboolean StopLoop(void* loop) { return TCGMainLoopHandler::m_StopGMainLoop(loop); }
    static gboolean WatchdogNotify(Notification* record) {
        return TCGMainLoopHandler::m_WatchdogNotify(record);
    }
};

} // namespace MavixApiLite

namespace MavixTest {

using MavixApiLite::MainContextHandle;
using MavixApiLite::SourceHandle;
using MavixApiLite::TCGMainLoopHandler;
using MavixApiLite::TCWatchdogHandler;
using MavixApiLite::TestAccess;

// What one loop thread told its watchdog, and who did. Any thread.
class WatchdogRecord final {
public:
    void Add(const std::string& call) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_calls.push_back(call);
        m_threads.push_back(pthread_self());
    }
    std::vector<std::string> Calls() const {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_calls;
    }
    std::size_t Count(const std::string& call) const {
        const std::vector<std::string> calls = Calls();
        return static_cast<std::size_t>(std::count(calls.begin(), calls.end(), call));
    }
    bool AllOn(pthread_t thread) const {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return std::all_of(m_threads.begin(), m_threads.end(),
                           [thread](pthread_t each) { return pthread_equal(each, thread) != 0; });
    }

private:
    mutable std::mutex m_mutex;
    std::vector<std::string> m_calls;
    std::vector<pthread_t> m_threads;
};

class RecordingWatchdog final : public TCWatchdogHandler {
public:
    explicit RecordingWatchdog(WatchdogRecord& record) : m_record(record) {}
    ~RecordingWatchdog() override { m_record.Add("destroyed"); }
    void Register(int periodSeconds) override {
        m_record.Add("Register(" + std::to_string(periodSeconds) + ")");
    }
    void Unregister() override { m_record.Add("Unregister()"); }
    void Notify(const std::string& threadName) override { m_record.Add("Notify(" + threadName + ")"); }

private:
    WatchdogRecord& m_record;
};

// Runs a function on a running loop's thread, ahead of everything else, and waits for it.
inline void RunOn(GMainContext* context, std::function<void()> function) {
    struct Job {
        std::function<void()> function;
        std::promise<void> done;
    };
    auto* job = new Job{std::move(function), {}};
    std::future<void> done = job->done.get_future();
    g_main_context_invoke_full(
        context, G_PRIORITY_HIGH - 1,
        [](gpointer data) -> gboolean {
            static_cast<Job*>(data)->function();
            static_cast<Job*>(data)->done.set_value();
            return FALSE;
        },
        job, [](gpointer data) { delete static_cast<Job*>(data); });
    ASSERT_EQ(std::future_status::ready, done.wait_for(std::chrono::seconds(30)));
}

inline std::string LoopText(const char* start, const void* pointer) {
    char text[64];
    std::snprintf(text, sizeof text, "%s0x%p", start, pointer);
    return text;
}

// A handler with a watchdog that records.
class MainLoopFixture : public testing::Test {
protected:
    static constexpr int period = 30;

    std::unique_ptr<TCGMainLoopHandler> m_New() {
        return std::make_unique<TCGMainLoopHandler>(std::make_unique<RecordingWatchdog>(m_watchdog));
    }
    // Starts the handler and waits until its loop runs.
    GMainContext* m_StartAndWait(const std::string& name = "TestLoop", int seconds = period) {
        GMainContext* const context = m_handler->Start(name, seconds);
        EXPECT_NE(nullptr, context);
        RunOn(context, [] {});
        return context;
    }

    TCGlibLog m_complaints;
    TCRecordingPlatform& m_platform = TCRecordingPlatform::Get();
    WatchdogRecord m_watchdog;
    std::unique_ptr<TCGMainLoopHandler> m_handler = m_New();
};

} // namespace MavixTest

#endif
