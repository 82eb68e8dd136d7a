#include "DbusBusWrapper.h"
#include "FakeConnection.h"
#include "FlavourFixture.h"
#include "LogPriorities.h"
#include "RecordingPlatform.h"
#include "VirtualClock.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

// How long the wait for a bus name lasts, what it asks and what it says. The clock is the test's own.

namespace MavixTest {

namespace {

using MavixApiLite::DbusBusWrapper;
using std::chrono::milliseconds;

constexpr const char* busName = "com.norvale.MavixAPI";
constexpr const char* timeoutLine =
    "[API_LITE][END] TIMEOUT, Cannot connect to the com.norvale.MavixAPI bus name";

std::string ProgressLine(long long elapsedMs) {
    return "[API_LITE] Waiting for connection, duration: " + std::to_string(elapsedMs) +
           "ms, busName: " + busName;
}

std::string Query(int timeoutMs) {
    return "BusHasOwner(" + std::string(busName) + ", " + std::to_string(timeoutMs) + ")";
}

std::vector<std::string> Queries(std::initializer_list<int> timeoutsMs) {
    std::vector<std::string> queries;
    std::transform(timeoutsMs.begin(), timeoutsMs.end(), std::back_inserter(queries), Query);
    return queries;
}

class BusWrapperWait : public testing::Test {
protected:
    bool WaitForCreate() { return DbusBusWrapper(busName, m_connection).WaitForCreate(); }

