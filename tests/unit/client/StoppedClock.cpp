#include "StoppedClock.h"

#include <atomic>
#include <ctime>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr long long nanosecondsPerSecond = 1000000000;
constexpr long long nanosecondsPerMillisecond = 1000000;

std::atomic<long long> stoppedAt{0}; // nanoseconds; 0 while the clock runs

} // namespace

#pragma GCC visibility push(default)

// In the place of the C library's, for the whole process.
extern "C" int clock_gettime(clockid_t clock, timespec* time) noexcept {
    const long long stopped = stoppedAt.load();
    if (clock == CLOCK_MONOTONIC && stopped != 0) {
        time->tv_sec = stopped / nanosecondsPerSecond;
        time->tv_nsec = stopped % nanosecondsPerSecond;
        return 0;
    }
    return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
}

#pragma GCC visibility pop

namespace MavixTest {

// At a whole millisecond, so that elapsed times are whole ones.
TCStoppedClock::TCStoppedClock() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const long long nanoseconds = now.tv_sec * nanosecondsPerSecond + now.tv_nsec;
    stoppedAt = nanoseconds / nanosecondsPerMillisecond * nanosecondsPerMillisecond;
}

TCStoppedClock::~TCStoppedClock() {
    stoppedAt = 0;
}

void TCStoppedClock::Advance(std::chrono::milliseconds time) {
    stoppedAt += time.count() * nanosecondsPerMillisecond;
}

unsigned long long TCStoppedClock::NowMs() const {
    return static_cast<unsigned long long>(stoppedAt / nanosecondsPerMillisecond);
}

} // namespace MavixTest
