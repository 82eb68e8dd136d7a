#include "SourceFixture.h"

#include <dlfcn.h>
#include <fstream>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>

using namespace MavixTest;
using Numbers = std::vector<std::int32_t>;

// A dispatch held at its two dangerous moments while another thread stops: between GLib's decision and the
// dispatch mutex, and between the mutex and the question whether the source was destroyed. This program
// stands between the library and GLib's answer to that question.

namespace {

gboolean IsDestroyed(GSource* source) {
    static const auto next =
        reinterpret_cast<decltype(&g_source_is_destroyed)>(dlsym(RTLD_NEXT, "g_source_is_destroyed"));
    return next(source);
}

// What the next dispatch runs before or after it is answered, once.
std::function<void()> beforeAnswer;
std::function<void()> afterAnswer;

bool IsDispatching(GSource* source) {
    constexpr guint inCall = 1U << 1U; // as GHook numbers it
    return (__atomic_load_n(&source->flags, __ATOMIC_SEQ_CST) & inCall) != 0;
}

// Whether a thread sleeps in the kernel.
bool Sleeps(pid_t thread) {
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string text;
    std::getline(file, text);
    const std::size_t end = text.rfind(')');
    return end != std::string::npos && text.compare(end, 3, ") S") == 0;
}

class MessageSourceHold : public MessageSourceFixture {
protected:
    ~MessageSourceHold() override {
        beforeAnswer = nullptr;
        afterAnswer = nullptr;
    }

    // Runs one iteration elsewhere, whose dispatch then waits for the token, which the test holds.
    std::future<void> m_IterateWithoutToken() {
        TestAccess::Semaphore(*m_handler)->Wait();
        std::future<void> iteration = std::async(std::launch::async, [this] { m_Iterate(); });
        EXPECT_TRUE(Await([this] { return IsDispatching(m_Source()); }));
        return iteration;
    }

    // Stops elsewhere and returns when the stopper waits, because the caller holds the dispatch mutex.
    std::future<void> m_StopUntilItWaits(GSource* source) {
        std::atomic<pid_t> thread{0};
        std::future<void> stop = std::async(std::launch::async, [this, &thread] {
            thread = static_cast<pid_t>(syscall(SYS_gettid));
            m_handler->Stop();
        });
        EXPECT_TRUE(Await([&] { return IsDestroyed(source) != FALSE && Sleeps(thread); }));
        return stop;
    }
};

} // namespace

extern "C" gboolean g_source_is_destroyed(GSource* source) {
    if (const auto hook = std::exchange(beforeAnswer, nullptr)) {
        hook();
    }
    const gboolean destroyed = IsDestroyed(source);
    if (const auto hook = std::exchange(afterAnswer, nullptr)) {
        hook();
    }
    return destroyed;
}

TEST_F(MessageSourceHold, AWholeStopBeforeTheMutexEndsTheDispatch) {
    m_Start();
    m_Push(1);
    const SourceHandle source(g_source_ref(m_Source()));
    const auto semaphore = TestAccess::Semaphore(*m_handler);
    std::future<void> iteration = m_IterateWithoutToken();
    m_handler->Stop();
    EXPECT_EQ(1, m_allocator.deleted);
    semaphore->Signal();
    Within(iteration);
    m_ExpectLines(6, "m_GSourceHandlerDispatch", "Stopping in progress! Quiting..");
    EXPECT_TRUE(semaphore->signalled) << "given back, for a stopper that waits";
    EXPECT_TRUE(m_delivered.empty());
}

TEST_F(MessageSourceHold, AProducerAfterAWholeStopIsNotServed) {
    m_Start();
    m_Push(1);
    const MavixApiLite::AsyncQueueHandle queue = MavixApiLite::RefAsyncQueue(m_queue);
    const auto semaphore = TestAccess::Semaphore(*m_handler);
    std::future<void> iteration = m_IterateWithoutToken();
    m_handler.reset();
    g_async_queue_push(queue.get(), Numbered(2).release());
    semaphore->Signal();
    Within(iteration);
    m_ExpectLines(6, "m_GSourceHandlerDispatch", "Stopping in progress! Quiting..");
    EXPECT_TRUE(m_delivered.empty());
    EXPECT_EQ(1, messagesAlive) << "it is freed with the queue";
}

