#include "LiteUtility.h"
#include "RecordingPlatform.h"
#include "VirtualClock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <pthread.h>
#include <thread>
#include <vector>

using namespace MavixTest;
using MavixApiLite::LiteUtility;

namespace {

constexpr unsigned long long largest = ~0ULL;

bool operator==(const timespec& left, const timespec& right) {
    return left.tv_sec == right.tv_sec && left.tv_nsec == right.tv_nsec;
}

} // namespace

TEST(LiteUtility, TimestampsConvertToMillisecondsAndAreNeverZero) {
    const struct {
        timespec time;
        unsigned long long ms;
    } rows[] = {
        {{0, 0}, 1},
        {{0, 999999}, 1},
        {{0, 1000000}, 1},
        {{0, 1999999}, 1},
        {{0, 2000000}, 2},
        {{2, 5000000}, 2005},
        {{1, 999999999}, 1999},
        {{4294967, 296000000}, 4294967296},
        {{10000000000, 0}, 10000000000000},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.ms, LiteUtility::TimestampInMiliseconds(row.time))
            << row.time.tv_sec << " s " << row.time.tv_nsec << " ns";
    }
}

TEST(LiteUtility, TimestampsConvertToMicrosecondsAndAreNeverZero) {
    const struct {
        timespec time;
        unsigned long long us;
    } rows[] = {
        {{0, 0}, 1},
        {{0, 999}, 1},
        {{0, 1000}, 1},
        {{0, 2000}, 2},
        {{2, 5000}, 2000005},
        {{1, 999999999}, 1999999},
        {{10000000000, 7999}, 10000000000000007},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.us, LiteUtility::TimestampInMicroseconds(row.time))
            << row.time.tv_sec << " s " << row.time.tv_nsec << " ns";
    }
}

TEST(LiteUtility, TimestampsCompareAcrossTheWrap) {
    const struct {
        unsigned long long a;
        unsigned long long b;
        int expected;
    } rows[] = {
        {5, 5, 0},
        {10, 3, 1},
        {3, 10, -1},
        {0, 0, 0},
        {largest, largest, 0},
        {largest, 1, -1},
        {1, largest, 1},
        {0x7FFFFFFFFFFFFFFE, 0, 1},
        {0, 0x7FFFFFFFFFFFFFFE, -1},
        {0x7FFFFFFFFFFFFFFF, 0, -1},
        {0, 0x7FFFFFFFFFFFFFFF, 1},
        {0x8000000000000000, 0, -1},
        {0, 0x8000000000000000, 1},
        {0x8000000000000005, 7, 1},
        {7, 0x8000000000000005, -1},
        {0x8000000000000006, 7, -1},
        {7, 0x8000000000000006, 1},
        {largest, 0x8000000000000000, -1},
        {largest, 0x8000000000000001, 1},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.expected, LiteUtility::CompareTimestampsMs(row.a, row.b)) << row.a << " and " << row.b;
        EXPECT_EQ(row.expected, LiteUtility::CompareTimestampsUs(row.a, row.b)) << row.a << " and " << row.b;
    }
}

TEST(LiteUtility, GetTimestampReadsTheMonotonicClock) {
    TCVirtualClock clock;
    std::vector<clockid_t> asked;
    clock.onGetTime = [&](clockid_t id, timespec* time) {
        asked.push_back(id);
        *time = timespec{1234, 567};
        return 0;
    };
    const timespec time = LiteUtility::GetTimestamp();
    EXPECT_TRUE((time == timespec{1234, 567})) << time.tv_sec << " s " << time.tv_nsec << " ns";
    EXPECT_EQ(std::vector<clockid_t>{CLOCK_MONOTONIC}, asked);
    EXPECT_TRUE(TCRecordingPlatform::Get().Lines().empty());
}

