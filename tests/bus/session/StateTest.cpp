#include "SessionBus.h"

// Every row of the session's state machine, with the service on a bus.

using namespace MavixTest;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class SessionState : public SessionBusTest {
protected:
    // Leave the session undefined, with so many opens counted.
    void FailToOpen(int times) {
        Refuse(openCode);
        for (int at = 0; at < times; ++at) {
            ASSERT_EQ(-1, SessionControl__Open());
        }
        Begin();
    }
    void Open(int times) {
        for (int at = 0; at < times; ++at) {
            ASSERT_EQ(0, SessionControl__Open());
        }
        Begin();
    }
    void Begin() {
        Serve();
        m_bus.lite.ClearRecords();
        m_platform.Reset();
    }
};

TEST_F(SessionState, ClosedOpensAtAnOpen) {
    EXPECT_EQ(0, SessionControl__Open());
    EXPECT_THAT(Codes(), ElementsAre(openCode));
    EXPECT_EQ("Open Session, retCode(0), refCount(1), m_sessionState(opened)", LastLine());
    EXPECT_TRUE(ServiceHasSession());
}

TEST_F(SessionState, UndefinedOpensAtAnOpen) {
    FailToOpen(1);
    EXPECT_EQ(0, SessionControl__Open());
    EXPECT_THAT(Codes(), ElementsAre(openCode));
    EXPECT_EQ("Open Session, retCode(0), refCount(2), m_sessionState(opened)", LastLine());
    EXPECT_TRUE(ServiceHasSession());
}

TEST_F(SessionState, AnyAnswerButMinus1OpensIt) {
    for (const int answer : {1, 7, -2, -77, 2147483647, -2147483647 - 1}) {
        SCOPED_TRACE(answer);
        Begin();
        AnswerWith(openCode, IntBytes(answer));
        EXPECT_EQ(answer, SessionControl__Open());
        EXPECT_EQ("Open Session, retCode(" + std::to_string(answer) +
                      "), refCount(1), m_sessionState(opened)",
                  LastLine());
        EXPECT_EQ(0, SessionControl__Open());
        EXPECT_THAT(Codes(), ElementsAre(openCode));
        Close(2);
    }
}

TEST_F(SessionState, ClosedIsUndefinedAfterAnOpenThatFails) {
    Refuse(openCode);
    EXPECT_EQ(-1, SessionControl__Open());
    EXPECT_THAT(Codes(), ElementsAre(openCode));
    EXPECT_EQ("Open Session, retCode(-1), refCount(1), m_sessionState(undefined)", LastLine());
}

TEST_F(SessionState, ClosedIsUndefinedAfterAnOpenThatIsAnsweredWithMinus1) {
    AnswerWith(openCode, IntBytes(-1));
    EXPECT_EQ(-1, SessionControl__Open());
    EXPECT_THAT(Codes(), ElementsAre(openCode));
    EXPECT_EQ("Open Session, retCode(-1), refCount(1), m_sessionState(undefined)", LastLine());
}

TEST_F(SessionState, UndefinedStaysSoAfterAnOpenThatFails) {
    FailToOpen(1);
    Refuse(openCode);
    EXPECT_EQ(-1, SessionControl__Open());
    EXPECT_THAT(Codes(), ElementsAre(openCode));
    EXPECT_EQ("Open Session, retCode(-1), refCount(2), m_sessionState(undefined)", LastLine());
}

TEST_F(SessionState, OpenedStaysSoAtAnOpenAndAsksNobody) {
    Open(1);
    EXPECT_EQ(0, SessionControl__Open());
    EXPECT_THAT(Codes(), IsEmpty());
    EXPECT_EQ("", LastLine());
}

TEST_F(SessionState, OpenedClosesAtTheLastClose) {
    Open(1);
    EXPECT_EQ(0, SessionControl__Close());
    EXPECT_THAT(Codes(), ElementsAre(closeCode));
    EXPECT_EQ("Close Session, retCode(0), refCount(0), m_sessionState(closed)", LastLine());
    EXPECT_FALSE(ServiceHasSession());
}

