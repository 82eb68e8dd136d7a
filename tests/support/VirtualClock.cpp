#include "VirtualClock.h"

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <sys/syscall.h>
#include <unistd.h>

namespace MavixTest {

namespace {

constexpr std::int64_t startNs = 1000000000000;

std::atomic<const TCVirtualClock*> current{nullptr};
std::atomic<std::int64_t> nowNs{startNs};

std::int64_t ToNs(const timespec& time) {
    return static_cast<std::int64_t>(time.tv_sec) * 1000000000 + time.tv_nsec;
}

void AdvanceTo(std::int64_t time) {
    std::int64_t now = nowNs;
    while (now < time && !nowNs.compare_exchange_weak(now, time)) {
    }
}

} // namespace

TCVirtualClock::TCVirtualClock() {
    nowNs = startNs;
    current = this;
}

TCVirtualClock::~TCVirtualClock() {
    current = nullptr;
}

void TCVirtualClock::Set(time_t seconds, long nanoseconds) {
    nowNs = ToNs(timespec{seconds, nanoseconds});
}

void TCVirtualClock::Advance(std::chrono::milliseconds time) {
    nowNs += std::chrono::nanoseconds(time).count();
}

long long TCVirtualClock::ElapsedMs() const {
    return (nowNs - startNs) / 1000000;
}

} // namespace MavixTest

// These stand before the C library's functions of the same name; the C++ library must find them too.
extern "C" {

__attribute__((visibility("default"))) int clock_gettime(clockid_t clock, timespec* time) noexcept {
    const MavixTest::TCVirtualClock* current = MavixTest::current;
    if (current != nullptr && current->onGetTime) {
        return current->onGetTime(clock, time);
    }
    if (current == nullptr || clock != CLOCK_MONOTONIC) {
        return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
    }
    const std::int64_t now = MavixTest::nowNs;
    time->tv_sec = static_cast<time_t>(now / 1000000000);
    time->tv_nsec = static_cast<long>(now % 1000000000);
    return 0;
}

__attribute__((visibility("default"))) int clock_nanosleep(clockid_t clock, int flags, const timespec* time,
                                                           timespec* left) {
    const MavixTest::TCVirtualClock* current = MavixTest::current;
    if (current != nullptr && current->onNanoSleep) {
        return current->onNanoSleep(clock, flags, time);
    }
    if (current == nullptr || clock != CLOCK_MONOTONIC) {
        return syscall(SYS_clock_nanosleep, clock, flags, time, left) == 0 ? 0 : errno;
    }
    const std::int64_t start = flags == TIMER_ABSTIME ? 0 : MavixTest::nowNs.load();
    MavixTest::AdvanceTo(start + MavixTest::ToNs(*time));
    return 0;
}

} // extern "C"
