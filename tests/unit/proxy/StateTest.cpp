#include "ProxyFixture.h"

#include <stdexcept>

// The state machine of the session, row by row.

using namespace MavixTest;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using Access = TestAccess;

class SessionState : public ProxyTest {};

enum class Event { Open, Close };
constexpr int failedCall = -1000; // in place of the service's answer

struct Row {
    const char* name;
    Access::States from;
    int counter;
    Event event;
    int answer; // of the service, when it is asked
    int result;
    Access::States to;
    int counterAfter;
    bool asksTheService;
    const char* line; // of the log; null for none
};

const Row rows[] = {
    {"the first open opens", Access::closed, 0, Event::Open, 0, 0, Access::opened, 1, true,
     "Open Session, retCode(0), refCount(1), m_sessionState(opened)"},
    {"an open that is answered with an error code opens", Access::closed, 0, Event::Open, 7, 7,
     Access::opened, 1, true, "Open Session, retCode(7), refCount(1), m_sessionState(opened)"},
    {"an open that is answered with another negative number opens", Access::closed, 0, Event::Open, -2, -2,
     Access::opened, 1, true, "Open Session, retCode(-2), refCount(1), m_sessionState(opened)"},
    {"an open that is answered with -1 leaves the state undefined and counts", Access::closed, 0, Event::Open,
     -1, -1, Access::undefined, 1, true, "Open Session, retCode(-1), refCount(1), m_sessionState(undefined)"},
    {"an open whose call fails leaves the state undefined and counts", Access::closed, 0, Event::Open,
     failedCall, -1, Access::undefined, 1, true,
     "Open Session, retCode(-1), refCount(1), m_sessionState(undefined)"},
    {"an open after a failed one asks again", Access::undefined, 1, Event::Open, 0, 0, Access::opened, 2,
     true, "Open Session, retCode(0), refCount(2), m_sessionState(opened)"},
    {"an open after a failed one may fail again", Access::undefined, 1, Event::Open, failedCall, -1,
     Access::undefined, 2, true, "Open Session, retCode(-1), refCount(2), m_sessionState(undefined)"},
    {"an open after a failed close asks", Access::undefined, 0, Event::Open, 0, 0, Access::opened, 1, true,
     "Open Session, retCode(0), refCount(1), m_sessionState(opened)"},
    {"an open of an open session is counted alone", Access::opened, 1, Event::Open, 0, 0, Access::opened, 2,
     false, nullptr},
    {"the last close closes", Access::opened, 1, Event::Close, 0, 0, Access::closed, 0, true,
     "Close Session, retCode(0), refCount(0), m_sessionState(closed)"},
    {"a close that is answered with an error code closes", Access::opened, 1, Event::Close, 7, 7,
     Access::closed, 0, true, "Close Session, retCode(7), refCount(0), m_sessionState(closed)"},
    {"a close that is answered with -1 leaves the state undefined", Access::opened, 1, Event::Close, -1, -1,
     Access::undefined, 0, true, "Close Session, retCode(-1), refCount(0), m_sessionState(undefined)"},
    {"a close whose call fails leaves the state undefined", Access::opened, 1, Event::Close, failedCall, -1,
     Access::undefined, 0, true, "Close Session, retCode(-1), refCount(0), m_sessionState(undefined)"},
    {"a close after a failed open is sent", Access::undefined, 1, Event::Close, 0, 0, Access::closed, 0, true,
     "Close Session, retCode(0), refCount(0), m_sessionState(closed)"},
    {"a close after a failed open may fail", Access::undefined, 1, Event::Close, failedCall, -1,
     Access::undefined, 0, true, "Close Session, retCode(-1), refCount(0), m_sessionState(undefined)"},
    {"a close after a failed close is sent", Access::undefined, 0, Event::Close, 0, 0, Access::closed, 0,
     true, "Close Session, retCode(0), refCount(0), m_sessionState(closed)"},
    {"one of two closes is counted alone", Access::opened, 2, Event::Close, 0, 0, Access::opened, 1, false,
     nullptr},
    {"one of two closes is counted alone when undefined", Access::undefined, 2, Event::Close, 0, 0,
     Access::undefined, 1, false, nullptr},
    {"one of two closes is counted alone when closed", Access::closed, 2, Event::Close, 0, 0, Access::closed,
     1, false, nullptr},
    {"a close without an open is refused", Access::closed, 0, Event::Close, 0, -2, Access::closed, 0, false,
     "m_sessionCounter:0"},
    {"a close without an open forgets what was counted", Access::closed, 1, Event::Close, 0, -2,
     Access::closed, 0, false, "m_sessionCounter:1"},
};

