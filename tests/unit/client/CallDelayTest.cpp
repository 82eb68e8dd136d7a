#include "ClientFixture.h"
#include "FlavourFixture.h"
#include "LiteUtility.h"
#include "VirtualClock.h"

// The report of slow calls and slow buses. The clock of these programs moves only when told.

using namespace MavixTest;
using namespace MavixApiLite;
using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const std::string shortStart = "(busName:com.norvale.MavixAPI, interfaceName:com.norvale.ITest, "
                               "functionCode:17, reply:";

unsigned long long NowMs() {
    return LiteUtility::TimestampInMiliseconds(LiteUtility::GetTimestamp());
}

class CallDelay : public ClientTest {
protected:
    // Reports a call that began `elapsed` ago.
    void Report(milliseconds elapsed, unsigned long long received = 0, unsigned long long replied = 0,
                bool reply = true) {
        const unsigned long long start = NowMs();
        m_clock.Advance(elapsed);
        TestAccess::LogApiCallDelay(Client(), start, received != 0 ? start + received : 0,
                                    replied != 0 ? start + replied : 0, reply);
    }

    TCVirtualClock m_clock;
};

TEST_F(CallDelay, Of999MillisecondsIsNotReportedOneOf1000Is) {
    Report(milliseconds(0));
    Report(milliseconds(999));
    EXPECT_THAT(LogFrom(0), IsEmpty());
    Report(milliseconds(1000));
    EXPECT_THAT(LogFrom(0), ElementsAre("6|IpcClient|" + shortStart + "1) took too long = 1.000s"));
}

TEST_F(CallDelay, WithoutAStartTimeThereIsNoReport) {
    m_clock.Advance(std::chrono::hours(1));
    TestAccess::LogApiCallDelay(Client(), 0, 1, 2, true);
    EXPECT_THAT(LogFrom(0), IsEmpty());
}

TEST_F(CallDelay, IsSplitWhenBothTimesOfTheServiceAreKnown) {
    const struct {
        unsigned long long received;
        unsigned long long replied;
        const char* tail;
    } rows[] = {
        {0, 0, ""},
        {100, 0, ""},
        {0, 1400, ""},
        {100, 1400, " (proxy call:0.100s, api process:1.300s, reply call:0.101s)"},
        {1, 1501, " (proxy call:0.001s, api process:1.500s, reply call:0.000s)"},
    };
    for (const auto& row : rows) {
        m_platform.Reset();
        Report(milliseconds(1501), row.received, row.replied);
        EXPECT_THAT(Errors(),
                    ElementsAre("IpcClient|" + shortStart + "1) took too long = 1.501s" + row.tail));
    }
}

TEST_F(CallDelay, NamesTheReplyFlag) {
    Report(milliseconds(2345), 0, 0, false);
    EXPECT_THAT(Errors(), ElementsAre("IpcClient|" + shortStart + "0) took too long = 2.345s"));
}

// Differences are of 32 bits: times out of order wrap, and so does a call of 50 days.
TEST_F(CallDelay, WrapsAt32Bits) {
    Report(milliseconds(1000), 600, 500);
    EXPECT_THAT(Errors(), ElementsAre("IpcClient|" + shortStart +
                                      "1) took too long = 1.000s (proxy call:0.600s, api "
                                      "process:4294967.196s, reply call:0.500s)"));
    m_platform.Reset();
    Report(milliseconds(0x100000000 + 999));
    EXPECT_THAT(Errors(), IsEmpty());
    Report(milliseconds(0x100000000 + 1000));
    EXPECT_EQ(1U, Errors().size());
}

// Arguments: how long the call takes, the reply.
MAVIX_CHILD(SlowCall) {
    TCVirtualClock clock;
    FakedClient faked;
    faked.AnswerWith([&] {
        clock.Advance(milliseconds(std::stoi(arguments.at(0))));
        return Reply(arguments.at(1));
    });
    return faked.Call("com.norvale.ITest", 17) ? 0 : 1;
}

using CallDelayFlavour = FlavourFixture;

