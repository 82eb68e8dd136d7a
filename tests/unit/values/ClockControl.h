#ifndef MAVIX_TEST_CLOCK_CONTROL_H
#define MAVIX_TEST_CLOCK_CONTROL_H

#include <ctime>
#include <functional>

namespace MavixTest {

// The clock of a test program that links this: it defines clock_gettime and clock_nanosleep, which are the
// system's own unless a test says otherwise. Owner: the one thread of the test; the system's clock comes back
// at the end of the scope.
class TCClockControl final {
public:
    using GetTime = std::function<int(clockid_t clock, timespec* time)>;
    using NanoSleep = std::function<int(clockid_t clock, int flags, const timespec* request)>;

    TCClockControl();
    ~TCClockControl();
    TCClockControl(const TCClockControl&) = delete;
    TCClockControl& operator=(const TCClockControl&) = delete;

    // Stops the clock at a time.
    void Freeze(time_t seconds, long nanoseconds);

    GetTime getTime;
    NanoSleep nanoSleep;
};

} // namespace MavixTest

#endif
