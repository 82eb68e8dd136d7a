#include "WatchdogHandler.h"

#include "Log.h"

namespace MavixApiLite {

TCWatchdogHandler::TCWatchdogHandler() : m_notificationCounter(0) {}

TCWatchdogHandler::~TCWatchdogHandler() = default;

void TCWatchdogHandler::Register(int periodSeconds) {
    smart_deadlock_register_watchdog_service(periodSeconds);
}

void TCWatchdogHandler::Unregister() {
    smart_deadlock_unregister_watchdog_service();
}

void TCWatchdogHandler::Notify(const std::string& threadName) {
    constexpr std::int32_t silentNotifications = 3;
    smart_deadlock_watchdog_notify();
    if (++m_notificationCounter > silentNotifications) {
        m_notificationCounter = 0;
        MAVIX_LOGE("[%s] watchdog notify", threadName.c_str());
    }
}

} // namespace MavixApiLite
