#include "SessionBus.h"

#include "Await.h"
#include "ChildProgram.h"

#include <atomic>
#include <cstdlib>
#include <future>

// The session while the service waits, goes and comes back, and while the process ends.

using namespace MavixTest;
using MavixSim::Behaviour;
using std::chrono::milliseconds;
using testing::ElementsAre;

namespace {

class SessionService : public SessionBusTest {
protected:
    static std::future<int> InThread(int (*function)()) { return std::async(std::launch::async, function); }
};

TEST_F(SessionService, WhileItIsAskedToOpenOthersWaitAndAreThenCounted) {
    m_bus.lite.SetReply(sessionBus, openCode, Behaviour::Delay, IntBytes(300));
    std::future<int> first = InThread(SessionControl__Open);
    ASSERT_EQ(1U, m_bus.lite.WaitForRecords(1).size());
    std::future<int> second = InThread(SessionControl__Open);
    std::future<int> third = InThread(SessionControl__Open);
    // Questions and traces do not wait for the session.
    int isTerminated = 0;
    EXPECT_EQ(0, SessionControl__IsMavixTerminated(&isTerminated));
    EXPECT_EQ(std::future_status::timeout, first.wait_for(milliseconds(0)));
    EXPECT_EQ(0, first.get());
    EXPECT_EQ(0, second.get());
    EXPECT_EQ(0, third.get());
    EXPECT_EQ(3, TestAccess::Counter(*SessionControlProxy::Instance()));
    EXPECT_THAT(Codes(), ElementsAre(openCode, terminatedCode));
}

TEST_F(SessionService, AnEventCallbackThatOpensWhileAnotherThreadDoesJustWaits) {
    static std::atomic<int> inCallback;
    inCallback = 77;
    ASSERT_TRUE(IPCConnection__AddMatchRule(IPC_MESSAGE_DATA, 1, 0, 0));
    IPCConnection__SetCallbackFunction(IPC_MESSAGE_DATA,
                                       [](int, const char*, int) { inCallback = SessionControl__Open(); });
    ASSERT_TRUE(Settle());
    m_bus.lite.SetReply(sessionBus, openCode, Behaviour::Delay, IntBytes(300));
    std::future<int> first = InThread(SessionControl__Open);
    ASSERT_EQ(1U, m_bus.lite.WaitForRecords(1).size());
    m_bus.daemon.Emit(IPC_MESSAGE_DATA, 1, {});
    EXPECT_TRUE(IterateUntil([] { return inCallback != 77; }));
    EXPECT_EQ(0, inCallback);
    EXPECT_EQ(0, first.get());
    EXPECT_THAT(Codes(), ElementsAre(openCode));
    EXPECT_TRUE(IPCConnection__RemoveMatchRule(IPC_MESSAGE_DATA, 1, 0, 0));
}

TEST_F(SessionService, AnOpenWaitsForItToAppear) {
    ForgetBus(sessionBus);
    m_bus.lite.ClearRecords();
    m_bus.lite.DropName(sessionBus);
    std::future<int> open = InThread(SessionControl__Open);
    EXPECT_TRUE(m_platform.WaitFor("[API_LITE] Waiting for connection, duration: "));
    EXPECT_EQ(std::future_status::timeout, open.wait_for(milliseconds(100)));
    m_bus.lite.TakeName(sessionBus);
    EXPECT_EQ(0, open.get());
    EXPECT_THAT(Codes(), ElementsAre(openCode));
}

TEST_F(SessionService, ThatDiesInMidOpenLeavesTheSessionUndefinedAndTheNextOpenReachesItsSuccessor) {
    m_bus.lite.SetReply(sessionBus, openCode, Behaviour::Exit, IntBytes(1));
    EXPECT_EQ(-1, SessionControl__Open());
    EXPECT_EQ("Open Session, retCode(-1), refCount(1), m_sessionState(undefined)", LastLine());
    ASSERT_TRUE(m_bus.service.WaitReady());
    ASSERT_TRUE(m_platform.WaitFor("[API_LITE] Owner of bus name: com.norvale.ISessionControl"));
    EXPECT_EQ(0, SessionControl__Open());
    EXPECT_TRUE(ServiceHasSession());
    EXPECT_EQ(0, SessionControl__Close());
    EXPECT_EQ(0, SessionControl__Close());
    EXPECT_FALSE(ServiceHasSession());
}

TEST_F(SessionService, ThatRestartsForgetsTheSessionUntilItIsOpenedAnew) {
    ASSERT_EQ(0, SessionControl__Open());
    m_bus.service.KillLite();
    ASSERT_TRUE(m_bus.service.WaitReady());
    ASSERT_TRUE(m_platform.WaitFor("[API_LITE] Owner of bus name: com.norvale.ISessionControl"));
    // Counted here, without asking.
    EXPECT_EQ(0, SessionControl__Open());
    EXPECT_FALSE(ServiceHasSession());
    EXPECT_EQ(0, SessionControl__Close());
    EXPECT_EQ(1, SessionControl__Close());
    EXPECT_EQ("Close Session, retCode(1), refCount(0), m_sessionState(closed)", LastLine());
    EXPECT_EQ(0, SessionControl__Open());
    EXPECT_TRUE(ServiceHasSession());
}

TEST_F(SessionService, KeepsTheSessionsOfProcessesApartAndForgetsTheOneThatEnds) {
    ASSERT_EQ(0, SessionControl__Open());
    const ChildResult result = RunChildProgram("OpenAndExit");
    EXPECT_EQ(0, result.exitCode) << result.errors;
    EXPECT_THAT(Codes(), ElementsAre(openCode, openCode));
    EXPECT_TRUE(Await([this] { return Counter("vanished") == 1; }));
    EXPECT_EQ(1, Counter("open"));
}

// Without a close: the service finds out by itself.
MAVIX_CHILD(OpenAndExit) {
    return SessionControl__Open();
}

} // namespace

namespace {

// Runs when the exit of the process has begun.
void CloseDuringExit() {
    std::printf("close %d\n", SessionControl__Close());
    std::fflush(stdout);
}

} // namespace

MAVIX_CHILD(CloseInAnExitHandler) {
    std::atexit(CloseDuringExit);
    return SessionControl__Open();
}

TEST_F(SessionService, StillClosesASessionWhileTheProcessExits) {
    const ChildResult result = RunChildProgram("CloseInAnExitHandler");
    EXPECT_EQ(0, result.exitCode) << result.errors;
    EXPECT_EQ("close 0\n", result.output) << result.errors;
    EXPECT_THAT(Codes(), ElementsAre(openCode, closeCode));
}

MAVIX_CHILD(FirstUseInAnExitHandler) {
    std::atexit(CloseDuringExit);
    return IPCConnection__Create() ? 0 : 1;
}

TEST_F(SessionService, IsNotAskedForTheFirstTimeWhileTheProcessExits) {
    const ChildResult result = RunChildProgram("FirstUseInAnExitHandler");
    EXPECT_EQ(0, result.exitCode) << result.errors;
    EXPECT_EQ("close -1\n", result.output) << result.errors;
    EXPECT_EQ(1U, result.CountLines(6, "[API_LITE] no client: the process is exiting")) << result.errors;
}

// With a session the client's threads run on through the exit, so its end is never logged.
TEST_F(SessionService, KeepsTheClientToTheEndOfTheProcess) {
    const ChildResult result = RunChildProgram("CloseInAnExitHandler");
    EXPECT_EQ(std::string::npos, result.errors.find("Closing connection")) << result.errors;
}
