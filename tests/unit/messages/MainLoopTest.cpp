#include "MainLoopFixture.h"

#include "GlibDouble.h"

#include <cerrno>

using namespace MavixTest;
using Texts = std::vector<std::string>;

namespace {

class MainLoop : public MainLoopFixture {};

std::string NameOf(pthread_t thread) {
    char name[32] = "";
    pthread_getname_np(thread, name, sizeof name);
    return name;
}

} // namespace

TEST_F(MainLoop, RunsOnAThreadWithItsName) {
    GMainContext* const context = m_StartAndWait("SignalsThread");
    std::string name;
    pthread_t thread{};
    RunOn(context, [&] {
        thread = pthread_self();
        name = NameOf(thread);
    });
    EXPECT_EQ("SignalsThread", name);
    EXPECT_EQ(0, pthread_equal(thread, pthread_self()));
}

TEST_F(MainLoop, ANameOf15CharactersIsTaken) {
    std::string name;
    RunOn(m_StartAndWait("123456789012345"), [&] { name = NameOf(pthread_self()); });
    EXPECT_EQ("123456789012345", name);
    EXPECT_EQ(0U, m_platform.CountStarting(6, "failed to set"));
}

TEST_F(MainLoop, ALongerNameIsReportedAndTheLoopRunsAllTheSame) {
    const std::string before = NameOf(pthread_self());
    std::string name;
    RunOn(m_StartAndWait("1234567890123456"), [&] { name = NameOf(pthread_self()); });
    EXPECT_EQ(before, name) << "not cut";
    const std::string line = "failed to set 1234567890123456 name, result:" + std::to_string(ERANGE);
    ASSERT_EQ(1U, m_platform.Count(6, line));
    EXPECT_EQ("GMainLoopHandler", m_platform.LinesWith(line).front().source);
    EXPECT_EQ("m_SetCurrentThreadName", m_platform.LinesWith(line).front().function);
}

TEST_F(MainLoop, LogsItsStartAndItsEnd) {
    GMainContext* const context = m_StartAndWait("TestLoop");
    GMainLoop* const loop = TestAccess::Loop(*m_handler);
    m_handler->Stop(true);
    const std::string ids =
        LoopText("", loop) + ", context: " + LoopText("", context) + ", thread name: TestLoop";
    Texts texts;
    for (const LogLine& line : m_platform.Lines()) {
        texts.push_back(line.text);
        EXPECT_EQ(6, line.priority) << line;
        EXPECT_EQ("MAVIX_API", line.tag) << line;
        EXPECT_EQ("GMainLoopHandler", line.source) << line;
    }
    EXPECT_EQ((Texts{"Started main loop: " + ids, LoopText("quiting main loop: ", loop),
                     "Stopped main loop: " + ids}),
              texts);
    EXPECT_EQ("m_StopGMainLoop", m_platform.LinesWith(texts.at(1)).front().function);
}

TEST_F(MainLoop, RegistersNotifiesAndUnregistersOnItsThread) {
    pthread_t thread{};
    // A period of nothing notifies all the time.
    GMainContext* const context = m_StartAndWait("TestLoop", 0);
    RunOn(context, [&] { thread = pthread_self(); });
    ASSERT_TRUE(Await([this] { return m_watchdog.Count("Notify(TestLoop)") >= 3; }));
    m_handler->Stop(true);
    const Texts calls = m_watchdog.Calls();
    ASSERT_GE(calls.size(), 5U);
    EXPECT_EQ("Register(0)", calls.front());
    EXPECT_EQ("Unregister()", calls.back());
    EXPECT_EQ(static_cast<std::size_t>(std::count(calls.begin() + 1, calls.end() - 1, "Notify(TestLoop)")),
              calls.size() - 2);
    EXPECT_TRUE(m_watchdog.AllOn(thread));
}

TEST_F(MainLoop, RegistersBeforeItSaysThatItStarted) {
    Texts order;
    m_platform.onLine = [&](const LogLine& line) {
        order.push_back(line.text.substr(0, 7) + ' ' + testing::PrintToString(m_watchdog.Calls().size()));
    };
    m_StartAndWait();
    m_handler->Stop(true);
    EXPECT_EQ((Texts{"Started 1", "quiting 1", "Stopped 1"}), order);
    EXPECT_EQ((Texts{"Register(30)", "Unregister()"}), m_watchdog.Calls());
}

TEST_F(MainLoop, NotifiesSixTimesAPeriod) {
    const struct {
        int period;
        guint interval;
    } table[] = {{30, 5000}, {60, 10000}, {6, 1000}, {7, 1166}, {1, 166}, {11, 1833}};
    for (const auto& row : table) {
        GlibDouble::Reset();
        m_StartAndWait("TestLoop", row.period);
        EXPECT_EQ(std::vector<guint>{row.interval}, GlibDouble::TimeoutIntervals()) << row.period << " s";
        m_handler->Stop(true);
    }
}

TEST_F(MainLoop, WaitsBetweenNotifications) {
    constexpr auto interval = std::chrono::milliseconds(166);
    const auto start = std::chrono::steady_clock::now();
    m_StartAndWait("TestLoop", 1);
    ASSERT_TRUE(Await([this] { return m_watchdog.Count("Notify(TestLoop)") >= 2; }));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 2 * interval);
}

TEST_F(MainLoop, TheWatchdogsSourceIsUrgentAndDiesWithTheContext) {
    const MainContextHandle context = MavixApiLite::RefMainContext(m_handler->Start("TestLoop", period));
    ASSERT_TRUE(m_platform.WaitFor("Started main loop: "));
    constexpr guint firstSource = 1;
    GSource* const source = g_main_context_find_source_by_id(context.get(), firstSource);
    ASSERT_NE(nullptr, source);
    EXPECT_EQ(-100, g_source_get_priority(source));
    m_handler->Stop(true);
    EXPECT_EQ(source, g_main_context_find_source_by_id(context.get(), firstSource));
    EXPECT_FALSE(g_source_is_destroyed(source));
}

