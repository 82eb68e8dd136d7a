#include "ClientBus.h"

#include "Await.h"
#include "ChildProgram.h"
#include "TestScale.h"

#include <atomic>
#include <future>
#include <thread>

// Maximal calls side by side, and the bus's own end.

using namespace MavixTest;
using MavixSim::Behaviour;

namespace {

class MaximalCalls : public ClientBusTest {
protected:
    struct Outcome {
        bool success;
        bool hasOutput;
        bool isWhole;
    };

    // Each caller has a payload of its own.
    static std::vector<Outcome> CallAtOnce(std::size_t count) {
        std::vector<std::future<Outcome>> calls;
        for (std::size_t at = 0; at < count; ++at) {
            calls.push_back(std::async(std::launch::async, [at] {
                Bytes payload(Scaled(16777216), static_cast<std::uint8_t>(at + 1));
                payload[at] = 0;
                const CallResult result = Call(Behaviour::Echo, payload);
                return Outcome{result.success, result.output.has_value(), result.output == payload};
            }));
        }
        std::vector<Outcome> outcomes;
        for (std::future<Outcome>& call : calls) {
            outcomes.push_back(call.get());
        }
        return outcomes;
    }
};

TEST_F(MaximalCalls, SixAtOnceSucceed) {
    for (const Outcome& outcome : CallAtOnce(6)) {
        EXPECT_TRUE(outcome.success);
        EXPECT_TRUE(outcome.isWhole);
    }
}

// More than the bus takes from one connection at a time.
TEST_F(MaximalCalls, EightAtOnceEachSucceedOrFailCleanly) {
    std::size_t failed = 0;
    for (const Outcome& outcome : CallAtOnce(8)) {
        EXPECT_EQ(outcome.success, outcome.isWhole);
        EXPECT_EQ(outcome.success, outcome.hasOutput);
        failed += outcome.success ? 0 : 1;
    }
    EXPECT_EQ(failed, m_platform.CountStarting(6, "[IPC][Error name: ") +
                          m_platform.Count(6, "[API_LITE] Cannot create reply message. Out of memory."));
    EXPECT_TRUE(Settle());
}

// Every caller has a call in flight, as far as the bus lets them; the bus dies; everybody must return.
MAVIX_CHILD(BusDies) {
    const unsigned int callerCount = Scaled(1000);
    ServiceBus bus;
    if (!Settle()) {
        return 1;
    }
    std::atomic<unsigned int> successes{0};
    std::atomic<unsigned int> slow{0};
    std::atomic<unsigned int> earlyReturns{0};
    std::promise<void> killed;
    const std::shared_future<void> death = killed.get_future().share();
    std::vector<std::thread> callers;
    for (unsigned int at = 0; at < callerCount; ++at) {
        callers.emplace_back([&] {
            successes += Call(Behaviour::Never).success ? 1U : 0U;
            ++earlyReturns;
            death.wait();
            const auto start = std::chrono::steady_clock::now();
            successes += Call(Behaviour::Echo).success ? 1U : 0U;
            slow += std::chrono::steady_clock::now() - start > std::chrono::seconds(5) ? 1U : 0U;
        });
    }
    // The bus may refuse calls of a connection that has many in flight.
    const auto everybodyHasCalled = [&] {
        const auto calls = bus.daemon.Stats().at("kept").get<unsigned int>() - 1;
        return calls + earlyReturns == callerCount;
    };
    if (!Await(everybodyHasCalled, std::chrono::seconds(60))) {
        return 2;
    }
    const unsigned int inFlight = callerCount - earlyReturns;
    const auto start = std::chrono::steady_clock::now();
    bus.bus.Kill();
    killed.set_value();
    for (std::thread& caller : callers) {
        caller.join();
    }
    const bool inTime = std::chrono::steady_clock::now() - start < std::chrono::seconds(20);
    std::printf("in flight %u, successes %u, slow %u, in time %d\n", inFlight, successes.load(), slow.load(),
                inTime ? 1 : 0);
    return 0;
}

TEST(BusDeath, ReturnsEveryCallerAndLaterCallsFailAtOnce) {
    const ChildResult result =
        RunChildProgram("BusDies", plainFlavour, {}, std::chrono::seconds(Scaled(120) + 120));
    EXPECT_EQ(0, result.exitCode) << result.signal << result.errors;
    unsigned int inFlight = 0;
    ASSERT_EQ(1, std::sscanf(result.output.c_str(), "in flight %u", &inFlight)) << result.output;
    EXPECT_GE(inFlight, 100U);
    EXPECT_THAT(result.output, testing::EndsWith(", successes 0, slow 0, in time 1\n"));
    // Whoever was in flight, and everybody's later call.
    const std::size_t later = Scaled(1000);
    const std::size_t replied = result.CountLines(6, "[IPC][Error name: org.freedesktop.DBus.Error.NoReply]");
    const std::size_t failures = later + inFlight - replied;
    EXPECT_EQ(failures, result.CountLines(6, "[API_LITE] Cannot create reply message. Out of memory."));
    if (ClientRow().lossIsAReply) {
        // A later call may come before the loss is noticed.
        EXPECT_GE(replied, inFlight);
        EXPECT_EQ(failures,
                  result.CountLines(6, "[API_LITE] Pending call error. Probably connection is broken."));
    } else {
        EXPECT_EQ(0U, replied);
        EXPECT_EQ(failures, result.CountLines(6, "[API_LITE] send_message_with_reply failed!"));
        EXPECT_LE(failures, result.CountLines(6, "[API_LITE] 'The connection is closed'"));
    }
}

} // namespace