TEST_F(CallDelayFlavour, OnlyTheDebugFlavourReports) {
    const std::string good = "(byte 1, 0, @ay [])";
    const std::string line = shortStart + "1) took too long = 1.000s";
    const ChildResult tolerable = RunChildProgram("SlowCall", debugFlavour, {"999", good});
    EXPECT_EQ(0, tolerable.exitCode) << tolerable.errors;
    EXPECT_EQ(std::string::npos, tolerable.errors.find("took too long")) << tolerable.errors;
    const ChildResult slow = RunChildProgram("SlowCall", debugFlavour, {"1000", good});
    EXPECT_EQ(0, slow.exitCode) << slow.errors;
    EXPECT_TRUE(slow.HasLine(6, line)) << slow.errors;
    for (const Flavour flavour : {plainFlavour, releaseFlavour, perfFlavour}) {
        const ChildResult silent = RunChildProgram("SlowCall", flavour, {"5000", good});
        EXPECT_EQ(0, silent.exitCode) << silent.errors;
        EXPECT_EQ(std::string::npos, silent.errors.find("took too long")) << silent.errors;
    }
}

TEST_F(CallDelayFlavour, ABrokenReplyIsReportedTooAndOneThatEndsTheReadingIsNot) {
    const ChildResult broken = RunChildProgram("SlowCall", debugFlavour, {"1500", "(byte 0,)"});
    EXPECT_EQ(1, broken.exitCode);
    EXPECT_TRUE(broken.HasLine(6, shortStart + "0) took too long = 1.500s")) << broken.errors;
    const ChildResult unread = RunChildProgram("SlowCall", debugFlavour, {"1500", "(byte 1,)"});
    EXPECT_EQ(1, unread.exitCode);
    EXPECT_EQ(std::string::npos, unread.errors.find("took too long")) << unread.errors;
}

// Half a second passes between the start of the call and its time of sending; the reply says when the service
// had it and answered.
MAVIX_CHILD(SlowCallWithTimes) {
    TCVirtualClock clock;
    FakedClient faked;
    const unsigned long long start = NowMs();
    TCRecordingPlatform::Get().onLine = [&clock](const LogLine& line) {
        if (line.text.compare(0, 11, "[IPC][CALL]") == 0) {
            clock.Advance(milliseconds(500));
        }
    };
    faked.AnswerWith([&] {
        clock.Advance(milliseconds(700));
        Bytes block = TimestampRecord(2, start + 600);
        const Bytes sent = TimestampRecord(4, start + 1100);
        block.insert(block.end(), sent.begin(), sent.end());
        return Reply("(byte 7, 0, @ay [], 32, " + BytesText(block) + ")");
    });
    if (!faked.Call("com.norvale.IAVControl", 66) || !faked.Requests().at(0).aux) {
        return 1;
    }
    return TimestampOf(*faked.Requests().at(0).aux) == start + 500 ? 0 : 2;
}

TEST_F(CallDelayFlavour, TheReportCountsFromTheStartAndTheWireHasTheTimeOfSending) {
    const ChildResult result = RunChildProgram("SlowCallWithTimes", debugFlavour);
    EXPECT_EQ(0, result.exitCode) << result.errors;
    EXPECT_TRUE(result.HasLine(6, "(busName:com.norvale.MavixAPI.HyperFast, "
                                  "interfaceName:com.norvale.IAVControl, functionCode:66, reply:1) took "
                                  "too long = 1.200s (proxy call:0.600s, api process:0.500s, reply "
                                  "call:0.100s)"))
        << result.errors;
}

MAVIX_CHILD(TimestampsInDebug) {
    FakedClient faked;
    faked.AnswerWith("(byte 1, 0, @ay [])");
    const bool called = faked.Call() && faked.CallAsync() && faked.CallAsync("com.norvale.IAVControl", 66);
    const std::vector<Request>& requests = faked.Requests();
    if (!called || requests.size() != 3) {
        return 1;
    }
    return requests[0].aux && requests[0].header == 0x00060000U && !requests[1].aux && requests[2].aux ? 0
                                                                                                       : 2;
}

TEST_F(CallDelayFlavour, InDebugEverySynchronousCallCarriesItsTime) {
    const ChildResult result = RunChildProgram("TimestampsInDebug", debugFlavour);
    EXPECT_EQ(0, result.exitCode) << result.errors;
}

class SlowBus : public ClientTest {
protected:
    // Each question about an owner takes so long and is answered so.
    void BusTakes(milliseconds time, bool owned) {
        Connection().onBusHasOwner = [this, time, owned](const std::string&, int, bool& hasOwner) {
            m_clock.Advance(time);
            hasOwner = owned;
            return true;
        };
        Connection().ClearCalls();
    }

