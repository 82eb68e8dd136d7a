#include "ClientFixture.h"

#include "FlavourFixture.h"

#include <atomic>
#include <cstdio>
#include <dirent.h>
#include <fstream>

// What the client sets up when its connection has reached the bus.

using namespace MavixTest;
using namespace MavixApiLite;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

using ClientInitializeFlavour = FlavourFixture;

class ClientInitialize : public ClientTest {
protected:
    // Lets the signals thread handle a message and waits for it.
    bool SignalsThreadHandles(WireMessage message, const std::string& line) {
        return Filter(std::move(message)) && m_platform.WaitFor(line);
    }
};

bool HasThread(const std::string& wanted) {
    const std::unique_ptr<DIR, int (*)(DIR*)> tasks(opendir("/proc/self/task"), closedir);
    while (const dirent* entry = readdir(tasks.get())) {
        std::ifstream file(std::string("/proc/self/task/") + entry->d_name + "/comm");
        std::string name;
        if (std::getline(file, name) && name == wanted) {
            return true;
        }
    }
    return false;
}

constexpr const char* introspect = "Handling Introspection request";

WireMessage Introspection() {
    return MethodCall("org.freedesktop.DBus.Introspectable", "Introspect");
}

TEST_F(ClientInitialize, StartsTheSignalsThreadAndRequestsItsName) {
    Connection().ClearCalls();
    EXPECT_TRUE(Initialize());
    EXPECT_THAT(Connection().Calls(), ElementsAre("RequestName(com.norvale.Mavix.Signal.mavix1.mavix42)"));
    EXPECT_TRUE(m_platform.WaitForCalls("smart_deadlock_register_watchdog_service(30)", 1));
    EXPECT_TRUE(SignalsThreadHandles(Introspection(), introspect));
    EXPECT_TRUE(HasThread("SignalsThread"));
}

TEST_F(ClientInitialize, TheNameFollowsTheUniqueName) {
    Connection().uniqueName = ":12.ab3";
    Connection().ClearCalls();
    EXPECT_TRUE(Initialize());
    EXPECT_THAT(Connection().Calls(), ElementsAre("RequestName(com.norvale.Mavix.Signal.mavix12.abmavix3)"));
}

TEST_F(ClientInitialize, EventsGoToTheDefaultContextAndBusMessagesDoNot) {
    ASSERT_TRUE(Initialize());
    ASSERT_TRUE(Filter(Signal("NoSuchEvent", "")));
    ASSERT_TRUE(SignalsThreadHandles(Introspection(), introspect));
    EXPECT_THAT(Errors(), testing::Not(testing::Contains(HasSubstr("No such type"))));
    DeliverEvents();
    EXPECT_EQ(1U, m_platform.Count(6, "[API_LITE] No such type. 'NoSuchEvent'"));
}

TEST_F(ClientInitialize, WithoutAUniqueNameItFailsAndOnlyBusMessagesAreTaken) {
    Connection().uniqueName = "";
    Connection().ClearCalls();
    EXPECT_FALSE(Initialize());
    EXPECT_EQ(1U, m_platform.Count(6, "[API_LITE][END] GetUniqueName failed"));
    EXPECT_THAT(Connection().Calls(), IsEmpty());
    EXPECT_NE(nullptr, TestAccess::SignalsLoopHandler(Client()));
    EXPECT_NE(nullptr, TestAccess::BusSourceHandler(Client()));
    EXPECT_EQ(nullptr, TestAccess::MethodSourceHandler(Client()));
    EXPECT_FALSE(Filter(Signal("Data", "('1', '0', [byte 1])")));
    EXPECT_TRUE(SignalsThreadHandles(Introspection(), introspect));
}

TEST_F(ClientInitialize, ARefusedNameFailsAndOnlyBusMessagesAreTaken) {
    Connection().requestName = false;
    EXPECT_FALSE(Initialize());
    EXPECT_EQ(1U, m_platform.Count(6, "[API_LITE] Requesting name error."));
    EXPECT_NE(nullptr, TestAccess::BusSourceHandler(Client()));
    EXPECT_EQ(nullptr, TestAccess::MethodSourceHandler(Client()));
    EXPECT_FALSE(Filter(MethodCall("com.norvale.ITest", "Anything")));
    EXPECT_TRUE(SignalsThreadHandles(Introspection(), introspect));
}

TEST_F(ClientInitialize, AgainReplacesWhatTheFirstTimeHasMade) {
    Connection().requestName = false;
    ASSERT_FALSE(Initialize());
    ASSERT_TRUE(m_platform.WaitForCalls("smart_deadlock_register_watchdog_service(30)", 1));
    Connection().requestName = true;
    EXPECT_TRUE(Initialize());
    EXPECT_TRUE(m_platform.WaitForCalls("smart_deadlock_register_watchdog_service(30)", 2));
    EXPECT_TRUE(m_platform.WaitForCalls("smart_deadlock_unregister_watchdog_service()", 1));
    EXPECT_TRUE(SignalsThreadHandles(Introspection(), introspect));
    EXPECT_TRUE(Filter(Signal("NoSuchEvent", "")));
    DeliverEvents();
    EXPECT_EQ(1U, m_platform.Count(6, "[API_LITE] No such type. 'NoSuchEvent'"));
}

MAVIX_CHILD(InitializeInDebug) {
    FakedClient faked;
    if (!faked.Initialize()) {
        return 1;
    }
    TCRecordingPlatform& platform = TCRecordingPlatform::Get();
    return platform.WaitForCalls("smart_deadlock_register_watchdog_service(60)", 1) ? 0 : 2;
}

TEST_F(ClientInitializeFlavour, InDebugTheWatchdogPeriodIsAMinute) {
    const ChildResult result = RunChildProgram("InitializeInDebug", debugFlavour);
    EXPECT_EQ(0, result.exitCode) << result.errors;
}

MAVIX_CHILD(InitializeWithNull) {
    FakedClient faked;
    const bool result = faked.Owner().InitializeIpcConnection(nullptr);
    const bool nothing = TestAccess::SignalsLoopHandler(faked.Client()) == nullptr &&
                         TestAccess::BusSourceHandler(faked.Client()) == nullptr &&
                         TestAccess::MethodSourceHandler(faked.Client()) == nullptr;
    return !result && nothing ? 0 : 1;
}

constexpr const char* nullConnection = "MAVIX Assertion failed [../../../src/ipc/IpcClient:664:pConnection]";

TEST_F(ClientInitializeFlavour, ANullConnectionStopsTheProcess) {
    const ChildResult result = RunChildProgram("InitializeWithNull");
    EXPECT_EQ(SIGABRT, result.signal) << result.errors;
    EXPECT_TRUE(result.HasLine(6, nullConnection)) << result.errors;
    EXPECT_EQ("", result.output);
}

TEST_F(ClientInitializeFlavour, ANullConnectionFailsOnAReleaseAndCreatesNothing) {
    const ChildResult result = RunChildProgram("InitializeWithNull", releaseFlavour);
    EXPECT_EQ(0, result.exitCode) << result.errors;
    EXPECT_TRUE(result.HasLine(6, nullConnection)) << result.errors;
    EXPECT_EQ("ASSERT!!! - function InitializeIpcConnection, line 664\n", result.output);
}

} // namespace
