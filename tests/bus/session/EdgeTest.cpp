#include "SessionBus.h"

#include <algorithm>
#include <cstdlib>
#include <regex>
#include <sstream>

// What is easily done wrong, function by function.

using namespace MavixTest;
using MavixSim::Behaviour;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

class SessionEdge : public SessionBusTest {
protected:
    std::string Text() {
        char* text = nullptr;
        EXPECT_EQ(0, SessionControl__GetSessionsDebugInfo(&text));
        const std::string copy = text != nullptr ? text : "";
        std::free(text);
        return copy;
    }
    std::string ClientLine(const std::string& state) const {
        return "client " + m_clientName + ", process " + std::to_string(getpid()) + ": session " + state +
               "\n";
    }
};

TEST_F(SessionEdge, TwoOpensAndTwoClosesSendOneRequestOfEach) {
    EXPECT_EQ(0, SessionControl__Open());
    EXPECT_THAT(Codes(), ElementsAre(openCode));
    EXPECT_EQ(0, SessionControl__Open());
    EXPECT_EQ(0, SessionControl__Close());
    EXPECT_THAT(Codes(), ElementsAre(openCode));
    EXPECT_EQ(0, SessionControl__Close());
    EXPECT_THAT(Codes(), ElementsAre(openCode, closeCode));
}

TEST_F(SessionEdge, ACloseWithoutAnOpenGivesMinus2LogsTheCounterAndSendsNothing) {
    EXPECT_EQ(-2, SessionControl__Close());
    EXPECT_EQ(1U, m_platform.Count(6, "m_sessionCounter:0"));
    EXPECT_THAT(Codes(), IsEmpty());
}

TEST_F(SessionEdge, AnOpenThatFailsGivesMinus1AndItsCloseIsSent) {
    Refuse(openCode);
    EXPECT_EQ(-1, SessionControl__Open());
    EXPECT_EQ(1U, m_platform.Count(6, "Open Session, retCode(-1), refCount(1), m_sessionState(undefined)"));
    Serve();
    EXPECT_EQ(1, SessionControl__Close());
    EXPECT_THAT(Codes(), ElementsAre(openCode, closeCode));
}

TEST_F(SessionEdge, AnOpenAfterOneThatFailedAsksAgainAndCountsTo2) {
    Refuse(openCode);
    EXPECT_EQ(-1, SessionControl__Open());
    Serve();
    EXPECT_EQ(0, SessionControl__Open());
    EXPECT_EQ(1U, m_platform.Count(6, "Open Session, retCode(0), refCount(2), m_sessionState(opened)"));
    EXPECT_THAT(Codes(), ElementsAre(openCode, openCode));
    EXPECT_EQ(0, SessionControl__Close());
    EXPECT_TRUE(ServiceHasSession());
    EXPECT_EQ(0, SessionControl__Close());
    EXPECT_FALSE(ServiceHasSession());
}

TEST_F(SessionEdge, ARecordOf23Or25BytesOpensNoTrace) {
    for (const int size : {23, 25}) {
        SessionControlDebugInfo info{size, "caller", 1};
        EXPECT_EQ(-2, SessionControl__OpenDebugTrace(1, &info)) << size;
    }
    EXPECT_EQ(0, Counter("traces"));
    EXPECT_THAT(Codes(), IsEmpty());
}

TEST_F(SessionEdge, ATraceCarriesItsNumberTextAndParameterAndWantsNoAnswer) {
    SessionControlDebugInfo info{24, "player\nof channel 7", -9};
    EXPECT_EQ(0, SessionControl__OpenDebugTrace(-5000000000LL, &info));
    EXPECT_EQ(ClientLine("closed") + "  trace -5000000000, parameter -9\n    player\n    of channel 7\n",
              Text());
    EXPECT_EQ(0, SessionControl__CloseDebugTrace(-5000000000LL));
    EXPECT_EQ(ClientLine("closed"), Text());
    const std::vector<nlohmann::json> records = m_bus.lite.Records();
    ASSERT_EQ(4U, records.size());
    for (const std::size_t at : {0U, 2U}) {
        EXPECT_TRUE(records[at].at("ok")) << records[at];
        EXPECT_TRUE(records[at].at("noReply")) << records[at];
    }
    EXPECT_EQ(openTraceCode, records[0].at("code"));
    EXPECT_EQ(closeTraceCode, records[2].at("code"));
}

TEST_F(SessionEdge, ATraceWithoutCallerInformationCarriesTheStackTraceOneFrameALine) {
    SessionControlDebugInfo info{24, nullptr, 1};
    EXPECT_EQ(0, SessionControl__OpenDebugTrace(3, &info));
    const std::string before = ClientLine("closed") + "  trace 3, parameter 1\n";
    const std::string text = Text();
    ASSERT_EQ(before, text.substr(0, before.size()));
    const std::regex frame(R"(    .+\(.*\) ?\[0x[0-9a-f]+\])");
    std::istringstream lines(text.substr(before.size()));
    int frames = 0;
    for (std::string line; std::getline(lines, line); ++frames) {
        EXPECT_TRUE(std::regex_match(line, frame)) << line;
    }
    EXPECT_GE(frames, 3);
    EXPECT_LE(frames, 100);
    EXPECT_EQ(0, SessionControl__CloseDebugTrace(3));
}

