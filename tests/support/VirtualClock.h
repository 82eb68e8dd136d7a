#ifndef MAVIX_TEST_VIRTUAL_CLOCK_H
#define MAVIX_TEST_VIRTUAL_CLOCK_H

#include <chrono>
#include <ctime>
#include <functional>

namespace MavixTest {

// While one lives, the monotonic clock of the process stands still except where it is told to go on, and a
// sleep on it ends at once, having moved it. One at a time; any thread may ask the clock.
class TCVirtualClock final {
public:
    using GetTime = std::function<int(clockid_t clock, timespec* time)>;
    using NanoSleep = std::function<int(clockid_t clock, int flags, const timespec* request)>;

    TCVirtualClock();
    ~TCVirtualClock();
    TCVirtualClock(const TCVirtualClock&) = delete;
    TCVirtualClock& operator=(const TCVirtualClock&) = delete;

    void Set(time_t seconds, long nanoseconds);
    void Advance(std::chrono::milliseconds time);
    long long ElapsedMs() const;

    // Where set, they answer for every clock in place of the above. Set them before other threads ask.
    GetTime onGetTime;
    NanoSleep onNanoSleep;
};

} // namespace MavixTest

#endif