TEST_F(SessionState, AnyAnswerButMinus1ClosesIt) {
    for (const int answer : {1, 7, -2, -77, 2147483647, -2147483647 - 1}) {
        SCOPED_TRACE(answer);
        SessionControl__Open();
        Begin();
        AnswerWith(closeCode, IntBytes(answer));
        EXPECT_EQ(answer, SessionControl__Close());
        EXPECT_EQ("Close Session, retCode(" + std::to_string(answer) +
                      "), refCount(0), m_sessionState(closed)",
                  LastLine());
        EXPECT_EQ(-2, SessionControl__Close());
        EXPECT_THAT(Codes(), ElementsAre(closeCode));
    }
}

TEST_F(SessionState, UndefinedClosesAtTheLastClose) {
    FailToOpen(1);
    // The service never saw the session, and is asked to close it all the same.
    EXPECT_EQ(1, SessionControl__Close());
    EXPECT_THAT(Codes(), ElementsAre(closeCode));
    EXPECT_EQ("Close Session, retCode(1), refCount(0), m_sessionState(closed)", LastLine());
}

TEST_F(SessionState, OpenedIsUndefinedAfterALastCloseThatFails) {
    Open(1);
    Refuse(closeCode);
    EXPECT_EQ(-1, SessionControl__Close());
    EXPECT_THAT(Codes(), ElementsAre(closeCode));
    EXPECT_EQ("Close Session, retCode(-1), refCount(0), m_sessionState(undefined)", LastLine());
    EXPECT_TRUE(ServiceHasSession());
}

TEST_F(SessionState, OpenedIsUndefinedAfterALastCloseThatIsAnsweredWithMinus1) {
    Open(1);
    AnswerWith(closeCode, IntBytes(-1));
    EXPECT_EQ(-1, SessionControl__Close());
    EXPECT_EQ("Close Session, retCode(-1), refCount(0), m_sessionState(undefined)", LastLine());
}

TEST_F(SessionState, UndefinedStaysSoAfterALastCloseThatFails) {
    FailToOpen(1);
    Refuse(closeCode);
    EXPECT_EQ(-1, SessionControl__Close());
    EXPECT_EQ(-1, SessionControl__Close());
    EXPECT_THAT(Codes(), ElementsAre(closeCode, closeCode));
    EXPECT_EQ("Close Session, retCode(-1), refCount(0), m_sessionState(undefined)", LastLine());
}

TEST_F(SessionState, OpenedStaysSoAtOneOfTwoCloses) {
    Open(2);
    EXPECT_EQ(0, SessionControl__Close());
    EXPECT_THAT(Codes(), IsEmpty());
    EXPECT_EQ("", LastLine());
    EXPECT_TRUE(ServiceHasSession());
}

TEST_F(SessionState, UndefinedStaysSoAtOneOfTwoCloses) {
    FailToOpen(2);
    EXPECT_EQ(0, SessionControl__Close());
    EXPECT_THAT(Codes(), IsEmpty());
    EXPECT_EQ("", LastLine());
    EXPECT_EQ(1, SessionControl__Close());
    EXPECT_THAT(Codes(), ElementsAre(closeCode));
}

TEST_F(SessionState, ClosedRefusesAClose) {
    EXPECT_EQ(-2, SessionControl__Close());
    EXPECT_THAT(Codes(), IsEmpty());
    EXPECT_EQ("m_sessionCounter:0", LastLine());
}

TEST_F(SessionState, AfterAFailedCloseAnOpenOpensAnew) {
    Open(1);
    Refuse(closeCode);
    ASSERT_EQ(-1, SessionControl__Close());
    Begin();
    // The service still has the session of before.
    EXPECT_EQ(1, SessionControl__Open());
    EXPECT_EQ("Open Session, retCode(1), refCount(1), m_sessionState(opened)", LastLine());
    EXPECT_EQ(0, SessionControl__Close());
    EXPECT_FALSE(ServiceHasSession());
}

} // namespace
