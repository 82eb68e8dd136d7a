#define MAVIX_SOURCE "ipc/AssertUser"

#include "MavixAssert.h"
#include "FlavourFixture.h"
#include "RecordingPlatform.h"
#include "VirtualClock.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>

using namespace MavixTest;

namespace {

class Assertion : public FlavourFixture {};

int evaluations = 0;

bool Check(bool result) {
    ++evaluations;
    return result;
}

int LeaveWithResult(bool good) {
    MAVIX_ASSERT_RETURN(Check(good), "good == true", -7);
    return 1;
}

void Leave(bool good, bool& passed) {
    MAVIX_ASSERT_LEAVE(Check(good), "good == true");
    passed = true;
}

// Says when the assertion sleeps, for how long and how much of the log was written by then.
void ShowSleeps(TCVirtualClock& clock) {
    clock.Set(100, 0);
    clock.onNanoSleep = [](clockid_t, int, const timespec* request) {
        std::printf("slept %ld ms after %zu lines\n",
                    (request->tv_sec - 100) * 1000 + request->tv_nsec / 1000000,
                    TCRecordingPlatform::Get().Lines().size());
        std::fflush(stdout);
        return 0;
    };
}

} // namespace

MAVIX_CHILD(FailBare) {
    TCVirtualClock clock;
    ShowSleeps(clock);
    std::printf("returned %d\n",
                MavixApiLite::_TCApiAssert("a > b", "../../../src/ipc/Some", 4294967296UL, nullptr));
    return 0;
}

MAVIX_CHILD(FailWithAMessage) {
    TCVirtualClock clock;
    ShowSleeps(clock);
    std::printf("returned %d\n",
                MavixApiLite::_TCApiAssert("a > b", "../../../src/ipc/Some", 12, "a is small"));
    return 0;
}

MAVIX_CHILD(UseTheForms) {
    bool passed = false;
    if (Check(false))
        MAVIX_ASSERT(Check(true));
    else
        MAVIX_ASSERT(evaluations == 99);
    MAVIX_ASSERT_TEXT(Check(false), "(int) other text");
    MAVIX_ASSERT_MESSAGE(evaluations == 98, "one more");
    std::printf("carried on after %d evaluations\n", evaluations);
    std::printf("left with %d\n", LeaveWithResult(false));
    Leave(false, passed);
    std::printf("passed: %d\n", passed);
    MAVIX_ASSERT_PRINT("TheFunction", "false");
    std::printf("evaluated %d times\n", evaluations);
    return 0;
}

MAVIX_CHILD(LeaveAFunction) {
    return LeaveWithResult(false);
}

TEST_F(Assertion, AbortsAfterItsLineAnd100MillisecondsUnlessTheDeviceIsARelease) {
    for (const unsigned int flavour : {+plainFlavour, +debugFlavour, +perfFlavour}) {
        const ChildResult result = RunChildProgram("FailBare", flavour);
        EXPECT_EQ(SIGABRT, result.signal) << flavour << ": " << result.errors;
        EXPECT_EQ("6|MAVIX_API|MavixAssert: TCApiPrintMessage|"
                  "MAVIX Assertion failed [../../../src/ipc/Some:4294967296:a > b]\n",
                  result.errors);
        EXPECT_EQ("slept 100 ms after 1 lines\n", result.output) << flavour;
    }
}

TEST_F(Assertion, ReturnsTrueAfterItsLineAnd100MillisecondsOnARelease) {
    for (const unsigned int flavour : {+releaseFlavour, releaseFlavour | debugFlavour}) {
        const ChildResult result = RunChildProgram("FailBare", flavour);
        EXPECT_EQ(0, result.exitCode) << flavour << ": " << result.errors;
        EXPECT_EQ(1u,
                  result.CountLines(6, "MAVIX Assertion failed [../../../src/ipc/Some:4294967296:a > b]"));
        EXPECT_EQ("slept 100 ms after 1 lines\nreturned 1\n", result.output) << flavour;
    }
}

