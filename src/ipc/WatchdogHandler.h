#ifndef MAVIX_WATCHDOG_HANDLER_H
#define MAVIX_WATCHDOG_HANDLER_H

#include "Export.h"

#include <cstdint>
#include <string>

namespace MavixApiLite {

// Link of one loop thread to the platform's watchdog. Owned by its main-loop handler; used on that thread
// only.
class MAVIX_API_EXPORT TCWatchdogHandler {
public:
    TCWatchdogHandler();
    virtual ~TCWatchdogHandler();
    TCWatchdogHandler(const TCWatchdogHandler&) = delete;
    TCWatchdogHandler& operator=(const TCWatchdogHandler&) = delete;

    // The calling thread promises a notification at least every `periodSeconds`.
    virtual void Register(int periodSeconds);
    // Ends that promise.
    virtual void Unregister();
    // The calling thread is alive. Every fourth time it is logged under `threadName`.
    virtual void Notify(const std::string& threadName);

private:
    friend struct TestAccess;

    std::int32_t m_notificationCounter;
};

} // namespace MavixApiLite

#endif
