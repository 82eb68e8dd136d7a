#include "LiteUtility.h"

#include "Log.h"

#include <cerrno>
#include <unistd.h>

namespace MavixApiLite {

namespace {

constexpr long nanosecondsPerSecond = 1000000000L;
constexpr std::int32_t flagNotRead = -1;

int CompareWrapping(unsigned long long a, unsigned long long b) {
    constexpr unsigned long long farthest = 0x7FFFFFFFFFFFFFFEULL;
    if (a == b) {
        return 0;
    }
    if (a > b) {
        return a - b <= farthest ? 1 : -1;
    }
    return b - a <= farthest ? -1 : 1;
}

} // namespace

std::atomic<std::int32_t> LiteUtility::m_isDebug{flagNotRead};
std::atomic<std::int32_t> LiteUtility::m_isPerf{flagNotRead};
std::atomic<std::int32_t> LiteUtility::m_isRelease{flagNotRead};

timespec LiteUtility::GetTimestamp() {
    timespec time{};
    const int result = clock_gettime(CLOCK_MONOTONIC, &time);
    if (result != 0) {
        MAVIX_LOGE("[LiteUtility] clock_gettime() failed, ret[%d]", result);
        return timespec{};
    }
    return time;
}

unsigned long long LiteUtility::TimestampInMiliseconds(const timespec& time) {
    const unsigned long long ms = static_cast<unsigned long long>(time.tv_sec) * 1000ULL +
                                  static_cast<unsigned long long>(time.tv_nsec) / 1000000ULL;
    return ms != 0 ? ms : 1;
}

unsigned long long LiteUtility::TimestampInMicroseconds(const timespec& time) {
    const unsigned long long us = static_cast<unsigned long long>(time.tv_sec) * 1000000ULL +
                                  static_cast<unsigned long long>(time.tv_nsec) / 1000ULL;
    return us != 0 ? us : 1;
}

int LiteUtility::CompareTimestampsMs(unsigned long long a, unsigned long long b) {
    return CompareWrapping(a, b);
}

int LiteUtility::CompareTimestampsUs(unsigned long long a, unsigned long long b) {
    return CompareWrapping(a, b);
}

void LiteUtility::SleepMs(unsigned long ms) {
    timespec deadline = GetTimestamp();
    deadline.tv_sec += static_cast<time_t>(ms / 1000UL);
    deadline.tv_nsec += static_cast<long>(ms % 1000UL) * 1000000L;
    if (deadline.tv_nsec >= nanosecondsPerSecond) {
        deadline.tv_nsec -= nanosecondsPerSecond;
        ++deadline.tv_sec;
    }
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr) == EINTR) {
    }
}

bool LiteUtility::IsDebug() {
    return m_ReadFlag(m_isDebug, "/etc/debug");
}

bool LiteUtility::IsPerf() {
    return m_ReadFlag(m_isPerf, "/etc/perf");
}

bool LiteUtility::IsRelease() {
    return m_ReadFlag(m_isRelease, "/etc/release");
}

bool LiteUtility::m_ReadFlag(std::atomic<std::int32_t>& flag, const char* markerFile) {
    const std::int32_t known = flag.load(std::memory_order_relaxed);
    if (known != flagNotRead) {
        return known == 1;
    }
    const std::int32_t found = access(markerFile, F_OK) == 0 ? 1 : 0;
    flag.exchange(found);
    return found == 1;
}

} // namespace MavixApiLite
