#include "ProcessState.h"
#include "SimFixture.h"

#include <csignal>
#include <sys/wait.h>

namespace MavixTest {

namespace {

using MavixSim::Behaviour;
using std::chrono::seconds;

class SimProcess : public TCSimFixture {};

class SimRespawn : public TCSimFixture {
protected:
    SimRespawn() : TCSimFixture({"--respawn"}) {}
};

TEST_F(SimProcess, ServesAsTwoNamedProcesses) {
    EXPECT_EQ(NameOf(m_sim.DaemonPid()), "mavix-daemon");
    EXPECT_EQ(NameOf(m_sim.LitePid()), "mavix-lite");
    EXPECT_EQ(m_driver.Stats()["pid"], m_sim.DaemonPid());
    EXPECT_EQ(TCSimDriver(m_bus, TCSimDriver::Process::Lite).Stats()["pid"], m_sim.LitePid());
}

TEST_F(SimProcess, EndsAsAWholeWhenOneProcessEnds) {
    const pid_t lite = m_sim.LitePid();
    m_sim.KillDaemon();
    const std::optional<int> status = m_sim.WaitForEnd(seconds(10));
    ASSERT_TRUE(status);
    EXPECT_EQ(WEXITSTATUS(*status), 128 + SIGKILL);
    EXPECT_FALSE(IsRunning(lite));
}

TEST_F(SimProcess, ExitDuringACallEndsItWithoutAnAnswer) {
    const RawReply reply = m_client.Call(TestCall(Behaviour::Exit, IntBytes(5)));
    EXPECT_EQ(reply.errorName, "org.freedesktop.DBus.Error.NoReply");
    const std::optional<int> status = m_sim.WaitForEnd(seconds(10));
    ASSERT_TRUE(status);
    EXPECT_EQ(WEXITSTATUS(*status), 5);
}

TEST_F(SimProcess, StopsOnASignal) {
    m_sim.Stop();
    const std::optional<int> status = m_sim.WaitForEnd(seconds(0));
    ASSERT_TRUE(status);
    EXPECT_EQ(*status, 0);
}

TEST_F(SimProcess, LeavesNoProcessWhenItIsKilled) {
    const pid_t daemon = m_sim.DaemonPid();
    const pid_t lite = m_sim.LitePid();
    m_sim.Kill();
    EXPECT_FALSE(IsRunning(daemon));
    EXPECT_FALSE(IsRunning(lite));
}

TEST_F(SimProcess, EndsWithTheBus) {
    m_bus.Kill();
    EXPECT_TRUE(m_sim.WaitForEnd(seconds(10)));
}

TEST_F(SimRespawn, AKilledProcessIsStartedAnew) {
    const pid_t daemon = m_sim.DaemonPid();
    const pid_t lite = m_sim.LitePid();
    m_sim.KillDaemon();
    ASSERT_TRUE(m_sim.WaitReady());
    EXPECT_NE(m_sim.DaemonPid(), daemon);
    EXPECT_EQ(m_sim.LitePid(), lite);
    EXPECT_FALSE(m_client.Call(RawCall{}).IsError());
    m_sim.KillLite();
    ASSERT_TRUE(m_sim.WaitReady());
    EXPECT_NE(m_sim.LitePid(), lite);
}

TEST_F(SimRespawn, ExitByCallOrByControlIsFollowedByANewProcess) {
    m_client.Call(TestCall(Behaviour::Exit));
    ASSERT_TRUE(m_sim.WaitReady());
    m_driver.Exit(3);
    ASSERT_TRUE(m_sim.WaitReady());
    EXPECT_FALSE(m_client.Call(RawCall{}).IsError());
}

TEST_F(SimRespawn, ComesBackAfterARestartOfTheBus) {
    m_bus.Kill();
    m_bus.Restart();
    // The two processes may notice one after the other, each then telling readiness.
    const pid_t oldDaemon = m_sim.DaemonPid();
    const pid_t oldLite = m_sim.LitePid();
    while (m_sim.DaemonPid() == oldDaemon || m_sim.LitePid() == oldLite)
        ASSERT_TRUE(m_sim.WaitReady());
    TCRawClient client(m_bus.Address());
    EXPECT_FALSE(client.Call(RawCall{}).IsError());
}

TEST(SimRespawnDelay, HoldsBackTheNewProcess) {
    const TCPrivateBus bus;
    TCSimProcess sim(bus, {"--respawn", "--respawn-delay=300"}, true);
    const auto start = std::chrono::steady_clock::now();
    sim.KillDaemon();
    ASSERT_TRUE(sim.WaitReady());
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));
}

TEST(SimOptions, WithoutRecordsNothingIsKept) {
    const TCPrivateBus bus;
    const TCSimProcess sim(bus, {"--no-records"}, true);
    TCRawClient client(bus.Address());
    ASSERT_FALSE(client.Call(RawCall{}).IsError());
    EXPECT_TRUE(TCSimDriver(bus).Records().empty());
}

struct SimOptionRow {
    std::vector<std::string> arguments;
    int exitCode;
    const char* complaint = "";
};

TEST(SimOptions, BadOnesAreRefused) {
    const std::vector<SimOptionRow> rows{
        {{"--help"}, 0},
        {{"--version"}, 0},
        {{"--nonsense"}, 2, "mavix-sim: unrecognized option '--nonsense'\n"},
        {{"--respawn-delay=x"},
         2,
         "mavix-sim: --respawn-delay takes a whole number from 0 to 1000000, not 'x'\n"},
        {{"--serve=nobody"}, 2, "mavix-sim: --serve takes daemon or lite, not 'nobody'\n"},
        {{"--ready-fd=-1"}, 2, "mavix-sim: --ready-fd takes a whole number from 0 to 1000000, not '-1'\n"},
        {{"--scenario="}, 2, "mavix-sim: --scenario takes the name of a file, not ''\n"},
        {{"--replay-speed=slow"}, 2, "mavix-sim: --replay-speed takes recorded or fast, not 'slow'\n"},
        {{"unexpected"}, 2, "mavix-sim: unexpected argument 'unexpected'\n"},
    };
    for (const SimOptionRow& row : rows) {
        SCOPED_TRACE(row.arguments[0]);
        MavixTools::ChildOptions options;
        options.program = MAVIX_TEST_SIM;
        options.name = "mavix-sim";
        options.arguments = row.arguments;
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        MavixTools::TCChildProcess process(options);
        EXPECT_EQ(MavixTools::ShellStatus(*process.Wait()), row.exitCode);
        testing::internal::GetCapturedStdout();
        EXPECT_EQ(testing::internal::GetCapturedStderr(), row.complaint);
    }
}

} // namespace

} // namespace MavixTest