    TCRecordingPlatform& m_log = TCRecordingPlatform::Get();
    TCVirtualClock m_clock;
    std::shared_ptr<FakeConnection> m_connection = std::make_shared<FakeConnection>();
};

TEST_F(BusWrapperWait, ANameOwnedFromTheStartTakesOneQueryAndNoLine) {
    EXPECT_TRUE(WaitForCreate());
    EXPECT_EQ(Queries({250}), m_connection->Calls());
    EXPECT_TRUE(m_log.Lines().empty());
    EXPECT_EQ(0, m_clock.ElapsedMs());
}

TEST_F(BusWrapperWait, ANameThatNeverGetsAnOwnerIsGivenUpAfter25Seconds) {
    m_connection->onBusHasOwner = [](const std::string&, int, bool& hasOwner) {
        hasOwner = false;
        return true;
    };
    EXPECT_FALSE(WaitForCreate());
    EXPECT_EQ(25000, m_clock.ElapsedMs());
    // Every 100 ms, both ends included, with the first query timeout throughout.
    EXPECT_EQ(std::vector<std::string>(251, Query(250)), m_connection->Calls());
    for (long long second = 0; second < 25; ++second) {
        EXPECT_EQ(1U, m_log.Count(debugLine, ProgressLine(second * 1000))) << second;
    }
    EXPECT_EQ(25U, m_log.CountStarting(debugLine, ""));
    EXPECT_EQ(1U, m_log.Count(errorLine, timeoutLine));
    EXPECT_EQ(26U, m_log.Lines().size());
    EXPECT_EQ(timeoutLine, m_log.Lines().back().text);
    EXPECT_EQ("DbusBusWrapper", m_log.Lines().back().source);
    EXPECT_EQ("WaitForCreate", m_log.Lines().back().function);
}

TEST_F(BusWrapperWait, ABusThatDoesNotAnswerIsAskedWithDoubledTimeouts) {
    m_connection->onBusHasOwner = [this](const std::string&, int timeoutMs, bool&) {
        m_clock.Advance(milliseconds(timeoutMs));
        return false;
    };
    EXPECT_FALSE(WaitForCreate());
    EXPECT_EQ(Queries({250, 500, 1000, 2000, 4000, 8000, 16000}), m_connection->Calls());
    // The limit and one query at most.
    EXPECT_EQ(31750 + 6 * 100, m_clock.ElapsedMs());
    EXPECT_EQ(1U, m_log.Count(errorLine, timeoutLine));
}

TEST_F(BusWrapperWait, TheDoublingEndsWithTheFirstTimeoutNotBelowTheLimit) {
    m_connection->onBusHasOwner = [](const std::string&, int, bool&) { return false; };
    EXPECT_FALSE(WaitForCreate());
    std::vector<std::string> expected = Queries({250, 500, 1000, 2000, 4000, 8000, 16000});
    expected.resize(251, Query(32000));
    EXPECT_EQ(expected, m_connection->Calls());
}

TEST_F(BusWrapperWait, AnAnswerKeepsTheTimeout) {
    std::size_t round = 0;
    m_connection->onBusHasOwner = [&](const std::string&, int, bool& hasOwner) {
        const bool answers[] = {false, true, true, false, true, true};
        hasOwner = round == 5;
        return answers[round++];
    };
    EXPECT_TRUE(WaitForCreate());
    EXPECT_EQ(Queries({250, 500, 500, 500, 1000, 1000}), m_connection->Calls());
    EXPECT_EQ(500, m_clock.ElapsedMs());
    EXPECT_EQ(1U, m_log.Lines().size());
    EXPECT_EQ(1U, m_log.Count(debugLine, ProgressLine(0)));
}

TEST_F(BusWrapperWait, AnOwnerInAFailedAnswerDoesNotCount) {
    std::size_t round = 0;
    m_connection->onBusHasOwner = [&](const std::string&, int, bool& hasOwner) {
        hasOwner = true;
        return ++round == 3;
    };
    EXPECT_TRUE(WaitForCreate());
    EXPECT_EQ(3U, round);
}

TEST_F(BusWrapperWait, AnOwnerIsAcceptedAfterTheLimitToo) {
    m_connection->onBusHasOwner = [this](const std::string&, int, bool& hasOwner) {
        m_clock.Advance(milliseconds(40000));
        hasOwner = true;
        return true;
    };
    EXPECT_TRUE(WaitForCreate());
}

TEST_F(BusWrapperWait, SpeaksAtMostOnceASecond) {
    m_connection->onBusHasOwner = [this](const std::string&, int, bool& hasOwner) {
        m_clock.Advance(milliseconds(200));
        hasOwner = false;
        return true;
    };
    EXPECT_FALSE(WaitForCreate());
    // One pass is 300 ms, so every fourth one speaks.
    std::vector<std::string> expected;
    for (long long elapsed = 200; elapsed < 25000; elapsed += 1200) {
        expected.push_back(ProgressLine(elapsed));
    }
    expected.emplace_back(timeoutLine);
    std::vector<std::string> lines;
    for (const LogLine& line : m_log.Lines()) {
        lines.push_back(line.text);
    }
    EXPECT_EQ(expected, lines);
}

TEST_F(BusWrapperWait, ASecondHasPassedWhenMoreThan999999999NanosecondsHave) {
    for (const bool passed : {false, true}) {
        SCOPED_TRACE(passed);
        m_log.Reset();
        m_clock.Set(1000, 0);
        std::size_t round = 0;
        m_connection->onBusHasOwner = [&](const std::string&, int, bool& hasOwner) {
            if (++round == 2) {
                passed ? m_clock.Set(1001, 0) : m_clock.Set(1000, 999999999);
            }
            hasOwner = round == 3;
            return true;
        };
        EXPECT_TRUE(WaitForCreate());
        EXPECT_EQ(1U, m_log.Count(debugLine, ProgressLine(0)));
        EXPECT_EQ(passed ? 1U : 0U, m_log.Count(debugLine, ProgressLine(1000)));
        EXPECT_EQ(passed ? 2U : 1U, m_log.Lines().size());
    }
}

TEST_F(BusWrapperWait, SeveralThreadsMayWaitAtOnce) {
    std::atomic<int> left{40};
    m_connection->onBusHasOwner = [&](const std::string&, int, bool& hasOwner) {
        hasOwner = --left <= 0;
        return true;
    };
    DbusBusWrapper wrapper(busName, m_connection);
    std::atomic<int> waited{0};
    std::vector<std::thread> threads;
    for (int at = 0; at < 8; ++at) {
        threads.emplace_back([&] { waited += wrapper.WaitForCreate() ? 1 : 0; });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(8, waited);
}

// Arguments: "connected" or not. Waits with a bus that never answers; the last line of its output is the
// result, the milliseconds and the last query.
MAVIX_CHILD(WaitForABusThatNeverAnswers) {
    TCVirtualClock clock;
    const auto connection = std::make_shared<FakeConnection>();
    connection->waitConnected = arguments.at(0) == "connected";
    connection->onBusHasOwner = [](const std::string&, int, bool&) { return false; };
    const bool result = DbusBusWrapper(busName, connection).WaitForCreate();
    std::printf("%d %lld %s\n", result ? 1 : 0, clock.ElapsedMs(), connection->Calls().back().c_str());
    return 0;
}

constexpr const char* source = "../../../src/ipc/DbusBusWrapper";

using BusWrapperFlavour = FlavourFixture;

TEST_F(BusWrapperFlavour, TheDebugFlavourWaitsTwiceAsLong) {
    const ChildResult result = RunChildProgram("WaitForABusThatNeverAnswers", debugFlavour, {"connected"});
    EXPECT_EQ(0, result.exitCode) << result.errors;
    EXPECT_EQ("0 50000 " + Query(64000) + "\n", result.output);
    EXPECT_TRUE(result.HasLine(debugLine, ProgressLine(49000))) << result.errors;
    EXPECT_TRUE(result.HasLine(errorLine, timeoutLine)) << result.errors;
}

TEST(BusWrapperAssertion, AConnectionThatFailedStopsTheProcess) {
    const ChildResult result = RunChildProgram("WaitForABusThatNeverAnswers", plainFlavour, {"failed"});
    EXPECT_EQ(SIGABRT, result.signal) << result.errors;
    EXPECT_EQ(1U, CountAssertions(result, source, "m_ipcConnection->WaitConnected()")) << result.errors;
    EXPECT_EQ("", result.output);
}

TEST_F(BusWrapperFlavour, AConnectionThatFailedIsPolledOnARelease) {
    const ChildResult result = RunChildProgram("WaitForABusThatNeverAnswers", releaseFlavour, {"failed"});
    EXPECT_EQ(0, result.exitCode) << result.errors;
    // The assertion takes its 100 ms first.
    EXPECT_EQ("0 25100 " + Query(32000) + "\n", result.output);
    EXPECT_EQ(1U, CountAssertions(result, source, "m_ipcConnection->WaitConnected()")) << result.errors;
    EXPECT_TRUE(result.HasLine(errorLine, timeoutLine)) << result.errors;
}

} // namespace

} // namespace MavixTest
