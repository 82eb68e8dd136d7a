#include "WatchdogHandler.h"
#include "RecordingPlatform.h"

#include <gtest/gtest.h>

using namespace MavixTest;
using MavixApiLite::TCWatchdogHandler;
using Texts = std::vector<std::string>;

namespace {

class WatchdogHandler : public testing::Test {
protected:
    TCRecordingPlatform& m_platform = TCRecordingPlatform::Get();
    TCWatchdogHandler m_watchdog;
};

} // namespace

TEST_F(WatchdogHandler, PassesThePeriodToThePlatform) {
    m_watchdog.Register(30);
    m_watchdog.Unregister();
    m_watchdog.Register(-1);
    EXPECT_EQ(
        (Texts{"smart_deadlock_register_watchdog_service(30)", "smart_deadlock_unregister_watchdog_service()",
               "smart_deadlock_register_watchdog_service(-1)"}),
        m_platform.Calls());
    EXPECT_TRUE(m_platform.Lines().empty());
}

TEST_F(WatchdogHandler, LogsEveryFourthNotification) {
    for (std::size_t count = 1; count <= 12; ++count) {
        m_watchdog.Notify("TestLoop");
        EXPECT_EQ(count, m_platform.CountCalls("smart_deadlock_watchdog_notify()"));
        EXPECT_EQ(count / 4, m_platform.Count(6, "[TestLoop] watchdog notify")) << count;
        EXPECT_EQ(count / 4, m_platform.Lines().size()) << count;
    }
    EXPECT_EQ("WatchdogHandler", m_platform.Lines().front().source);
    EXPECT_EQ("Notify", m_platform.Lines().front().function);
}

TEST_F(WatchdogHandler, CountsForEachHandlerAlone) {
    TCWatchdogHandler other;
    for (int count = 0; count < 3; ++count) {
        m_watchdog.Notify("One");
        other.Notify("Two");
    }
    EXPECT_TRUE(m_platform.Lines().empty());
    other.Notify("Two");
    EXPECT_EQ(1U, m_platform.Count(6, "[Two] watchdog notify"));
    EXPECT_EQ(1U, m_platform.Lines().size());
}

TEST_F(WatchdogHandler, ItsDestructorTellsNobody) {
    { const TCWatchdogHandler watchdog; }
    EXPECT_TRUE(m_platform.Calls().empty());
}
