#include "GMainLoopHandler.h"

#include "Guard.h"
#include "Log.h"
#include "MavixAssert.h"

#include <pthread.h>
#include <system_error>
#include <utility>

namespace MavixApiLite {

namespace {

// Quitting goes ahead of pending work; the watchdog must be heard under load.
constexpr gint urgentPriority = G_PRIORITY_HIGH;
// Quitting that lets pending work pass.
constexpr gint patientPriority = G_PRIORITY_LOW;

} // namespace

TCGMainLoopHandler::TCGMainLoopHandler(std::unique_ptr<TCWatchdogHandler> watchdogHandler)
    : m_pWatchdogHandler(std::move(watchdogHandler)) {
    MAVIX_ASSERT(m_pWatchdogHandler);
}

TCGMainLoopHandler::~TCGMainLoopHandler() {
    Stop(true);
}

GMainContext* TCGMainLoopHandler::Start(std::string threadName, int watchdogPeriodSeconds) {
    if (m_pGMainContext) {
        return m_pGMainContext.get();
    }
    m_threadName = std::move(threadName);
    m_pGMainContext.reset(g_main_context_new());
    MAVIX_ASSERT(m_pGMainContext);
    m_pGMainLoop.reset(g_main_loop_new(m_pGMainContext.get(), FALSE));
    MAVIX_ASSERT(m_pGMainLoop);
    try {
        m_thread = std::thread([this, watchdogPeriodSeconds] {
            GuardedRun(MAVIX_LOG_SOURCE_NAME, "m_RunLoop", __LINE__,
                       [this, watchdogPeriodSeconds] { m_RunLoop(watchdogPeriodSeconds); });
        });
    } catch (const std::system_error&) {
        // The system has no thread for us: there is nothing to stop.
        m_pGMainLoop.reset();
        m_pGMainContext.reset();
        throw;
    }
    return m_pGMainContext.get();
}

void TCGMainLoopHandler::Stop(bool highPriority) {
    if (!m_pGMainLoop) {
        return;
    }
    // Through the loop's own context: a quit before the loop runs would be lost.
    if (highPriority) {
        m_GTimeoutAdd(0, m_StopGMainLoop, m_pGMainLoop.get());
    } else {
        m_GIdleAdd(m_StopGMainLoop, m_pGMainLoop.get());
    }
    m_thread.join();
    m_pGMainLoop.reset();
    m_pGMainContext.reset();
}

void TCGMainLoopHandler::m_RunLoop(int watchdogPeriodSeconds) {
    constexpr int notificationsPerPeriod = 6;
    m_SetCurrentThreadName(m_threadName);
    if (m_pWatchdogHandler) {
        m_pWatchdogHandler->Register(watchdogPeriodSeconds);
    }
    WatchdogNotification notification{&m_threadName, m_pWatchdogHandler.get()};
    m_GTimeoutAdd(static_cast<guint>(watchdogPeriodSeconds * 1000 / notificationsPerPeriod), m_WatchdogNotify,
                  &notification);
    void* const loop = m_pGMainLoop.get();
    void* const context = m_pGMainContext.get();
    MAVIX_LOGE("Started main loop: 0x%p, context: 0x%p, thread name: %s", loop, context,
               m_threadName.c_str());
    g_main_loop_run(m_pGMainLoop.get());
    MAVIX_LOGE("Stopped main loop: 0x%p, context: 0x%p, thread name: %s", loop, context,
               m_threadName.c_str());
    if (m_pWatchdogHandler) {
        m_pWatchdogHandler->Unregister();
    }
}

guint TCGMainLoopHandler::m_GTimeoutAdd(guint intervalMs, GSourceFunc function, gpointer data) {
    if (!m_pGMainContext) {
        return 0;
    }
    // GLib prints the condition as it stands here.
    // NOLINTNEXTLINE(modernize-use-nullptr)
    g_return_val_if_fail(function != NULL, 0);
    return m_Attach(SourceHandle(g_timeout_source_new(intervalMs)), urgentPriority, function, data);
}

guint TCGMainLoopHandler::m_GIdleAdd(GSourceFunc function, gpointer data) {
    if (!m_pGMainContext) {
        return 0;
    }
    // GLib prints the condition as it stands here.
    // NOLINTNEXTLINE(modernize-use-nullptr)
    g_return_val_if_fail(function != NULL, 0);
    return m_Attach(SourceHandle(g_idle_source_new()), patientPriority, function, data);
}

guint TCGMainLoopHandler::m_Attach(SourceHandle source, gint priority, GSourceFunc function, gpointer data) {
    g_source_set_static_name(source.get(), "mavix-main-loop");
    g_source_set_priority(source.get(), priority);
    g_source_set_callback(source.get(), function, data, nullptr);
    return g_source_attach(source.get(), m_pGMainContext.get());
}

// The name by value belongs to the exported signature.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
void TCGMainLoopHandler::m_SetCurrentThreadName(std::string name) const {
    const int result = pthread_setname_np(pthread_self(), name.c_str());
    if (result != 0) {
        MAVIX_LOGE("failed to set %s name, result:%ld", name.c_str(), static_cast<long>(result));
    }
}

gboolean TCGMainLoopHandler::m_StopGMainLoop(void* loop) {
    MAVIX_LOGE("quiting main loop: 0x%p", loop);
    if (loop != nullptr) {
        g_main_loop_quit(static_cast<GMainLoop*>(loop));
    }
    return FALSE;
}

gboolean TCGMainLoopHandler::m_WatchdogNotify(void* data) {
    const auto* pNotificationData = static_cast<const WatchdogNotification*>(data);
    MAVIX_ASSERT(pNotificationData);
    TCWatchdogHandler* pWatchdogHandler =
        pNotificationData != nullptr ? pNotificationData->pWatchdogHandler : nullptr;
    const std::string* pThreadName = pNotificationData != nullptr ? pNotificationData->pThreadName : nullptr;
    MAVIX_ASSERT(pWatchdogHandler);
    MAVIX_ASSERT(pThreadName);
    if (pWatchdogHandler != nullptr && pThreadName != nullptr) {
        GuardedRun(MAVIX_LOG_SOURCE_NAME, __FUNCTION__, __LINE__,
                   [&] { pWatchdogHandler->Notify(*pThreadName); });
    }
    return TRUE;
}

} // namespace MavixApiLite