    TCVirtualClock m_clock;
};

TEST_F(SlowBus, TheFirstBusThatFailsEndsTheWaitForAnInterface) {
    BusTakes(std::chrono::seconds(25), false);
    EXPECT_FALSE(Client().WaitForCreateInterface("com.norvale.ISOSpecControl"));
    EXPECT_THAT(Connection().Calls(), ElementsAre("BusHasOwner(com.norvale.MavixAPI, 250)"));
    EXPECT_THAT(TestAccess::BusWrappers(Client()), IsEmpty());
}

TEST_F(SlowBus, ACallOfABusThatNeverComesFails) {
    BusTakes(std::chrono::seconds(25), false);
    EXPECT_FALSE(Call());
    EXPECT_THAT(Errors(), ElementsAre("DbusBusWrapper|[API_LITE][END] TIMEOUT, Cannot connect to the "
                                      "com.norvale.MavixAPI bus name",
                                      "IpcClient|[API_LITE] Bus not owned",
                                      "IpcClient|[API_LITE] m_PrepareCall failed."));
    EXPECT_THAT(Connection().Calls(), ElementsAre("BusHasOwner(com.norvale.MavixAPI, 250)"));
}

TEST_F(SlowBus, TheTimeOfSendingIsThatBeforeTheWait) {
    BusTakes(std::chrono::seconds(3), true);
    const unsigned long long start = NowMs();
    ASSERT_TRUE(CallAsync("com.norvale.IAVControl", 66));
    EXPECT_EQ(3000, m_clock.ElapsedMs());
    ASSERT_TRUE(Requests().at(0).aux);
    EXPECT_EQ(start, TimestampOf(*Requests().at(0).aux));
}

// The bus is waited for before the payload is looked at.
TEST_F(SlowBus, AnOversizedFirstCallOfAnAbsentBusFailsForTheBus) {
    BusTakes(std::chrono::seconds(25), false);
    EXPECT_FALSE(Call("com.norvale.ITest", 0, Bytes(16777217)));
    EXPECT_EQ(1U, m_platform.Count(6, "[API_LITE] Bus not owned"));
    EXPECT_EQ(0U, m_platform.CountStarting(6, "[API_LITE] Message exceeds"));
}

// Argument: how many milliseconds each bus takes.
MAVIX_CHILD(WaitForSlowBuses) {
    TCVirtualClock clock;
    FakedClient faked;
    faked.Connection().onBusHasOwner = [&](const std::string&, int, bool& hasOwner) {
        clock.Advance(milliseconds(std::stoi(arguments.at(0))));
        hasOwner = true;
        return true;
    };
    return faked.Client().WaitForCreateInterface("com.norvale.IService") ? 0 : 1;
}

using SlowBusFlavour = FlavourFixture;

TEST_F(SlowBusFlavour, InDebugEachBusOfMoreThanFourSecondsIsReported) {
    const ChildResult result = RunChildProgram("WaitForSlowBuses", debugFlavour, {"5000"});
    EXPECT_EQ(0, result.exitCode) << result.errors;
    for (const char* busName : {"com.norvale.MavixAPI", "com.norvale.MavixAPI.ServiceDb"}) {
        EXPECT_THAT(result.errors, testing::ContainsRegex(
                                       std::string(R"(6\|MAVIX_API\|[A-Za-z]+: [~A-Za-z]+\|\[IpcClient\])"
                                                   R"(\[[0-9]+\] \[TCIpcClient::WaitForCreateInterface\] )"
                                                   R"(busName:)") +
                                       busName +
                                       ", interfaceName:com.norvale.IService, took too long = 5 "
                                       "seconds\n"));
    }
    const ChildResult tolerable = RunChildProgram("WaitForSlowBuses", debugFlavour, {"4000"});
    EXPECT_EQ(0, tolerable.exitCode) << tolerable.errors;
    EXPECT_EQ(std::string::npos, tolerable.errors.find("took too long")) << tolerable.errors;
    const ChildResult plain = RunChildProgram("WaitForSlowBuses", plainFlavour, {"9000"});
    EXPECT_EQ(0, plain.exitCode) << plain.errors;
    EXPECT_EQ(std::string::npos, plain.errors.find("took too long")) << plain.errors;
}

} // namespace
