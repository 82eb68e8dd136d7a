#include "SessionBus.h"

#include <cstdlib>
#include <functional>

// The results of the flat functions, each with every kind of answer.

using namespace MavixTest;
using MavixSim::Behaviour;

namespace {

class SessionResult : public SessionBusTest {
protected:
    struct Row {
        const char* name;
        std::function<void()> prepare;
        int result;
    };

    // Calls with each row's preparation; the session is closed in between.
    template <class Function>
    void ExpectRows(const std::vector<Row>& rows, const Function& function) {
        for (const Row& row : rows) {
            SCOPED_TRACE(row.name);
            row.prepare();
            EXPECT_EQ(row.result, function());
            Serve();
            CloseAll();
        }
    }

    std::function<void()> Answering(short code, int result) {
        return [this, code, result] { AnswerWith(code, IntBytes(result)); };
    }
    std::function<void()> Refusing(short code) {
        return [this, code] { Refuse(code); };
    }
    const std::function<void()> m_nothing = [] {};
};

TEST_F(SessionResult, OfOpen) {
    ExpectRows({{"served", m_nothing, 0},
                {"opened already", [] { SessionControl__Open(); }, 0},
                {"answered with 5", Answering(openCode, 5), 5},
                {"answered with -1", Answering(openCode, -1), -1},
                {"answered with -2", Answering(openCode, -2), -2},
                {"refused", Refusing(openCode), -1}},
               SessionControl__Open);
}

TEST_F(SessionResult, OfClose) {
    const auto openAnd = [](const std::function<void()>& prepare) {
        return [prepare] {
            SessionControl__Open();
            prepare();
        };
    };
    ExpectRows({{"served", openAnd(m_nothing), 0},
                {"opened twice", openAnd([] { SessionControl__Open(); }), 0},
                {"not opened", m_nothing, -2},
                {"answered with 5", openAnd(Answering(closeCode, 5)), 5},
                {"answered with -1", openAnd(Answering(closeCode, -1)), -1},
                {"answered with -2", openAnd(Answering(closeCode, -2)), -2},
                {"refused", openAnd(Refusing(closeCode)), -1}},
               SessionControl__Close);
}

TEST_F(SessionResult, OfOpenDebugTrace) {
    SessionControlDebugInfo info{24, "caller", 1};
    const auto size = [&info](int value) { return [&info, value] { info.structSize = value; }; };
    ExpectRows({{"a record of 24 bytes", size(24), 0},
                {"a record of 0 bytes", size(0), -2},
                {"a record of 23 bytes", size(23), -2},
                {"a record of 25 bytes", size(25), -2},
                // A text that is longer than a call may be.
                {"not sent",
                 [&] {
                     static const std::string text(16777217, 'x');
                     info = {24, text.c_str(), 1};
                 },
                 -1}},
               [&info] { return SessionControl__OpenDebugTrace(1, &info); });
    EXPECT_EQ(-2, SessionControl__OpenDebugTrace(1, nullptr));
    EXPECT_EQ(0, SessionControl__CloseDebugTrace(1));
}

TEST_F(SessionResult, OfCloseDebugTrace) {
    const auto close = [] { return SessionControl__CloseDebugTrace(1); };
    ExpectRows({{"no such trace", m_nothing, 0}}, close);
    // Nobody answers, so nobody can refuse.
    m_bus.lite.SetReply(sessionBus, closeTraceCode, Behaviour::Error, TextBytes("com.example.No\nno"));
    EXPECT_EQ(0, close());
}

TEST_F(SessionResult, OfGetSessionsDebugInfo) {
    ExpectRows({{"served", m_nothing, 0},
                {"answered with 5", Answering(debugInfoCode, 5), 5},
                {"answered with -1", Answering(debugInfoCode, -1), -1},
                {"answered with -2", Answering(debugInfoCode, -2), -2},
                {"answered with 0 alone", Answering(debugInfoCode, 0), -1},
                {"refused", Refusing(debugInfoCode), -1}},
               [] {
                   char* text = nullptr;
                   const int result = SessionControl__GetSessionsDebugInfo(&text);
                   EXPECT_EQ(result == 0, text != nullptr);
                   std::free(text);
                   return result;
               });
    EXPECT_EQ(-2, SessionControl__GetSessionsDebugInfo(nullptr));
}

TEST_F(SessionResult, OfIsMavixTerminated) {
    ExpectRows({{"served", m_nothing, 0},
                {"answered with 0 alone", Answering(terminatedCode, 0), 0},
                {"answered with 5", Answering(terminatedCode, 5), -1},
                {"answered with -1", Answering(terminatedCode, -1), -1},
                {"answered with -2", Answering(terminatedCode, -2), -1},
                {"refused", Refusing(terminatedCode), -1}},
               [] {
                   int flag = 77;
                   const int result = SessionControl__IsMavixTerminated(&flag);
                   EXPECT_EQ(result == 0, flag != 77);
                   return result;
               });
    EXPECT_EQ(-2, SessionControl__IsMavixTerminated(nullptr));
}

} // namespace
