#ifndef MAVIX_GMAIN_LOOP_HANDLER_H
#define MAVIX_GMAIN_LOOP_HANDLER_H

#include "Handles.h"
#include "WatchdogHandler.h"

#include <glib.h>

#include <memory>
#include <string>
#include <thread>

namespace MavixApiLite {

// Runs a main context and its loop on a thread of its own and tells the watchdog that the thread is alive.
// Start, Stop and destruction belong to the owner's thread, never to the loop's, and are not guarded against
// each other. The watchdog is touched by the loop's thread only.
class MAVIX_API_EXPORT TCGMainLoopHandler {
public:
    // A null watchdog is an assertion; on a release build the thread is then not watched.
    explicit TCGMainLoopHandler(std::unique_ptr<TCWatchdogHandler> watchdogHandler);
    ~TCGMainLoopHandler();
    TCGMainLoopHandler(const TCGMainLoopHandler&) = delete;
    TCGMainLoopHandler& operator=(const TCGMainLoopHandler&) = delete;

    // Starts the thread and returns its context (borrowed) at once; the loop may not be running yet. When
    // already started, returns the context and ignores the arguments. Names have at most 15 characters; a
    // longer one is logged and not set. Without a thread from the system it throws std::system_error and has
    // not started.
    GMainContext* Start(std::string threadName, int watchdogPeriodSeconds);
    // Quits the loop and joins the thread; with highPriority ahead of pending work, else after it.
    void Stop(bool highPriority);

private:
    friend struct TestAccess;

    struct WatchdogNotification {
        const std::string* pThreadName;
        TCWatchdogHandler* pWatchdogHandler;
    };

    void m_RunLoop(int watchdogPeriodSeconds);
    guint m_GTimeoutAdd(guint intervalMs, GSourceFunc function, gpointer data);
    guint m_GIdleAdd(GSourceFunc function, gpointer data);
    guint m_Attach(SourceHandle source, gint priority, GSourceFunc function, gpointer data);
    void m_SetCurrentThreadName(std::string name) const;
    static gboolean m_StopGMainLoop(void* loop);
    static gboolean m_WatchdogNotify(void* notification);

    MainContextHandle m_pGMainContext;
    MainLoopHandle m_pGMainLoop;
    std::string m_threadName;
    std::thread m_thread;
    std::unique_ptr<TCWatchdogHandler> m_pWatchdogHandler;
};

} // namespace MavixApiLite

#endif
