#include "SessionBus.h"

#include "Meeting.h"
#include "TestScale.h"

#include <atomic>
#include <chrono>
#include <random>
#include <thread>

// Many threads on the one session.

using namespace MavixTest;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

constexpr unsigned int threadCount = 64;
constexpr unsigned int operationCount = 1000000;
// Closes are a little more likely than opens, so that the session often ends and begins.
constexpr double openProbability = 0.48;

struct Tally {
    std::atomic<unsigned int> opens{0};     // that succeeded
    std::atomic<unsigned int> closes{0};    // that succeeded
    std::atomic<unsigned int> refused{0};   // closes without an open
    std::atomic<unsigned int> failed{0};    // the service could not be asked
    std::atomic<unsigned int> unchanged{0}; // the service had, or had not, the session already
    std::atomic<unsigned int> other{0};     // any other result

    unsigned int Total() const { return opens + closes + refused + failed + unchanged + other; }
};

class SessionLoad : public SessionBusTest {
protected:
    // Opens and closes at random until all threads together have done `count` operations.
    static void Work(unsigned int seed, unsigned int count, std::atomic<unsigned int>& started,
                     Tally& tally) {
        std::mt19937 random(seed);
        std::bernoulli_distribution opens(openProbability);
        while (started++ < count) {
            const bool open = opens(random);
            switch (open ? SessionControl__Open() : SessionControl__Close()) {
            case 0:
                ++(open ? tally.opens : tally.closes);
                break;
            case 1:
                ++tally.unchanged;
                break;
            case -1:
                ++tally.failed;
                break;
            case -2:
                ++(open ? tally.other : tally.refused);
                break;
            default:
                ++tally.other;
            }
        }
    }

    // Runs `besides` while the threads work.
    template <class Besides>
    void Run(unsigned int count, Tally& tally, const Besides& besides) {
        std::atomic<unsigned int> started{0};
        std::vector<std::thread> threads;
        const auto start = steady_clock::now();
        for (unsigned int at = 0; at < threadCount; ++at) {
            threads.emplace_back(Work, at, count, std::ref(started), std::ref(tally));
        }
        besides();
        for (std::thread& thread : threads) {
            thread.join();
        }
        const auto took = std::chrono::duration_cast<milliseconds>(steady_clock::now() - start).count();
        std::printf("%lld ms: %u opens, %u closes, %u refused, %u failed, %u unchanged; service: %s\n",
                    static_cast<long long>(took), tally.opens.load(), tally.closes.load(),
                    tally.refused.load(), tally.failed.load(), tally.unchanged.load(),
                    m_bus.lite.Stats().at("sessions").dump().c_str());
        EXPECT_EQ(count, tally.Total());
        EXPECT_EQ(0U, tally.other);
    }

    int CountedOpens() const { return TestAccess::Counter(*SessionControlProxy::Instance()); }
    int State() const { return TestAccess::State(*SessionControlProxy::Instance()); }

    // The service, the state and the counter say the same.
    void ExpectAgreement() {
        EXPECT_EQ(CountedOpens() > 0, ServiceHasSession());
        EXPECT_EQ(CountedOpens() > 0 ? TestAccess::opened : TestAccess::closed, State());
    }
};

TEST_F(SessionLoad, Of64ThreadsTheServiceSeesOpensAndClosesInTurn) {
    Tally tally;
    Run(Scaled(operationCount), tally, [] {});
    EXPECT_EQ(0U, tally.failed);
    EXPECT_EQ(0U, tally.unchanged);
    // The service itself watches over the order of all of them.
    EXPECT_EQ(0, Counter("repeatedOpens"));
    EXPECT_EQ(0, Counter("needlessCloses"));
    EXPECT_GT(Counter("opened"), 100);
    EXPECT_EQ(Counter("opened") - Counter("closed"), ServiceHasSession() ? 1 : 0);
    // So do its latest records.
    const std::vector<short> codes = Codes();
    ASSERT_GT(codes.size(), 100U);
    for (std::size_t at = 1; at < codes.size(); ++at) {
        ASSERT_NE(codes[at - 1], codes[at]) << at;
    }
    EXPECT_EQ(ServiceHasSession() ? openCode : closeCode, codes.back());

    EXPECT_EQ(static_cast<int>(tally.opens) - static_cast<int>(tally.closes), CountedOpens());
    ExpectAgreement();
    for (int left = CountedOpens(); left > 0; --left) {
        EXPECT_EQ(0, SessionControl__Close()) << left;
    }
    EXPECT_EQ(-2, SessionControl__Close());
    EXPECT_FALSE(ServiceHasSession());
}

TEST_F(SessionLoad, Of64ThreadsNoneHangsWhileTheServiceRestartsAndAllEndsInAgreement) {
    Tally tally;
    unsigned int restarts = 0;
    const unsigned int count = Scaled(operationCount);
    Run(count, tally, [&] {
        // The last part is left to the service that stays.
        while (tally.Total() < count / 5 * 4) {
            const unsigned int before = tally.Total();
            m_bus.service.KillLite();
            ASSERT_TRUE(m_bus.service.WaitReady());
            ++restarts;
            while (tally.Total() < before + count / 20) {
                std::this_thread::sleep_for(milliseconds(1));
            }
        }
    });
    std::printf("%u restarts\n", restarts);
    EXPECT_GE(restarts, 5U);
    // The session has ended and begun since the last restart.
    EXPECT_GT(Counter("opened"), 0);
    EXPECT_GT(Counter("closed"), 0);
    ExpectAgreement();
    while (CountedOpens() > 0) {
        EXPECT_EQ(0, SessionControl__Close());
    }
    EXPECT_EQ(-2, SessionControl__Close());
    ExpectAgreement();
}

// Both see that the other has yet to close, unless looking and subtracting are one step.
TEST_F(SessionLoad, OfTwoClosesAtOnceOneAlwaysReachesTheService) {
    const unsigned int rounds = Scaled(20000);
    TCMeeting meeting;
    const auto closeInRounds = [&](bool leads) {
        std::mt19937 random(leads ? 1U : 2U);
        for (unsigned int round = 0; round < rounds; ++round) {
            if (leads) {
                EXPECT_EQ(0, SessionControl__Open());
                EXPECT_EQ(0, SessionControl__Open());
            }
            meeting.Await(6 * round + 2);
            meeting.Await(6 * round + 4);
            // Now one is a little ahead, now the other.
            for (std::atomic<unsigned long> spins{random() % 16}; spins > 0; --spins) {
            }
            EXPECT_EQ(0, SessionControl__Close());
            meeting.Await(6 * round + 6);
        }
    };
    std::thread other(closeInRounds, false);
    closeInRounds(true);
    other.join();
    EXPECT_EQ(static_cast<int>(rounds), Counter("opened"));
    EXPECT_EQ(static_cast<int>(rounds), Counter("closed"));
    ExpectAgreement();
}

} // namespace
