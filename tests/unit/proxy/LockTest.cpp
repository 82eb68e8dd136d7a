#include "Meeting.h"
#include "ProxyFaults.h"
#include "ProxyFixture.h"
#include "TestScale.h"

#include <cerrno>
#include <future>
#include <system_error>
#include <thread>

// What threads see of one another, and what failing locks do.

using namespace MavixTest;
using std::chrono::milliseconds;
using testing::ElementsAre;

namespace {

using Access = TestAccess;

class SessionLock : public ProxyTest {
protected:
    ~SessionLock() override {
        ProxyFaults::beforeExclusive = nullptr;
        ProxyFaults::sharedErrors = 0;
    }
};

TEST_F(SessionLock, AnOpenThatComesSecondIsCountedAlone) {
    ProxyFaults::beforeExclusive = [this] { return m_proxy.IncreaseSessionCount(); };
    EXPECT_EQ(0, m_proxy.IncreaseSessionCount());
    EXPECT_EQ(2, Access::Counter(m_proxy));
    EXPECT_THAT(m_client->Codes(), ElementsAre(openCode));
}

TEST_F(SessionLock, ACloseThatIsOvertakenByAnOpenIsCountedAlone) {
    ASSERT_EQ(0, m_proxy.IncreaseSessionCount());
    ProxyFaults::beforeExclusive = [this] { return m_proxy.IncreaseSessionCount(); };
    EXPECT_EQ(0, m_proxy.DecreaseSessionCount());
    EXPECT_EQ(1, Access::Counter(m_proxy));
    EXPECT_EQ(Access::opened, Access::State(m_proxy));
    EXPECT_THAT(m_client->Codes(), ElementsAre(openCode));
}

TEST_F(SessionLock, WhileTheServiceIsAskedOpensAndClosesWaitAndQueriesDoNot) {
    std::promise<void> reached;
    std::promise<void> release;
    m_client->onCall = [&](short code, std::string&) {
        if (code == openCode) {
            reached.set_value();
            release.get_future().wait();
        }
        return true;
    };
    const auto open = [this] { return m_proxy.IncreaseSessionCount(); };
    const auto close = [this] { return m_proxy.DecreaseSessionCount(); };
    std::future<int> first = std::async(std::launch::async, open);
    reached.get_future().wait();
    std::future<int> second = std::async(std::launch::async, open);
    std::future<int> third = std::async(std::launch::async, open);
    std::future<int> fourth = std::async(std::launch::async, close);
    int isTerminated = 0;
    EXPECT_EQ(0, m_proxy.IsMavixTerminated(&isTerminated));
    EXPECT_EQ(0, m_proxy.CloseDebugTrace(1));
    EXPECT_EQ(std::future_status::timeout, first.wait_for(milliseconds(50)));
    EXPECT_EQ(std::future_status::timeout, second.wait_for(milliseconds(0)));
    EXPECT_EQ(std::future_status::timeout, third.wait_for(milliseconds(0)));
    EXPECT_EQ(std::future_status::timeout, fourth.wait_for(milliseconds(0)));
    release.set_value();
    EXPECT_EQ(0, first.get());
    EXPECT_EQ(0, second.get());
    EXPECT_EQ(0, third.get());
    EXPECT_EQ(0, fourth.get());
}

// Both see that the other has yet to close, unless looking and subtracting are one step.
TEST_F(SessionLock, OfTwoClosesAtOnceOneAlwaysReachesTheService) {
    const unsigned int rounds = Scaled(100000);
    TCMeeting meeting;
    const auto closeInRounds = [&](bool leads) {
        for (unsigned int round = 0; round < rounds; ++round) {
            if (leads) {
                Access::Set(m_proxy, Access::opened, 2);
            }
            meeting.Await(4 * round + 2);
            EXPECT_EQ(0, m_proxy.DecreaseSessionCount());
            meeting.Await(4 * round + 4);
        }
    };
    std::thread other(closeInRounds, false);
    closeInRounds(true);
    other.join();
    EXPECT_EQ(rounds, m_client->Sent().size());
    EXPECT_EQ(Access::closed, Access::State(m_proxy));
    EXPECT_EQ(0, Access::Counter(m_proxy));
}

TEST_F(SessionLock, ThatIsBusyForReadersIsTriedAgain) {
    ProxyFaults::sharedError = EAGAIN;
    ProxyFaults::sharedErrors = 3;
    EXPECT_EQ(0, m_proxy.IncreaseSessionCount());
    EXPECT_EQ(0, ProxyFaults::sharedErrors);
    ProxyFaults::sharedErrors = 3;
    EXPECT_EQ(0, m_proxy.DecreaseSessionCount());
    EXPECT_EQ(0, ProxyFaults::sharedErrors);
}

TEST_F(SessionLock, ThatWouldDeadlockThrowsAndChangesNothing) {
    ASSERT_EQ(0, m_proxy.IncreaseSessionCount());
    ProxyFaults::sharedError = EDEADLK;
    const auto expectThrow = [this](int (SessionControlProxy::*operation)(), bool shared) {
        if (shared) {
            ProxyFaults::sharedErrors = 1;
        } else {
            ProxyFaults::beforeExclusive = [] { return EDEADLK; };
        }
        try {
            (m_proxy.*operation)();
            ADD_FAILURE() << "did not throw";
        } catch (const std::system_error& error) {
            EXPECT_EQ(std::errc::resource_deadlock_would_occur, error.code());
        }
    };
    expectThrow(&SessionControlProxy::IncreaseSessionCount, true);
    expectThrow(&SessionControlProxy::DecreaseSessionCount, true);
    expectThrow(&SessionControlProxy::DecreaseSessionCount, false);
    EXPECT_EQ(1, Access::Counter(m_proxy));
    EXPECT_EQ(Access::opened, Access::State(m_proxy));
    EXPECT_EQ(0, m_proxy.DecreaseSessionCount());
    expectThrow(&SessionControlProxy::IncreaseSessionCount, false);
    EXPECT_EQ(0, Access::Counter(m_proxy));
    EXPECT_EQ(0, m_proxy.IncreaseSessionCount());
    EXPECT_THAT(m_client->Codes(), ElementsAre(openCode, closeCode, openCode));
}

} // namespace
