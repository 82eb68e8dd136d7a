#ifndef MAVIX_TEST_VIRTUAL_CLOCK_H
#define MAVIX_TEST_VIRTUAL_CLOCK_H

#include <chrono>

namespace MavixTest {

// While one lives, the monotonic clock of the process stands still except where it is told to go on, and a
// sleep on it ends at once, having moved it. One at a time.
class TCVirtualClock final {
public:
    TCVirtualClock();
    ~TCVirtualClock();
    TCVirtualClock(const TCVirtualClock&) = delete;
    TCVirtualClock& operator=(const TCVirtualClock&) = delete;

    void Advance(std::chrono::milliseconds time);
    long long ElapsedMs() const;
};

} // namespace MavixTest

#endif