TEST_F(MainLoop, ASecondStartIsIgnoredWithoutAWord) {
    GMainContext* const context = m_StartAndWait("FirstName", 30);
    m_platform.Reset();
    EXPECT_EQ(context, m_handler->Start("SecondName", 60));
    std::string name;
    RunOn(context, [&] { name = NameOf(pthread_self()); });
    EXPECT_EQ("FirstName", name);
    EXPECT_TRUE(m_platform.Lines().empty());
    m_handler->Stop(true);
    EXPECT_EQ((Texts{"Register(30)", "Unregister()"}), m_watchdog.Calls());
    EXPECT_EQ(1U, m_platform.CountStarting(6, "Stopped main loop: "));
    EXPECT_NE(std::string::npos, m_platform.Lines().back().text.find("thread name: FirstName"));
}

TEST_F(MainLoop, StartsAnewAfterStop) {
    m_StartAndWait("FirstName", 30);
    m_handler->Stop(true);
    EXPECT_EQ(nullptr, TestAccess::Context(*m_handler));
    EXPECT_EQ(nullptr, TestAccess::Loop(*m_handler));
    std::string name;
    RunOn(m_StartAndWait("SecondName", 60), [&] { name = NameOf(pthread_self()); });
    EXPECT_EQ("SecondName", name);
    m_handler->Stop(false);
    EXPECT_EQ((Texts{"Register(30)", "Unregister()", "Register(60)", "Unregister()"}), m_watchdog.Calls());
}

TEST_F(MainLoop, AWatchdogThatThrowsIsLoggedAndTheLoopGoesOn) {
    class ThrowingWatchdog final : public TCWatchdogHandler {
        void Notify(const std::string& /*threadName*/) override { throw std::runtime_error("no watchdog"); }
    };
    TCGMainLoopHandler handler(std::make_unique<ThrowingWatchdog>());
    GMainContext* const context = handler.Start("TestLoop", 0);
    EXPECT_TRUE(m_platform.WaitFor("[API_LITE] exception: no watchdog", 3));
    EXPECT_GE(m_platform.Count(6, "[API_LITE] exception: no watchdog"), 3U);
    RunOn(context, [] {});
}

TEST_F(MainLoop, AddsTimeoutsThatAreUrgentAndIdlesThatArePatient) {
    GMainContext* const context = m_StartAndWait();
    // The loop is held, so that the sources can be looked at.
    RunOn(context, [&] {
        const auto never = [](gpointer) -> gboolean { return FALSE; };
        const guint timeout = TestAccess::TimeoutAdd(*m_handler, 1000000, never, nullptr);
        const guint idle = TestAccess::IdleAdd(*m_handler, never, nullptr);
        ASSERT_NE(0U, timeout);
        ASSERT_NE(0U, idle);
        EXPECT_EQ(-100, g_source_get_priority(g_main_context_find_source_by_id(context, timeout)));
        EXPECT_EQ(300, g_source_get_priority(g_main_context_find_source_by_id(context, idle)));
    });
}

TEST_F(MainLoop, TimeoutsAndIdlesRunOnItsThreadWithTheirData) {
    GMainContext* const context = m_StartAndWait();
    struct Seen {
        std::promise<pthread_t> thread;
    };
    const auto note = [](gpointer seen) -> gboolean {
        static_cast<Seen*>(seen)->thread.set_value(pthread_self());
        return FALSE;
    };
    pthread_t loopThread{};
    RunOn(context, [&] { loopThread = pthread_self(); });
    Seen timeout;
    Seen idle;
    TestAccess::TimeoutAdd(*m_handler, 1, note, &timeout);
    TestAccess::IdleAdd(*m_handler, note, &idle);
    EXPECT_NE(0, pthread_equal(loopThread, timeout.thread.get_future().get()));
    EXPECT_NE(0, pthread_equal(loopThread, idle.thread.get_future().get()));
}

TEST_F(MainLoop, AddingNothingIsAPreconditionThatFails) {
    m_StartAndWait();
    EXPECT_EQ(0U, TestAccess::TimeoutAdd(*m_handler, 1, nullptr, nullptr));
    Texts complaints = m_complaints.Take();
    ASSERT_EQ(1U, complaints.size());
    EXPECT_NE(std::string::npos, complaints[0].find("::m_GTimeoutAdd(")) << complaints[0];
    EXPECT_NE(std::string::npos, complaints[0].find("assertion 'function != NULL' failed")) << complaints[0];
    EXPECT_EQ(0U, TestAccess::IdleAdd(*m_handler, nullptr, nullptr));
    complaints = m_complaints.Take();
    ASSERT_EQ(1U, complaints.size());
    EXPECT_NE(std::string::npos, complaints[0].find("::m_GIdleAdd(")) << complaints[0];
    EXPECT_NE(std::string::npos, complaints[0].find("assertion 'function != NULL' failed")) << complaints[0];
}

TEST_F(MainLoop, AddingWithoutAContextGivesNoSource) {
    const auto never = [](gpointer) -> gboolean { return FALSE; };
    EXPECT_EQ(0U, TestAccess::TimeoutAdd(*m_handler, 1, never, nullptr));
    EXPECT_EQ(0U, TestAccess::IdleAdd(*m_handler, never, nullptr));
    EXPECT_EQ(0U, TestAccess::TimeoutAdd(*m_handler, 1, nullptr, nullptr));
    EXPECT_EQ(0U, TestAccess::IdleAdd(*m_handler, nullptr, nullptr));
}
