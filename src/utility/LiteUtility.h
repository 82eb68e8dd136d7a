#ifndef MAVIX_LITE_UTILITY_H
#define MAVIX_LITE_UTILITY_H

#include "Export.h"

#include <atomic>
#include <cstdint>
#include <ctime>

namespace MavixApiLite {

// Monotonic time, sleep and the device's build flavour. All functions may be called from any thread.
class MAVIX_API_EXPORT LiteUtility {
public:
    // Time of the monotonic clock; zero, and an error line, when the clock cannot be read.
    static timespec GetTimestamp();

    // Convert a time to milliseconds or microseconds. Never 0: 0 stands for "no timestamp", so 1 is given.
    static unsigned long long TimestampInMiliseconds(const timespec& time);
    static unsigned long long TimestampInMicroseconds(const timespec& time);

    // Compare two timestamps, wrap-aware: -1 when a is earlier than b, 0 when equal, 1 when later.
    static int CompareTimestampsMs(unsigned long long a, unsigned long long b);
    static int CompareTimestampsUs(unsigned long long a, unsigned long long b);

    // Sleeps for the whole time, however often signals interrupt it.
    static void SleepMs(unsigned long ms);

    // Whether the marker file /etc/debug, /etc/perf or /etc/release exists. Each file is looked at once per
    // process; creating or removing it later changes nothing.
    static bool IsDebug();
    static bool IsPerf();
    static bool IsRelease();

private:
    friend struct TestAccess;

    static bool m_ReadFlag(std::atomic<std::int32_t>& flag, const char* markerFile);

    static std::atomic<std::int32_t> m_isDebug;
    static std::atomic<std::int32_t> m_isPerf;
    static std::atomic<std::int32_t> m_isRelease;
};

} // namespace MavixApiLite

#endif
