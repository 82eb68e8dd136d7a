#include "GlibDouble.h"
#include "MainLoopFixture.h"
#include "TestScale.h"

#include <system_error>

using namespace MavixTest;
using Texts = std::vector<std::string>;

namespace {

class MainLoopStop : public MainLoopFixture {
protected:
    // What runs on the loop, in its order.
    struct Work {
        std::vector<std::string>* served;
        std::string name;
        static gboolean Serve(gpointer work) {
            static_cast<Work*>(work)->served->push_back(static_cast<Work*>(work)->name);
            return FALSE;
        }
    };

    // Stops a loop that is busy and has work of several priorities pending; gives what was served.
    std::vector<std::string> m_StopWithPendingWork(const std::function<void()>& stop) {
        std::vector<std::string> served;
        Work normal{&served, "normal"};
        Work idle{&served, "idle"};
        GMainContext* const context = m_StartAndWait();
        std::promise<void> busy;
        std::future<void> isBusy = busy.get_future();
        std::future<void> holder = std::async(std::launch::async, [&] {
            RunOn(context, [&] {
                const guint last = m_Attach(context, G_PRIORITY_DEFAULT_IDLE, &idle);
                EXPECT_EQ(last + 1, m_Attach(context, G_PRIORITY_DEFAULT, &normal));
                busy.set_value();
                // The next source is the one that stops the loop.
                EXPECT_TRUE(
                    Await([&] { return g_main_context_find_source_by_id(context, last + 2) != nullptr; }));
            });
        });
        isBusy.wait();
        stop();
        holder.wait();
        return served;
    }

    static guint m_Attach(GMainContext* context, gint priority, Work* work) {
        const SourceHandle source(g_idle_source_new());
        g_source_set_priority(source.get(), priority);
        g_source_set_callback(source.get(), Work::Serve, work, nullptr);
        return g_source_attach(source.get(), context);
    }
};

} // namespace

TEST_F(MainLoopStop, WithHighPriorityLeavesPendingWorkUnserved) {
    EXPECT_EQ(Texts{}, m_StopWithPendingWork([this] { m_handler->Stop(true); }));
}

TEST_F(MainLoopStop, WithLowPriorityServesPendingWorkFirst) {
    EXPECT_EQ((Texts{"normal", "idle"}), m_StopWithPendingWork([this] { m_handler->Stop(false); }));
}

TEST_F(MainLoopStop, TheDestructorStopsWithHighPriority) {
    EXPECT_EQ(Texts{}, m_StopWithPendingWork([this] { m_handler.reset(); }));
}

TEST_F(MainLoopStop, OfANeverStartedHandlerReturnsAtOnce) {
    m_handler->Stop(true);
    m_handler->Stop(false);
    m_handler.reset();
    EXPECT_EQ(Texts{"destroyed"}, m_watchdog.Calls());
    EXPECT_TRUE(m_platform.Lines().empty());
}

TEST_F(MainLoopStop, AHandlerThatGotNoThreadIsAsNeverStarted) {
    GlibDouble::SetThreadsFail(true);
    EXPECT_THROW(m_handler->Start("TestLoop", period), std::system_error);
    GlibDouble::SetThreadsFail(false);
    EXPECT_EQ(nullptr, TestAccess::Context(*m_handler));
    EXPECT_EQ(nullptr, TestAccess::Loop(*m_handler));
    m_StartAndWait();
    m_handler = m_New();
    GlibDouble::SetThreadsFail(true);
    EXPECT_THROW(m_handler->Start("TestLoop", period), std::system_error);
    GlibDouble::SetThreadsFail(false);
    m_handler.reset();
}

TEST_F(MainLoopStop, TwiceReturnsAtOnceTheSecondTime) {
    m_StartAndWait();
    m_handler->Stop(true);
    m_platform.Reset();
    m_handler->Stop(true);
    m_handler->Stop(false);
    EXPECT_TRUE(m_platform.Lines().empty());
}

TEST_F(MainLoopStop, RightAfterStartIsNotLost) {
    const unsigned int rounds = Scaled(500);
    for (unsigned int round = 0; round < rounds; ++round) {
        m_handler->Start("TestLoop", period);
        m_handler->Stop(round % 2 == 0);
    }
    EXPECT_EQ(rounds, m_watchdog.Count("Register(30)"));
    EXPECT_EQ(rounds, m_watchdog.Count("Unregister()"));
    EXPECT_EQ(rounds, m_platform.CountStarting(6, "Started main loop: "));
    EXPECT_EQ(rounds, m_platform.CountStarting(6, "Stopped main loop: "));
}

TEST_F(MainLoopStop, TheDestructorStopsALoopThatHasNotRunYet) {
    const unsigned int rounds = Scaled(500);
    for (unsigned int round = 0; round < rounds; ++round) {
        m_handler = m_New();
        m_handler->Start("TestLoop", period);
    }
    m_handler.reset();
    EXPECT_EQ(rounds, m_watchdog.Count("Register(30)"));
    EXPECT_EQ(rounds, m_watchdog.Count("Unregister()"));
}

TEST_F(MainLoopStop, TheWatchdogOutlivesTheThread) {
    m_StartAndWait();
    m_handler.reset();
    EXPECT_EQ((Texts{"Register(30)", "Unregister()", "destroyed"}), m_watchdog.Calls());
}

TEST_F(MainLoopStop, NothingIsDispatchedForThoseWhoKeptTheContext) {
    const MainContextHandle context = MavixApiLite::RefMainContext(m_StartAndWait("TestLoop", 0));
    m_handler->Stop(true);
    std::vector<std::string> served;
    Work work{&served, "late"};
    m_Attach(context.get(), G_PRIORITY_DEFAULT, &work);
    const Texts calls = m_watchdog.Calls();
    EXPECT_EQ("Unregister()", calls.back());
    m_handler.reset();
    EXPECT_TRUE(served.empty());
}

TEST_F(MainLoopStop, ReleasesContextAndLoop) {
    bool contextGone = false;
    GMainContext* const context = m_StartAndWait();
    const SourceHandle witness(g_timeout_source_new(1000000));
    g_source_set_callback(
        witness.get(), [](gpointer) -> gboolean { return TRUE; }, &contextGone,
        [](gpointer gone) { *static_cast<bool*>(gone) = true; });
    g_source_attach(witness.get(), context);
    EXPECT_FALSE(contextGone);
    m_handler->Stop(true);
    EXPECT_TRUE(contextGone);
}

TEST_F(MainLoopStop, TheQuitFunctionTakesNoLoop) {
    EXPECT_FALSE(TestAccess::StopLoop(nullptr));
    EXPECT_EQ(1U, m_platform.Count(6, LoopText("quiting main loop: ", nullptr)));
}

TEST_F(MainLoopStop, TheQuitFunctionRunsOnce) {
    GMainLoop* const loop = TestAccess::Loop(*m_handler);
    EXPECT_EQ(nullptr, loop);
    const MainContextHandle context(g_main_context_new());
    const MavixApiLite::MainLoopHandle own(g_main_loop_new(context.get(), TRUE));
    EXPECT_FALSE(TestAccess::StopLoop(own.get()));
    EXPECT_FALSE(g_main_loop_is_running(own.get()));
    EXPECT_EQ(1U, m_platform.Count(6, LoopText("quiting main loop: ", own.get())));
}