TEST(LiteUtility, GetTimestampIsZeroAndLogsWhenTheClockCannotBeRead) {
    {
        TCVirtualClock clock;
        clock.onGetTime = [](clockid_t, timespec* time) {
            *time = timespec{99, 99};
            return -1;
        };
        const timespec time = LiteUtility::GetTimestamp();
        EXPECT_TRUE((time == timespec{0, 0})) << time.tv_sec << " s " << time.tv_nsec << " ns";
    }
    const std::vector<LogLine> lines = TCRecordingPlatform::Get().Lines();
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ(6, lines[0].priority);
    EXPECT_EQ("MAVIX_API", lines[0].tag);
    EXPECT_EQ("LiteUtility", lines[0].source);
    EXPECT_EQ("GetTimestamp", lines[0].function);
    EXPECT_EQ("[LiteUtility] clock_gettime() failed, ret[-1]", lines[0].text);
}

TEST(LiteUtility, SleepMsSleepsUntilADeadlineOfTheMonotonicClock) {
    const struct {
        timespec now;
        unsigned long ms;
        timespec deadline;
    } rows[] = {
        {{10, 0}, 0, {10, 0}},
        {{10, 0}, 1, {10, 1000000}},
        {{10, 0}, 1500, {11, 500000000}},
        {{10, 500000000}, 1500, {12, 0}},
        {{10, 999999999}, 1, {11, 999999}},
        {{10, 999999999}, 999, {11, 998999999}},
        {{10, 1}, 3600000, {3610, 1}},
    };
    for (const auto& row : rows) {
        TCVirtualClock clock;
        clock.Set(row.now.tv_sec, row.now.tv_nsec);
        int sleeps = 0;
        clock.onNanoSleep = [&](clockid_t id, int flags, const timespec* request) {
            EXPECT_EQ(CLOCK_MONOTONIC, id);
            EXPECT_EQ(TIMER_ABSTIME, flags);
            EXPECT_TRUE(*request == row.deadline)
                << row.ms << " ms gave " << request->tv_sec << " s " << request->tv_nsec << " ns";
            ++sleeps;
            return 0;
        };
        LiteUtility::SleepMs(row.ms);
        EXPECT_EQ(1, sleeps) << row.ms << " ms";
    }
}

TEST(LiteUtility, SleepMsRepeatsTheSameDeadlineWhileSignalsInterrupt) {
    TCVirtualClock clock;
    clock.Set(20, 0);
    std::vector<timespec> deadlines;
    clock.onNanoSleep = [&](clockid_t, int, const timespec* request) {
        deadlines.push_back(*request);
        return deadlines.size() < 5 ? EINTR : 0;
    };
    LiteUtility::SleepMs(250);
    ASSERT_EQ(5u, deadlines.size());
    for (const timespec& deadline : deadlines) {
        EXPECT_TRUE((deadline == timespec{20, 250000000}));
    }
}

TEST(LiteUtility, SleepMsEndsOnAnyOtherError) {
    TCVirtualClock clock;
    int sleeps = 0;
    clock.onNanoSleep = [&](clockid_t, int, const timespec*) {
        ++sleeps;
        return EINVAL;
    };
    LiteUtility::SleepMs(250);
    EXPECT_EQ(1, sleeps);
}

namespace {

std::atomic<int> caughtSignals{0};

} // namespace

TEST(LiteUtility, SleepMsWaitsTheWholeTimeUnderSignals) {
    using Clock = std::chrono::steady_clock;
    caughtSignals = 0;
    struct sigaction action {};
    struct sigaction old {};
    action.sa_handler = [](int) { ++caughtSignals; };
    ASSERT_EQ(0, sigaction(SIGUSR1, &action, &old));
    std::atomic<bool> awake{false};
    const pthread_t sleeper = pthread_self();
    const Clock::time_point start = Clock::now();
    // Interruptions cannot lengthen the wait, or this would go on for as long as the signals do.
    std::thread interrupter([&] {
        while (!awake && Clock::now() - start < std::chrono::seconds(10)) {
            pthread_kill(sleeper, SIGUSR1);
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    });
    LiteUtility::SleepMs(1500);
    const Clock::duration slept = Clock::now() - start;
    awake = true;
    interrupter.join();
    sigaction(SIGUSR1, &old, nullptr);
    EXPECT_GE(slept, std::chrono::milliseconds(1500));
    EXPECT_LT(slept, std::chrono::milliseconds(5000));
    EXPECT_GE(caughtSignals, 10);
}