TEST_F(SessionState, FollowsItsTable) {
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        m_platform.Reset();
        m_client->Forget();
        if (row.answer == failedCall) {
            m_client->FailCalls();
        } else {
            m_client->AnswerWith(Int(row.answer));
        }
        Access::Set(m_proxy, row.from, row.counter);
        const bool open = row.event == Event::Open;
        EXPECT_EQ(row.result, open ? m_proxy.IncreaseSessionCount() : m_proxy.DecreaseSessionCount());
        EXPECT_EQ(row.to, Access::State(m_proxy));
        EXPECT_EQ(row.counterAfter, Access::Counter(m_proxy));
        const std::vector<SentCall> sent = m_client->Sent();
        ASSERT_EQ(row.asksTheService ? 1U : 0U, sent.size());
        if (row.asksTheService) {
            EXPECT_EQ("com.norvale.ISessionControl", sent[0].interfaceName);
            EXPECT_EQ(open ? openCode : closeCode, sent[0].code);
            EXPECT_FALSE(sent[0].async);
            EXPECT_EQ("", sent[0].input);
        }
        if (row.line != nullptr) {
            ExpectError(open ? "IncreaseSessionCount" : "DecreaseSessionCount", row.line);
        } else {
            EXPECT_THAT(m_platform.Lines(), IsEmpty());
        }
    }
}

TEST_F(SessionState, BeginsClosedWithNothingCounted) {
    EXPECT_EQ(Access::closed, Access::State(m_proxy));
    EXPECT_EQ(0, Access::Counter(m_proxy));
    EXPECT_EQ("com.norvale.ISessionControl", Access::InterfaceName(m_proxy));
    EXPECT_THAT(m_client->Sent(), IsEmpty());
    EXPECT_EQ(2, m_client.use_count());
}

TEST_F(SessionState, HasItsNames) {
    EXPECT_EQ("undefined", Access::Text(m_proxy, 0));
    EXPECT_EQ("opened", Access::Text(m_proxy, 1));
    EXPECT_EQ("closed", Access::Text(m_proxy, 2));
    EXPECT_EQ("undefined", Access::Text(m_proxy, 3));
    EXPECT_EQ("undefined", Access::Text(m_proxy, -1));
}

TEST_F(SessionState, OfManyOpensAndClosesTheServiceSeesOneOfEach) {
    for (int at = 0; at < 5; ++at) {
        EXPECT_EQ(0, m_proxy.IncreaseSessionCount());
    }
    for (int at = 0; at < 5; ++at) {
        EXPECT_EQ(0, m_proxy.DecreaseSessionCount());
    }
    EXPECT_EQ(-2, m_proxy.DecreaseSessionCount());
    EXPECT_THAT(m_client->Codes(), ElementsAre(openCode, closeCode));
}

TEST_F(SessionState, FailedOpensAreBalancedByAsManyCloses) {
    m_client->FailCalls();
    EXPECT_EQ(-1, m_proxy.IncreaseSessionCount());
    EXPECT_EQ(-1, m_proxy.IncreaseSessionCount());
    m_client->AnswerWith(Int(0));
    EXPECT_EQ(0, m_proxy.DecreaseSessionCount());
    EXPECT_EQ(Access::undefined, Access::State(m_proxy));
    EXPECT_EQ(0, m_proxy.DecreaseSessionCount());
    EXPECT_EQ(Access::closed, Access::State(m_proxy));
    EXPECT_THAT(m_client->Codes(), ElementsAre(openCode, openCode, closeCode));
}

TEST_F(SessionState, AReplyTooShortForAResultIsTheResult0) {
    for (const std::size_t size : {0U, 1U, 3U}) {
        SCOPED_TRACE(size);
        m_client->AnswerWith(std::string(size, '\x7f'));
        EXPECT_EQ(0, m_proxy.IncreaseSessionCount());
        EXPECT_EQ(Access::opened, Access::State(m_proxy));
        EXPECT_EQ(0, m_proxy.DecreaseSessionCount());
        EXPECT_EQ(Access::closed, Access::State(m_proxy));
    }
}

TEST_F(SessionState, OnlyTheFirst4BytesOfAReplyAreTheResult) {
    m_client->AnswerWith(Int(5) + Int(-1) + "more");
    EXPECT_EQ(5, m_proxy.IncreaseSessionCount());
    EXPECT_EQ(5, m_proxy.DecreaseSessionCount());
}

TEST_F(SessionState, WhatACallThrowsIsAFailedCall) {
    m_client->onCall = [](short, std::string&) -> bool { throw std::runtime_error("no room"); };
    EXPECT_EQ(-1, m_proxy.IncreaseSessionCount());
    EXPECT_EQ(Access::undefined, Access::State(m_proxy));
    EXPECT_EQ(1, Access::Counter(m_proxy));
    EXPECT_EQ(-1, m_proxy.DecreaseSessionCount());
    EXPECT_EQ(Access::undefined, Access::State(m_proxy));
    EXPECT_EQ(0, Access::Counter(m_proxy));
    EXPECT_EQ(2U, m_platform.Count(6, "[API_LITE] exception: no room"));
}

} // namespace
