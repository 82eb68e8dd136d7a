#include "Await.h"
#include "SimFixture.h"

#include <gmock/gmock.h>

namespace MavixTest {

namespace {

using MavixSim::Behaviour;
using std::chrono::milliseconds;

constexpr const char* sessionInterface = "com.norvale.ISessionControl";
constexpr std::int16_t openCode = 0;
constexpr std::int16_t closeCode = 1;
constexpr std::int16_t textCode = 2;
constexpr std::int16_t openTraceCode = 3;
constexpr std::int16_t closeTraceCode = 4;
constexpr std::int16_t terminatedCode = 5;
constexpr unsigned noReplyFlag = 1;

Bytes Joined(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

Bytes LongBytes(std::int64_t value) {
    const auto* first = reinterpret_cast<const std::uint8_t*>(&value);
    return {first, first + sizeof value};
}

Bytes TraceBytes(std::int64_t id, const std::string& text, std::int32_t parameter) {
    return Joined({LongBytes(id), IntBytes(static_cast<std::int32_t>(text.size())), TextBytes(text),
                   IntBytes(parameter)});
}

RawCall SessionCall(std::int16_t code, const Bytes& payload = {}) {
    RawCall call;
    call.destination = sessionInterface;
    call.interface = sessionInterface;
    call.noReply = code == openTraceCode || code == closeTraceCode;
    call.header = Header(code, call.noReply ? noReplyFlag : 0);
    call.payload = payload;
    return call;
}

// The answer's payload.
Bytes Answer(TCRawClient& client, std::int16_t code) {
    const RawReply reply = client.Call(SessionCall(code));
    if (reply.Signature() != "yiay") {
        ADD_FAILURE() << "code " << code << ": " << reply.errorText;
        return {};
    }
    EXPECT_EQ(reply.TakeByte(), 1);
    const std::int32_t size = reply.TakeInt();
    const Bytes payload = reply.TakeBytes();
    EXPECT_EQ(static_cast<std::size_t>(size), payload.size());
    return payload;
}

class SimSession : public TCSimFixture {
protected:
    explicit SimSession(const std::vector<std::string>& options = {}) : TCSimFixture(options) {}

    nlohmann::json Sessions() { return m_lite.Stats()["sessions"]; }
    std::string Text() {
        const Bytes answer = Answer(m_client, textCode);
        EXPECT_EQ(Bytes(answer.begin(), answer.begin() + 8),
                  Joined({IntBytes(0), IntBytes(static_cast<std::int32_t>(answer.size()) - 8)}));
        return {answer.begin() + 8, answer.end()};
    }
    // What follows the client's name in its line.
    std::string Line(const TCRawClient& client, const std::string& state) const {
        return "client " + client.UniqueName() + ", process " + std::to_string(::getpid()) + ": session " +
               state + "\n";
    }

    TCSimDriver m_lite{m_bus, TCSimDriver::Process::Lite};
    TCRawClient m_other{m_bus.Address()};
};

class SimSessionRestart : public SimSession {
protected:
    SimSessionRestart() : SimSession({"--respawn"}) {}
};

TEST_F(SimSession, IsOpenedAndClosedForEachClient) {
    EXPECT_EQ(Text(), "no clients\n");
    EXPECT_EQ(Answer(m_client, openCode), IntBytes(0));
    EXPECT_EQ(Answer(m_other, openCode), IntBytes(0));
    EXPECT_EQ(Sessions()["open"], 2);
    EXPECT_EQ(Answer(m_client, closeCode), IntBytes(0));
    const std::string text = Text();
    EXPECT_THAT(text, testing::HasSubstr(Line(m_client, "closed")));
    EXPECT_THAT(text, testing::HasSubstr(Line(m_other, "open")));
    const nlohmann::json expected{{"clients", 2},        {"open", 1},    {"traces", 0},
                                  {"opened", 2},         {"closed", 1},  {"repeatedOpens", 0},
                                  {"needlessCloses", 0}, {"vanished", 0}};
    EXPECT_EQ(Sessions(), expected);
}

TEST_F(SimSession, AnswersWith1WhereNothingChangesAndCountsThat) {
    EXPECT_EQ(Answer(m_client, closeCode), IntBytes(1));
    EXPECT_EQ(Answer(m_client, openCode), IntBytes(0));
    EXPECT_EQ(Answer(m_client, openCode), IntBytes(1));
    EXPECT_EQ(Answer(m_client, closeCode), IntBytes(0));
    EXPECT_EQ(Answer(m_client, closeCode), IntBytes(1));
    const nlohmann::json sessions = Sessions();
    EXPECT_EQ(sessions["opened"], 1);
    EXPECT_EQ(sessions["closed"], 1);
    EXPECT_EQ(sessions["repeatedOpens"], 1);
    EXPECT_EQ(sessions["needlessCloses"], 2);
}

TEST_F(SimSession, TracesAreKeptUntilTheyAreClosed) {
    m_client.Send(SessionCall(openTraceCode, TraceBytes(7, "first\n\nthird", -5)));
    m_client.Send(SessionCall(openTraceCode, TraceBytes(-8, "", 0)));
    EXPECT_EQ(Text(), Line(m_client, "closed") + "  trace -8, parameter 0\n" +
                          "  trace 7, parameter -5\n    first\n    \n    third\n");
    EXPECT_EQ(Sessions()["traces"], 2);
    m_client.Send(SessionCall(closeTraceCode, LongBytes(7)));
    m_client.Send(SessionCall(closeTraceCode, LongBytes(99)));
    EXPECT_EQ(Text(), Line(m_client, "closed") + "  trace -8, parameter 0\n");
}

TEST_F(SimSession, IsNotTerminated) {
    EXPECT_EQ(Answer(m_client, terminatedCode), Joined({IntBytes(0), IntBytes(0)}));
}

TEST_F(SimSession, OfAClientThatDisappearsIsForgotten) {
    {
        TCRawClient gone(m_bus.Address());
        EXPECT_EQ(Answer(gone, openCode), IntBytes(0));
        gone.Send(SessionCall(openTraceCode, TraceBytes(1, "text", 2)));
        EXPECT_EQ(Answer(m_client, openCode), IntBytes(0));
        EXPECT_THAT(Text(), testing::HasSubstr(Line(gone, "open")));
    }
    EXPECT_TRUE(Await([this] { return Sessions()["vanished"] == 1; }));
    EXPECT_EQ(Text(), Line(m_client, "open"));
    EXPECT_EQ(Sessions()["traces"], 0);
}

TEST_F(SimSession, OfAClientThatDisappearsBeforeItsDelayedAnswerIsNotKept) {
    m_lite.SetReply(sessionInterface, openCode, Behaviour::Delay, IntBytes(200));
    {
        TCRawClient gone(m_bus.Address());
        std::uint64_t cookie = 0;
        ASSERT_GE(sd_bus_send(gone.Bus(), gone.MakeCall(SessionCall(openCode)).get(), &cookie), 0);
        ASSERT_GE(sd_bus_flush(gone.Bus()), 0);
        ASSERT_EQ(m_lite.WaitForRecords(1).size(), 1u);
    }
    EXPECT_TRUE(Await([this] { return m_lite.Stats()["waiting"] == 0; }));
    EXPECT_EQ(Sessions()["clients"], 0);
}

TEST_F(SimSession, EachFunctionWithAnAnswerCanBeRefusedFailedAndDelayed) {
    for (const std::int16_t code : {openCode, closeCode, textCode, terminatedCode}) {
        SCOPED_TRACE(code);
        m_lite.SetReply(sessionInterface, code, Behaviour::Error);
        EXPECT_EQ(m_client.Call(SessionCall(code)).errorName, "com.norvale.Error.Refused");
        m_lite.SetReply(sessionInterface, code, Behaviour::Echo, IntBytes(-77));
        EXPECT_EQ(Answer(m_client, code), IntBytes(-77));
        EXPECT_EQ(Sessions()["clients"], 0);

        m_lite.ClearReplies();
        Answer(m_client, closeCode);
        const Bytes undelayed = Answer(m_client, code);
        Answer(m_client, closeCode);
        m_lite.SetReply(sessionInterface, code, Behaviour::Delay, IntBytes(100));
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(Answer(m_client, code), undelayed);
        EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(100));

        m_lite.ClearReplies();
        m_client = TCRawClient(m_bus.Address());
        EXPECT_TRUE(Await([this] { return Sessions()["clients"] == 0; }));
    }
}

TEST_F(SimSession, ARefusedOrFailedCallChangesNothing) {
    EXPECT_EQ(Answer(m_client, openCode), IntBytes(0));
    for (const Behaviour behaviour : {Behaviour::Error, Behaviour::BrokenByte, Behaviour::EmptyReturn}) {
        m_lite.SetReply(sessionInterface, closeCode, behaviour);
        m_client.Call(SessionCall(closeCode));
        EXPECT_EQ(Sessions()["open"], 1);
    }
    m_lite.SetReply(sessionInterface, closeCode, Behaviour::Never);
    EXPECT_TRUE(m_client.Call(SessionCall(closeCode), milliseconds(50)).IsError());
    EXPECT_EQ(Sessions()["open"], 1);
}

TEST_F(SimSession, TracesCanBeRefusedAndDelayed) {
    m_lite.SetReply(sessionInterface, openTraceCode, Behaviour::Error, TextBytes("com.example.No\nno"));
    m_client.Send(SessionCall(openTraceCode, TraceBytes(7, "text", 0)));
    EXPECT_EQ(Text(), "no clients\n");
    m_lite.SetReply(sessionInterface, openTraceCode, Behaviour::Delay, IntBytes(700));
    m_client.Send(SessionCall(openTraceCode, TraceBytes(7, "text", 0)));
    EXPECT_EQ(Text(), "no clients\n");
    EXPECT_TRUE(Await([this] { return Sessions()["traces"] == 1; }));

    m_lite.SetReply(sessionInterface, closeTraceCode, Behaviour::Error, TextBytes("com.example.No\nno"));
    m_client.Send(SessionCall(closeTraceCode, LongBytes(7)));
    EXPECT_THAT(Text(), testing::HasSubstr("trace 7"));
    m_lite.SetReply(sessionInterface, closeTraceCode, Behaviour::Delay, IntBytes(700));
    m_client.Send(SessionCall(closeTraceCode, LongBytes(7)));
    EXPECT_THAT(Text(), testing::HasSubstr("trace 7"));
    EXPECT_TRUE(Await([this] { return Sessions()["traces"] == 0; }));
}

TEST_F(SimSession, RefusesWhatIsNoCallOfIt) {
    RawCall withoutAnswer = SessionCall(openCode);
    withoutAnswer.noReply = true;
    withoutAnswer.header = Header(openCode, noReplyFlag);
    RawCall withAnswer = SessionCall(closeTraceCode, LongBytes(1));
    withAnswer.noReply = false;
    withAnswer.header = Header(closeTraceCode);
    RawCall negative = SessionCall(openCode);
    negative.header = 0xffffffff;
    const Bytes trace = TraceBytes(1, "text", 2);
    const struct {
        RawCall call;
        const char* reason;
    } rows[] = {
        {SessionCall(6), "the session interface has no function 6"},
        {negative, "the session interface has no function -1"},
        {SessionCall(openCode, {1}), "payload: 1 bytes too many"},
        {SessionCall(closeCode, {1, 2}), "payload: 2 bytes too many"},
        {SessionCall(textCode, {1}), "payload: 1 bytes too many"},
        {SessionCall(terminatedCode, {1}), "payload: 1 bytes too many"},
        {withoutAnswer, "session function 0 has to want an answer"},
        {withAnswer, "session function 4 must not want an answer"},
        {SessionCall(closeTraceCode), "trace id: expected 8 bytes, found 0"},
        {SessionCall(closeTraceCode, Joined({LongBytes(1), {0}})), "payload: 1 bytes too many"},
        {SessionCall(openTraceCode, LongBytes(1)), "trace text length: expected 4 bytes, found 0"},
        {SessionCall(openTraceCode, Joined({LongBytes(1), IntBytes(-1), IntBytes(2)})),
         "trace text: length -1"},
        {SessionCall(openTraceCode, Joined({LongBytes(1), IntBytes(5), TextBytes("text")})),
         "trace text: expected 5 bytes, found 4"},
        {SessionCall(openTraceCode, Joined({LongBytes(1), IntBytes(4), TextBytes("text")})),
         "trace parameter: expected 4 bytes, found 0"},
        {SessionCall(openTraceCode, Joined({trace, {0}})), "payload: 1 bytes too many"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.reason);
        m_lite.ClearRecords();
        if (row.call.noReply)
            m_client.Send(row.call);
        else
            EXPECT_EQ(m_client.Call(row.call).errorText, row.reason);
        const auto records = m_lite.WaitForRecords(1);
        ASSERT_EQ(records.size(), 1u);
        EXPECT_EQ(records[0]["reason"], row.reason);
    }
    EXPECT_EQ(Sessions()["clients"], 0);
}

TEST_F(SimSession, OutlivesTheClearingOfRecords) {
    Answer(m_client, openCode);
    m_lite.ClearRecords();
    EXPECT_EQ(Sessions()["opened"], 0);
    EXPECT_EQ(Sessions()["open"], 1);
}

TEST_F(SimSessionRestart, ForgetsEverySession) {
    Answer(m_client, openCode);
    m_sim.KillLite();
    ASSERT_TRUE(m_sim.WaitReady());
    EXPECT_EQ(Text(), "no clients\n");
    EXPECT_EQ(Answer(m_client, closeCode), IntBytes(1));
}

} // namespace

} // namespace MavixTest
