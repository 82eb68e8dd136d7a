#ifndef MAVIX_TEST_STOPPED_CLOCK_H
#define MAVIX_TEST_STOPPED_CLOCK_H

#include <chrono>

namespace MavixTest {

// Stops the monotonic clock of this process, for the library, the standard library and GLib, and moves it
// only when told. Waits with a time limit do not end by it, so nothing may wait for long meanwhile.
class TCStoppedClock final {
public:
    TCStoppedClock();
    ~TCStoppedClock();
    TCStoppedClock(const TCStoppedClock&) = delete;
    TCStoppedClock& operator=(const TCStoppedClock&) = delete;

    void Advance(std::chrono::milliseconds time);
    unsigned long long NowMs() const;
};

} // namespace MavixTest

#endif
