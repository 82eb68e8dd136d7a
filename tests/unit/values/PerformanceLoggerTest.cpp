#include "PerformanceLogger.h"
#include "FlavourFixture.h"
#include "VirtualClock.h"

#include <gtest/gtest.h>

#include <cstdio>

using namespace MavixTest;
using MavixApiLite::PerformanceLogger;

namespace MavixApiLite {

struct TestAccess {
    static void Print(const PerformanceLogger& logger) {
        std::printf("[%s][%lld][%s][%d]\n", logger.m_message, static_cast<long long>(logger.m_startSeconds),
                    logger.m_file.c_str(), logger.m_line);
    }
};

} // namespace MavixApiLite

namespace {

class PerformanceLoggerInAFlavour : public FlavourFixture {};

// What the child named "LiveFor" does, and whether its logger reports.
ChildResult LiveFor(unsigned int flavour, const std::string& startSeconds, const std::string& startNs,
                    const std::string& endSeconds, const std::string& endNs) {
    return RunChildProgram("LiveFor", flavour, {startSeconds, startNs, endSeconds, endNs});
}

} // namespace

MAVIX_CHILD(LiveFor) {
    TCVirtualClock clock;
    clock.Set(std::stol(arguments[0]), std::stol(arguments[1]));
    {
        const PerformanceLogger logger("IpcClient", 42, "waiting for %s, %d", "the bus", 7);
        clock.Set(std::stol(arguments[2]), std::stol(arguments[3]));
    }
    return 0;
}

MAVIX_CHILD(PrintFields) {
    TCVirtualClock clock;
    clock.Set(1234, 999999999);
    const PerformanceLogger logger("IpcClient", 42, "waiting for %s, %d", "the bus", 7);
    MavixApiLite::TestAccess::Print(logger);
    return 0;
}

MAVIX_CHILD(LongMessage) {
    TCVirtualClock clock;
    clock.Set(10, 0);
    const PerformanceLogger logger("IpcClient", 42, "%s", std::string(126, 'a').append("bcd").c_str());
    clock.Set(20, 0);
    return 0;
}

TEST_F(PerformanceLoggerInAFlavour, ReportsALifeOfMoreThanFourWholeSecondsInTheDebugFlavour) {
    const struct {
        const char* startSeconds;
        const char* startNs;
        const char* endSeconds;
        const char* endNs;
        int reported; // 0: not at all
    } rows[] = {
        {"10", "0", "10", "0", 0},
        {"10", "0", "14", "900000000", 0},
        {"10", "0", "14", "990000000", 0},
        {"10", "0", "14", "999999999", 0},
        {"10", "0", "15", "0", 5},
        {"10", "500000000", "15", "500000000", 5},
        {"10", "999999999", "15", "999999999", 5},
        // The whole seconds of the clock count, not the time between.
        {"10", "900000000", "15", "0", 5},
        {"10", "0", "71", "0", 61},
        // A clock that could not be read at the end.
        {"10", "0", "0", "0", 0},
    };
    for (const auto& row : rows) {
        const ChildResult result =
            LiveFor(debugFlavour, row.startSeconds, row.startNs, row.endSeconds, row.endNs);
        const std::string line =
            "[IpcClient][42] waiting for the bus, 7, took too long = " + std::to_string(row.reported) +
            " seconds";
        EXPECT_EQ(0, result.exitCode) << result.errors;
        EXPECT_EQ(row.reported != 0 ? "6|MAVIX_API|PerformanceLogger: ~PerformanceLogger|" + line + "\n" : "",
                  result.errors)
            << row.startSeconds << "." << row.startNs << " to " << row.endSeconds << "." << row.endNs;
    }
}

TEST_F(PerformanceLoggerInAFlavour, IsSilentInEveryOtherFlavour) {
    for (const unsigned int flavour :
         {+plainFlavour, +releaseFlavour, +perfFlavour, perfFlavour | releaseFlavour}) {
        const ChildResult result = LiveFor(flavour, "10", "0", "1000", "0");
        EXPECT_EQ(0, result.exitCode) << flavour << ": " << result.errors;
        EXPECT_EQ("", result.errors) << flavour;
    }
}

TEST_F(PerformanceLoggerInAFlavour, KeepsMessageStartFileAndLineInTheDebugFlavour) {
    const ChildResult result = RunChildProgram("PrintFields", debugFlavour);
    EXPECT_EQ("[waiting for the bus, 7][1234][IpcClient][42]\n", result.output) << result.errors;
}

TEST_F(PerformanceLoggerInAFlavour, LeavesItsFieldsEmptyInEveryOtherFlavour) {
    const ChildResult result = RunChildProgram("PrintFields");
    EXPECT_EQ("[][0][][0]\n", result.output) << result.errors;
}

TEST_F(PerformanceLoggerInAFlavour, CutsItsMessageAt127Characters) {
    const ChildResult result = RunChildProgram("LongMessage", debugFlavour);
    EXPECT_TRUE(
        result.HasLine(6, "[IpcClient][42] " + std::string(126, 'a') + "b, took too long = 10 seconds"))
        << result.errors;
}
