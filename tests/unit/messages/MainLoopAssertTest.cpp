#include "ChildProgram.h"
#include "FlavourFixture.h"
#include "GlibDouble.h"
#include "MainLoopFixture.h"

#include <csignal>

using namespace MavixTest;

namespace {

constexpr const char* file = "../../../src/ipc/GMainLoopHandler";

class MainLoopAssertion : public FlavourFixture {
protected:
    static void m_ExpectAbort(const ChildResult& result, const std::string& expression) {
        EXPECT_EQ(SIGABRT, result.signal) << result.errors;
        EXPECT_TRUE(HasAssertion(result, file, expression)) << result.errors;
        EXPECT_TRUE(result.output.empty()) << result.output;
    }
    static void m_ExpectGoesOn(const ChildResult& result, const std::string& expression) {
        EXPECT_EQ(0, result.exitCode) << result.errors;
        EXPECT_EQ(0, result.signal) << result.errors;
        EXPECT_TRUE(HasAssertion(result, file, expression)) << result.errors;
    }
};

class SilentWatchdog final : public TCWatchdogHandler {
public:
    int notified = 0;
    void Notify(const std::string& /*threadName*/) override { ++notified; }
};

} // namespace

MAVIX_CHILD(HandlerWithoutWatchdog) {
    TCGMainLoopHandler handler(nullptr);
    // Only a release build comes here.
    GMainContext* const context = handler.Start("TestLoop", 30);
    RunOn(context, [] {});
    handler.Stop(false);
    return 0;
}

TEST_F(MainLoopAssertion, AHandlerWithoutWatchdogAborts) {
    m_ExpectAbort(RunChildProgram("HandlerWithoutWatchdog"), "m_pWatchdogHandler");
}

TEST_F(MainLoopAssertion, AHandlerWithoutWatchdogRunsItsLoopOnARelease) {
    const ChildResult result = RunChildProgram("HandlerWithoutWatchdog", releaseFlavour);
    m_ExpectGoesOn(result, "m_pWatchdogHandler");
    EXPECT_NE(std::string::npos, result.errors.find("Stopped main loop: ")) << result.errors;
    EXPECT_EQ(std::string::npos, result.errors.find("smart_deadlock")) << result.errors;
}

// Argument: what is missing.
MAVIX_CHILD(IncompleteNotification) {
    SilentWatchdog watchdog;
    const std::string name = "TestLoop";
    TestAccess::Notification record{&name, &watchdog};
    if (arguments.at(0) == "pWatchdogHandler") {
        record.pWatchdogHandler = nullptr;
    } else if (arguments.at(0) == "pThreadName") {
        record.pThreadName = nullptr;
    }
    const gboolean again =
        TestAccess::WatchdogNotify(arguments.at(0) == "pNotificationData" ? nullptr : &record);
    return again != FALSE && watchdog.notified == 0 ? 0 : 1;
}

TEST_F(MainLoopAssertion, AnIncompleteNotificationAborts) {
    for (const char* missing : {"pNotificationData", "pWatchdogHandler", "pThreadName"}) {
        m_ExpectAbort(RunChildProgram("IncompleteNotification", plainFlavour, {missing}), missing);
    }
}

TEST_F(MainLoopAssertion, AnIncompleteNotificationIsSkippedOnARelease) {
    for (const char* missing : {"pNotificationData", "pWatchdogHandler", "pThreadName"}) {
        m_ExpectGoesOn(RunChildProgram("IncompleteNotification", releaseFlavour, {missing}), missing);
    }
}

TEST(MainLoopNotification, IsCompleteAndRepeats) {
    SilentWatchdog watchdog;
    const std::string name = "TestLoop";
    TestAccess::Notification record{&name, &watchdog};
    EXPECT_TRUE(TestAccess::WatchdogNotify(&record));
    EXPECT_EQ(1, watchdog.notified);
}

MAVIX_CHILD(NoContextToBeHad) {
    TCGMainLoopHandler handler(std::make_unique<SilentWatchdog>());
    GlibDouble::SetContextsFail(true);
    GMainContext* const context = handler.Start("TestLoop", 30);
    // Only a release build comes here: the loop runs on the default context, where nobody quits it.
    GMainLoop* const loop = TestAccess::Loop(handler);
    if (context != nullptr || loop == nullptr || g_main_loop_get_context(loop) != g_main_context_default() ||
        !Await([loop] { return g_main_loop_is_running(loop) != FALSE; })) {
        return 1;
    }
    g_main_loop_quit(loop);
    handler.Stop(true);
    return 0;
}

TEST_F(MainLoopAssertion, WithoutAContextStartAborts) {
    m_ExpectAbort(RunChildProgram("NoContextToBeHad"), "m_pGMainContext");
}

TEST_F(MainLoopAssertion, WithoutAContextStartGoesOnOnARelease) {
    m_ExpectGoesOn(RunChildProgram("NoContextToBeHad", releaseFlavour), "m_pGMainContext");
}

MAVIX_CHILD(NoLoopToBeHad) {
    TCGMainLoopHandler handler(std::make_unique<SilentWatchdog>());
    GlibDouble::SetLoopsFail(true);
    GMainContext* const context = handler.Start("TestLoop", 30);
    // Only a release build comes here; the thread ends by itself and nobody else joins it.
    TestAccess::Thread(handler).join();
    handler.Stop(true);
    return context != nullptr && TestAccess::Loop(handler) == nullptr ? 0 : 1;
}

TEST_F(MainLoopAssertion, WithoutALoopStartAborts) {
    m_ExpectAbort(RunChildProgram("NoLoopToBeHad"), "m_pGMainLoop");
}

TEST_F(MainLoopAssertion, WithoutALoopStartGoesOnOnARelease) {
    m_ExpectGoesOn(RunChildProgram("NoLoopToBeHad", releaseFlavour), "m_pGMainLoop");
}

MAVIX_CHILD(DestroyWithAThreadThatNobodyJoined) {
    {
        TCGMainLoopHandler handler(std::make_unique<SilentWatchdog>());
        GlibDouble::SetLoopsFail(true);
        handler.Start("TestLoop", 30);
        // The last that the thread does with the handler.
        TCRecordingPlatform::Get().WaitForCalls("smart_deadlock_unregister_watchdog_service()", 1);
    }
    return 0;
}

TEST_F(MainLoopAssertion, AThreadThatNobodyJoinedStopsTheProcessOnAReleaseToo) {
    const ChildResult result = RunChildProgram("DestroyWithAThreadThatNobodyJoined", releaseFlavour);
    EXPECT_EQ(SIGABRT, result.signal) << result.errors;
    EXPECT_EQ(1U, CountAssertions(result, file, "m_pGMainLoop")) << result.errors;
}
