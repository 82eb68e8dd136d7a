#include "SourceFixture.h"

#include <stdexcept>

using namespace MavixTest;
using Numbers = std::vector<std::int32_t>;

// How delivery ends: by Stop from another thread, by an empty queue, by exceptions.

namespace {

class MessageSourceEnd : public MessageSourceFixture {
protected:
    std::future<void> m_StopElsewhere() {
        return std::async(std::launch::async, [this] { m_handler->Stop(); });
    }
};

} // namespace

TEST_F(MessageSourceEnd, StopElsewhereWaitsForTheHandlerAndFreesTheRest) {
    m_Start();
    for (std::int32_t number : {1, 2, 3}) {
        m_Push(number);
    }
    const SourceHandle source(g_source_ref(m_Source()));
    std::promise<void> inHandler;
    bool returned = false;
    bool returnedBeforeStop = false;
    m_onMessage = [&](TIIpcMessage&) {
        inHandler.set_value();
        ASSERT_TRUE(Await([&] { return g_source_is_destroyed(source.get()) != FALSE; }));
        returned = true;
    };
    std::future<void> entered = inHandler.get_future();
    std::future<void> stop = std::async(std::launch::async, [&] {
        Within(entered);
        m_handler->Stop();
        returnedBeforeStop = returned;
    });
    m_IterateAll();
    Within(stop);
    EXPECT_TRUE(returnedBeforeStop);
    EXPECT_EQ(Numbers{1}, m_delivered);
    EXPECT_EQ(2, m_allocator.deleted);
    EXPECT_EQ(0, messagesAlive);
}

TEST_F(MessageSourceEnd, AnEmptyQueueRemovesTheSourceAndGivesTheTokenBack) {
    m_Start();
    EXPECT_FALSE(TestAccess::Dispatch(m_Source(), m_handler.get()));
    m_ExpectLines(6, "m_GSourceHandlerDispatch", "No message! Quiting..");
    EXPECT_TRUE(m_HasToken());
    EXPECT_EQ(0, m_allocator.wrapped);
}

TEST_F(MessageSourceEnd, AnotherConsumerThatTakesTheElementEndsDelivery) {
    // Attached first, so dispatched first.
    GAsyncQueue* queue = nullptr;
    const SourceHandle thief(g_idle_source_new());
    g_source_set_priority(thief.get(), G_PRIORITY_DEFAULT);
    g_source_set_callback(
        thief.get(),
        [](gpointer at) -> gboolean {
            g_object_unref(g_async_queue_try_pop(*static_cast<GAsyncQueue**>(at)));
            return FALSE;
        },
        &queue, nullptr);
    g_source_attach(thief.get(), m_context.get());
    m_Start();
    queue = m_queue;
    m_Push(1);
    EXPECT_TRUE(m_Iterate());
    m_ExpectLines(6, "m_GSourceHandlerDispatch", "No message! Quiting..");
    EXPECT_TRUE(g_source_is_destroyed(m_Source()));
    // Later messages stay until Stop.
    m_Push(2);
    m_IterateAll();
    EXPECT_TRUE(m_delivered.empty());
    EXPECT_EQ(1, messagesAlive);
    std::future<void> stop = m_StopElsewhere();
    Within(stop);
    EXPECT_EQ(1, m_allocator.deleted);
    // A new start delivers again.
    m_Start();
    m_Push(3);
    m_IterateAll();
    EXPECT_EQ(Numbers{3}, m_delivered);
}

TEST_F(MessageSourceEnd, AnAllocatorWithoutAWrapperRemovesTheSource) {
    m_Start();
    m_allocator.onNewMessage = [](void* raw) {
        g_object_unref(raw);
        return std::unique_ptr<TIIpcMessage>();
    };
    m_Push(1);
    m_IterateAll();
    m_ExpectLines(6, "m_GSourceHandlerDispatch", "No message! Quiting..");
    EXPECT_TRUE(m_HasToken());
    EXPECT_TRUE(g_source_is_destroyed(m_Source()));
}