TEST_F(MessageSourceHold, AStopThatDrainsEndsTheDispatch) {
    m_Start();
    m_Push(1);
    const auto semaphore = TestAccess::Semaphore(*m_handler);
    std::future<void> iteration = m_IterateWithoutToken();
    m_allocator.onDelete = [&] {
        // The dispatch mutex is ours now.
        semaphore->Signal();
        Within(iteration);
    };
    m_handler->Stop();
    m_ExpectLines(6, "m_GSourceHandlerDispatch", "Stopping in progress! Quiting..");
    EXPECT_FALSE(semaphore->signalled) << "nobody waits for it";
    EXPECT_TRUE(m_delivered.empty());
}

TEST_F(MessageSourceHold, AStopperThatMetTheMutexIsReleasedByADestroyedSource) {
    m_Start();
    m_Push(1);
    const SourceHandle source(g_source_ref(m_Source()));
    std::future<void> stop;
    beforeAnswer = [&] { stop = m_StopUntilItWaits(source.get()); };
    m_Iterate();
    Within(stop);
    m_ExpectLines(6, "m_GSourceHandlerDispatch", "Stopping in progress! Quiting..");
    EXPECT_TRUE(m_delivered.empty());
    EXPECT_EQ(1, m_allocator.deleted);
}

TEST_F(MessageSourceHold, AStopperThatMetTheMutexIsReleasedByAnEmptyQueue) {
    m_Start();
    m_Push(1);
    const SourceHandle source(g_source_ref(m_Source()));
    std::future<void> stop;
    afterAnswer = [&] {
        g_object_unref(g_async_queue_try_pop(m_queue));
        stop = m_StopUntilItWaits(source.get());
    };
    m_Iterate();
    Within(stop);
    m_ExpectLines(6, "m_GSourceHandlerDispatch", "No message! Quiting..");
}

TEST_F(MessageSourceHold, AStopperThatMetTheMutexWaitsForTheHandler) {
    m_Start();
    m_Push(1);
    const SourceHandle source(g_source_ref(m_Source()));
    std::future<void> stop;
    afterAnswer = [&] { stop = m_StopUntilItWaits(source.get()); };
    m_Iterate();
    Within(stop);
    EXPECT_EQ(Numbers{1}, m_delivered);
    EXPECT_EQ(0, m_allocator.deleted);
}

// The thread that stops has handled messages before: that must not be taken for a stop from inside a handler,
// which would end this process.
TEST_F(MessageSourceHold, AStopperThatOnceDispatchedIsNotRefused) {
    m_Start();
    m_Push(1);
    m_Iterate();
    EXPECT_EQ(Numbers{1}, m_delivered);
    m_Push(2);
    const SourceHandle source(g_source_ref(m_Source()));
    std::promise<void> held;
    std::promise<void> stopping;
    std::future<void> stoppingSeen = stopping.get_future();
    beforeAnswer = [&] {
        held.set_value();
        Within(stoppingSeen);
    };
    std::future<void> iteration = std::async(std::launch::async, [this] { m_Iterate(); });
    std::future<void> heldSeen = held.get_future();
    Within(heldSeen);
    // The other thread looks on until this one waits.
    const auto self = static_cast<pid_t>(syscall(SYS_gettid));
    std::future<void> watcher = std::async(std::launch::async, [&] {
        EXPECT_TRUE(Await([&] { return IsDestroyed(source.get()) != FALSE && Sleeps(self); }));
        stopping.set_value();
    });
    m_handler->Stop();
    Within(watcher);
    Within(iteration);
    m_ExpectLines(6, "m_GSourceHandlerDispatch", "Stopping in progress! Quiting..");
}
