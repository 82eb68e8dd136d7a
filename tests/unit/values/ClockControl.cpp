#include "ClockControl.h"

#include <cerrno>
#include <sys/syscall.h>
#include <unistd.h>

namespace MavixTest {

namespace {

TCClockControl* current = nullptr;

} // namespace

TCClockControl::TCClockControl() {
    current = this;
}

TCClockControl::~TCClockControl() {
    current = nullptr;
}

void TCClockControl::Freeze(time_t seconds, long nanoseconds) {
    getTime = [=](clockid_t, timespec* time) {
        *time = timespec{seconds, nanoseconds};
        return 0;
    };
}

} // namespace MavixTest

using MavixTest::current;

extern "C" int clock_gettime(clockid_t clock, timespec* time) noexcept {
    if (current != nullptr && current->getTime) {
        return current->getTime(clock, time);
    }
    return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
}

extern "C" int clock_nanosleep(clockid_t clock, int flags, const timespec* request, timespec* remain) {
    if (current != nullptr && current->nanoSleep) {
        return current->nanoSleep(clock, flags, request);
    }
    return syscall(SYS_clock_nanosleep, clock, flags, request, remain) == 0 ? 0 : errno;
}