TEST_F(Assertion, AddsItsMessageWhenThereIsOne) {
    const std::string line = "MAVIX Assertion failed [../../../src/ipc/Some:12:a > b]: a is small";
    const ChildResult plain = RunChildProgram("FailWithAMessage");
    EXPECT_EQ(SIGABRT, plain.signal);
    EXPECT_EQ(1u, plain.CountLines(6, line)) << plain.errors;
    const ChildResult release = RunChildProgram("FailWithAMessage", releaseFlavour);
    EXPECT_EQ(0, release.exitCode);
    EXPECT_EQ(1u, release.CountLines(6, line)) << release.errors;
    EXPECT_EQ("slept 100 ms after 1 lines\nreturned 1\n", release.output);
}

TEST_F(Assertion, FormsReportTheirTextAndCarryOnOrLeaveOnARelease) {
    const ChildResult result = RunChildProgram("UseTheForms", releaseFlavour);
    EXPECT_EQ(0, result.exitCode) << result.errors;
    const std::string file = "../../../src/ipc/AssertUser";
    EXPECT_TRUE(HasAssertion(result, file, "evaluations == 99")) << result.errors;
    EXPECT_TRUE(HasAssertion(result, file, "(int) other text")) << result.errors;
    EXPECT_TRUE(HasAssertion(result, file, "evaluations == 98", "one more")) << result.errors;
    EXPECT_EQ(2u, CountAssertions(result, file, "good == true")) << result.errors;
    EXPECT_TRUE(HasAssertion(result, file, "false")) << result.errors;
    EXPECT_FALSE(HasAssertion(result, file, "Check(true)")) << result.errors;
    EXPECT_EQ("carried on after 2 evaluations\n"
              "ASSERT!!! - function LeaveWithResult, line N\n"
              "left with -7\n"
              "ASSERT!!! - function Leave, line N\n"
              "passed: 0\n"
              "ASSERT!!! - function TheFunction, line N\n"
              "evaluated 4 times\n",
              WithoutLineNumbers(result.output));
}

TEST_F(Assertion, ThatLeavesAFunctionAbortsUnlessTheDeviceIsARelease) {
    const ChildResult result = RunChildProgram("LeaveAFunction");
    EXPECT_EQ(SIGABRT, result.signal) << result.errors;
    EXPECT_TRUE(HasAssertion(result, "../../../src/ipc/AssertUser", "good == true")) << result.errors;
    EXPECT_EQ("", result.output);
}

TEST(AssertionForms, DoNothingWhileTheCheckHolds) {
    evaluations = 0;
    bool passed = false;
    MAVIX_ASSERT(Check(true));
    MAVIX_ASSERT_TEXT(Check(true), "text");
    MAVIX_ASSERT_MESSAGE(Check(true), "message");
    EXPECT_EQ(1, LeaveWithResult(true));
    Leave(true, passed);
    EXPECT_TRUE(passed);
    EXPECT_EQ(5, evaluations);
    EXPECT_TRUE(TCRecordingPlatform::Get().Lines().empty());
}

TEST(PrintMessage, LogsItsTextAsAnErrorUnderItsOwnName) {
    MavixApiLite::TCApiPrintMessage("%s is %d %%s", "this", 5);
    const std::vector<LogLine> lines = TCRecordingPlatform::Get().Lines();
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ(6, lines[0].priority);
    EXPECT_EQ("MAVIX_API", lines[0].tag);
    EXPECT_EQ("MavixAssert", lines[0].source);
    EXPECT_EQ("TCApiPrintMessage", lines[0].function);
    EXPECT_GT(lines[0].line, 0);
    EXPECT_EQ("this is 5 %s", lines[0].text);
}

TEST(PrintMessage, CutsItsTextAt255Characters) {
    const struct {
        std::size_t length;
        std::size_t logged;
    } rows[] = {{0, 0}, {254, 254}, {255, 255}, {256, 255}, {5000, 255}};
    for (const auto& row : rows) {
        TCRecordingPlatform::Get().Reset();
        MavixApiLite::TCApiPrintMessage("%s", std::string(row.length, 'x').c_str());
        ASSERT_EQ(1u, TCRecordingPlatform::Get().Lines().size()) << row.length;
        EXPECT_EQ(std::string(row.logged, 'x'), TCRecordingPlatform::Get().Lines()[0].text) << row.length;
    }
}
