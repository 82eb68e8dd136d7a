#include "ClientBus.h"

#include <cerrno>
#include <future>
#include <thread>

// The service goes and comes back.

using namespace MavixTest;
using MavixSim::Behaviour;
using testing::Contains;
using testing::HasSubstr;

namespace {

constexpr const char* removed = "[API_LITE] Owner of bus name: com.norvale.MavixAPI has been removed";

constexpr const char* waiting = "[API_LITE] Waiting for connection, duration: ";

class ServiceRestart : public ClientBusTest {
protected:
    // The priorities of the lines about the default bus.
    std::vector<int> WaitingLines() const {
        std::vector<int> priorities;
        for (const LogLine& line : m_platform.Lines()) {
            if (testing::Matches(testing::MatchesRegex("\\[API_LITE\\] Waiting for connection, duration: "
                                                       "[0-9]+ms, busName: com\\.norvale\\.MavixAPI"))(
                    line.text)) {
                priorities.push_back(line.priority);
            }
        }
        return priorities;
    }
    ~ServiceRestart() override {
        if (m_platform.Count(4, removed) != 0) {
            EXPECT_TRUE(Settle());
        }
    }
};

TEST_F(ServiceRestart, AfterItTheNextCallWaitsSucceedsAndGreetsAgain) {
    m_bus.service.KillDaemon();
    EXPECT_TRUE(m_platform.WaitFor(removed));
    // While nobody owns the bus, or already again: it makes no difference to the caller.
    EXPECT_TRUE(Call("com.norvale.ITest", 1).success);
    ASSERT_TRUE(m_bus.service.WaitReady());
    const std::vector<nlohmann::json> records = Records(1);
    ASSERT_FALSE(records.empty());
    EXPECT_EQ(program_invocation_short_name, records[0].at("programName"));
    EXPECT_TRUE(records[0].at("ok"));
}

TEST_F(ServiceRestart, ACallOfABusWithoutAnOwnerWaitsForOne) {
    m_bus.daemon.DropName(defaultBus);
    ASSERT_TRUE(m_platform.WaitFor(removed));
    std::future<CallResult> call =
        std::async(std::launch::async, [] { return Call("com.norvale.ITest", 1); });
    EXPECT_TRUE(m_platform.WaitFor(waiting));
    EXPECT_EQ(std::vector<int>{3}, WaitingLines());
    EXPECT_EQ(std::future_status::timeout, call.wait_for(std::chrono::milliseconds(200)));
    m_bus.daemon.TakeName(defaultBus);
    EXPECT_TRUE(call.get().success);
}

TEST_F(ServiceRestart, WhileOneBusIsWaitedForOthersAreCalled) {
    m_bus.daemon.DropName(defaultBus);
    ASSERT_TRUE(m_platform.WaitFor(removed));
    std::future<CallResult> call =
        std::async(std::launch::async, [] { return Call("com.norvale.ITest", 1); });
    EXPECT_TRUE(m_platform.WaitFor(waiting));
    EXPECT_TRUE(Call(sessionBus, 1).success);
    EXPECT_TRUE(Call("com.norvale.IAVControl", 8).success);
    m_bus.daemon.TakeName(defaultBus);
    EXPECT_TRUE(call.get().success);
}

TEST_F(ServiceRestart, LosingOneNameLeavesTheGreetingsOfOthers) {
    ASSERT_TRUE(Call("com.norvale.IAVControl", 8).success);
    ForgetBus();
    m_bus.daemon.ClearRecords();
    ASSERT_TRUE(Call("com.norvale.IAVControl", 8).success);
    ASSERT_TRUE(Call("com.norvale.ITest", 1).success);
    const std::vector<nlohmann::json> records = Records(2);
    EXPECT_TRUE(records.at(0).at("programName").is_null());
    EXPECT_TRUE(records.at(1).at("programName").is_string());
}

TEST_F(ServiceRestart, AServiceThatDiesInMidCallFailsTheCall) {
    EXPECT_FALSE(Call(Behaviour::Exit, IntBytes(3)).success);
    const std::vector<std::string> errors = Errors();
    EXPECT_THAT(errors, Contains("IpcClient|[IPC][com.norvale.MavixAPI:com.norvale.ISimTest:9]"));
    EXPECT_THAT(errors, Contains("IpcClient|[IPC][Error name: org.freedesktop.DBus.Error.NoReply]"));
    EXPECT_THAT(errors, Contains(HasSubstr("IpcClient|[IPC]'")));
    ASSERT_TRUE(m_bus.service.WaitReady());
    EXPECT_TRUE(m_platform.WaitFor(removed));
    EXPECT_TRUE(Settle());
}

TEST_F(ServiceRestart, AServiceThatIsKilledFailsAllCallsInFlight) {
    constexpr std::size_t count = 16;
    std::vector<std::future<CallResult>> calls;
    for (std::size_t at = 0; at < count; ++at) {
        calls.push_back(std::async(std::launch::async, [] { return Call(Behaviour::Never); }));
    }
    ASSERT_EQ(count, Records(count).size());
    m_bus.service.KillDaemon();
    for (std::future<CallResult>& call : calls) {
        EXPECT_FALSE(call.get().success);
    }
    EXPECT_EQ(count, m_platform.Count(6, "[IPC][Error name: org.freedesktop.DBus.Error.NoReply]"));
    ASSERT_TRUE(m_bus.service.WaitReady());
    EXPECT_TRUE(m_platform.WaitFor(removed));
}

// The notice of the lost owner waits behind an introspection that does not end.
TEST_F(ServiceRestart, ACallBetweenTheLossAndItsNoticeGetsAnError) {
    std::promise<void> reached;
    std::promise<void> release;
    m_platform.onLine = [&](const LogLine& line) {
        if (line.text == "Handling Introspection request") {
            reached.set_value();
            release.get_future().wait();
        }
    };
    RawCall introspection = IntrospectionOf(m_clientName);
    introspection.noReply = true;
    m_bus.peer.Send(introspection);
    reached.get_future().wait();
    m_bus.daemon.DropName(defaultBus);
    EXPECT_FALSE(Call("com.norvale.ITest", 1).success);
    EXPECT_EQ(1U, m_platform.Count(6, "[IPC][Error name: org.freedesktop.DBus.Error.ServiceUnknown]"));
    EXPECT_EQ(0U, m_platform.Count(4, removed));
    m_bus.daemon.TakeName(defaultBus);
    release.set_value();
    EXPECT_TRUE(m_platform.WaitFor(removed));
    EXPECT_TRUE(Call("com.norvale.ITest", 1).success);
}

} // namespace