TEST_F(SessionEdge, ATextIsACopyOfExactlyItsBytesWithATerminator) {
    for (const std::size_t size : {0U, 1U, 1000U, 1000000U}) {
        SCOPED_TRACE(size);
        Bytes answer = IntBytes(0);
        const Bytes length = IntBytes(static_cast<std::int32_t>(size));
        answer.insert(answer.end(), length.begin(), length.end());
        answer.resize(answer.size() + size, 'x');
        // What follows is not part of it.
        answer.push_back('y');
        AnswerWith(debugInfoCode, answer);
        EXPECT_EQ(std::string(size, 'x'), Text());
    }
}

TEST_F(SessionEdge, ATextIsNotWrittenWhenTheServiceAnswersWithAnError) {
    char untouched = 0;
    for (const int result : {5, -1, -2}) {
        char* text = &untouched;
        AnswerWith(debugInfoCode, IntBytes(result));
        EXPECT_EQ(result, SessionControl__GetSessionsDebugInfo(&text));
        EXPECT_EQ(&untouched, text);
    }
}

TEST_F(SessionEdge, ATextWithABadLengthIsNotWrittenAndTheProcessGoesOn) {
    char untouched = 0;
    const struct {
        const char* name;
        Bytes answer;
    } rows[] = {
        {"empty", {}},
        {"half a result", {0, 0}},
        {"no length", {0, 0, 0, 0}},
        {"half a length", {0, 0, 0, 0, 1, 0}},
        {"one byte too few", {0, 0, 0, 0, 3, 0, 0, 0, 'a', 'b'}},
        {"negative", {0, 0, 0, 0, 0xff, 0xff, 0xff, 0xff, 'a', 'b'}},
        {"huge", {0, 0, 0, 0, 0xff, 0xff, 0xff, 0x7f, 'a', 'b'}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        m_platform.Reset();
        char* text = &untouched;
        AnswerWith(debugInfoCode, row.answer);
        EXPECT_EQ(-1, SessionControl__GetSessionsDebugInfo(&text));
        EXPECT_EQ(&untouched, text);
        EXPECT_THAT(Errors(), ElementsAre(HasSubstr("SessionControlProxy|[API_LITE] bad text length ")));
    }
}

TEST_F(SessionEdge, AnErrorOfTheServiceHidesTheTerminatedFlag) {
    for (const int result : {5, -2, -1}) {
        int flag = 77;
        Bytes answer = IntBytes(result);
        answer.resize(8);
        AnswerWith(terminatedCode, answer);
        EXPECT_EQ(-1, SessionControl__IsMavixTerminated(&flag)) << result;
        EXPECT_EQ(77, flag);
    }
}

TEST_F(SessionEdge, TheTerminatedFlagIsTheServicesOr1WhenItIsMissing) {
    int flag = 77;
    EXPECT_EQ(0, SessionControl__IsMavixTerminated(&flag));
    EXPECT_EQ(0, flag);
    const std::pair<Bytes, int> rows[] = {{{0, 0, 0, 0, 1, 0, 0, 0}, 1},
                                          {{0, 0, 0, 0, 0, 1, 0, 0}, 256},
                                          {{0, 0, 0, 0, 0, 0, 0}, 1},
                                          {{0, 0, 0, 0}, 1},
                                          {{0}, 1},
                                          {{}, 1}};
    for (const auto& [answer, expected] : rows) {
        SCOPED_TRACE(answer.size());
        AnswerWith(terminatedCode, answer);
        EXPECT_EQ(0, SessionControl__IsMavixTerminated(&flag));
        EXPECT_EQ(expected, flag);
    }
}

TEST_F(SessionEdge, AShortAnswerToAnOpenOrACloseIsTheResult0) {
    for (const Bytes& answer : {Bytes{}, Bytes{1}, Bytes{1, 1, 1}}) {
        SCOPED_TRACE(answer.size());
        AnswerWith(openCode, answer);
        AnswerWith(closeCode, answer);
        EXPECT_EQ(0, SessionControl__Open());
        EXPECT_EQ(0, SessionControl__Close());
        EXPECT_EQ(-2, SessionControl__Close());
    }
}

TEST_F(SessionEdge, BrokenAnswersFailACall) {
    for (const Behaviour behaviour : {Behaviour::BrokenByte, Behaviour::WrongTypes, Behaviour::EmptyReturn,
                                      Behaviour::Error, Behaviour::ErrorNoText, Behaviour::ErrorIntText}) {
        SCOPED_TRACE(static_cast<int>(behaviour));
        m_bus.lite.SetReply(sessionBus, openCode, behaviour);
        EXPECT_EQ(-1, SessionControl__Open());
        EXPECT_EQ("Open Session, retCode(-1), refCount(1), m_sessionState(undefined)", LastLine());
        Close(1);
    }
}

} // namespace