TEST_F(MessageSourceEnd, AThrowingHandlerIsLoggedOnceAndDeliveryGoesOn) {
    m_Start();
    m_onMessage = [this](TIIpcMessage&) {
        if (m_delivered.size() == 1) {
            throw std::runtime_error("boom");
        }
        if (m_delivered.size() == 2) {
            throw 7;
        }
    };
    m_Push(1);
    m_IterateAll();
    m_ExpectLines(6, "m_GSourceHandlerDispatch", "[API_LITE] exception: boom");
    EXPECT_EQ(0, messagesAlive) << "the wrapper is gone";
    EXPECT_EQ(pthread_t{}, TestAccess::DispatchThread(*m_handler));
    m_Push(2);
    m_IterateAll();
    m_ExpectLines(6, "m_GSourceHandlerDispatch", "[API_LITE] exception of unknown type");
    m_Push(3);
    m_IterateAll();
    EXPECT_EQ((Numbers{1, 2, 3}), m_delivered);
    EXPECT_TRUE(m_HasToken());
    std::future<void> stop = m_StopElsewhere();
    Within(stop);
}

TEST_F(MessageSourceEnd, AnEmptyHandlerIsLoggedAndTheMutexIsFreeAgain) {
    m_queue = m_handler->Start(m_context.get(), nullptr);
    m_Push(1);
    m_Push(2);
    m_IterateAll();
    m_ExpectLines(6, "m_GSourceHandlerDispatch", "[API_LITE] exception: bad_function_call", 2);
    EXPECT_EQ(0, messagesAlive);
    EXPECT_FALSE(g_source_is_destroyed(m_Source()));
    std::future<bool> locked = std::async(std::launch::async, [this] {
        const std::unique_lock<std::mutex> lock(*TestAccess::Mutex(*m_handler), std::try_to_lock);
        return lock.owns_lock();
    });
    EXPECT_TRUE(Within(locked));
    std::future<void> stop = m_StopElsewhere();
    Within(stop);
}

TEST_F(MessageSourceEnd, TheDispatchingThreadIsKnownOnlyWhileTheHandlerRuns) {
    m_Start();
    pthread_t during{};
    bool tokenDuring = false;
    m_onMessage = [&](TIIpcMessage&) {
        during = TestAccess::DispatchThread(*m_handler);
        tokenDuring = m_HasToken();
    };
    m_Push(1);
    m_IterateAll();
    EXPECT_NE(0, pthread_equal(during, pthread_self()));
    EXPECT_TRUE(tokenDuring) << "the token is back before the handler runs";
    EXPECT_EQ(pthread_t{}, TestAccess::DispatchThread(*m_handler));
}

TEST_F(MessageSourceEnd, TheSourceOutlivesItsHandlerSafely) {
    m_Start();
    const SourceHandle source(g_source_ref(m_Source()));
    const MavixApiLite::AsyncQueueHandle queue = MavixApiLite::RefAsyncQueue(m_queue);
    const auto semaphore = TestAccess::Semaphore(*m_handler);
    TCGSourceHandler* const dead = m_handler.get();
    m_handler.reset();
    gint timeout = 0;
    EXPECT_FALSE(TestAccess::Prepare(source.get(), &timeout));
    g_async_queue_push(queue.get(), Numbered(1).release());
    EXPECT_TRUE(TestAccess::Check(source.get()));
    EXPECT_FALSE(TestAccess::Dispatch(source.get(), dead));
    m_ExpectLines(6, "m_GSourceHandlerDispatch", "Stopping in progress! Quiting..");
    EXPECT_TRUE(semaphore->signalled);
    EXPECT_EQ(1, messagesAlive) << "nothing was taken";
    EXPECT_TRUE(m_delivered.empty());
}

TEST_F(MessageSourceEnd, ADispatchDuringStopQuitsAndKeepsTheToken) {
    m_Start();
    m_Push(1);
    const auto mutex = TestAccess::Mutex(*m_handler);
    std::future<gboolean> dispatch;
    {
        const std::lock_guard<std::mutex> stopping(*mutex);
        dispatch = std::async(std::launch::async,
                              [this] { return TestAccess::Dispatch(m_Source(), m_handler.get()); });
        EXPECT_FALSE(Within(dispatch));
    }
    m_ExpectLines(6, "m_GSourceHandlerDispatch", "Stopping in progress! Quiting..");
    EXPECT_FALSE(m_HasToken());
    EXPECT_EQ(1, g_async_queue_length(m_queue));
}
