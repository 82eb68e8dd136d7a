#include "ClockControl.h"

#include <dlfcn.h>

namespace MavixTest {

namespace {

TCClockControl* current = nullptr;

// The function that ours stands before.
template <class Function>
Function Next(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

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
    static const auto next = MavixTest::Next<int (*)(clockid_t, timespec*)>("clock_gettime");
    return next(clock, time);
}

extern "C" int clock_nanosleep(clockid_t clock, int flags, const timespec* request, timespec* remain) {
    if (current != nullptr && current->nanoSleep) {
        return current->nanoSleep(clock, flags, request);
    }
    static const auto next =
        MavixTest::Next<int (*)(clockid_t, int, const timespec*, timespec*)>("clock_nanosleep");
    return next(clock, flags, request, remain);
}
