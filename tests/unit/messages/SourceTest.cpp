#include "SourceFixture.h"

using namespace MavixTest;
using Numbers = std::vector<std::int32_t>;
using MavixApiLite::AsyncQueueHandle;

namespace {

class MessageSource : public MessageSourceFixture {};

} // namespace

TEST_F(MessageSource, StopOfANeverStartedHandlerSaysSoEachTime) {
    m_handler->Stop();
    m_ExpectLines(4, "Stop", "Already stopped");
    m_handler->Stop();
    m_ExpectLines(4, "Stop", "Already stopped");
}

TEST_F(MessageSource, ASecondStopSaysThatItIsStopped) {
    m_Start();
    m_handler->Stop();
    m_ExpectLines(0, "", "", 0);
    m_handler->Stop();
    m_ExpectLines(4, "Stop", "Already stopped");
}

TEST_F(MessageSource, NothingExistsBeforeStart) {
    EXPECT_EQ(nullptr, m_Source());
    EXPECT_EQ(nullptr, TestAccess::Mutex(*m_handler));
    EXPECT_EQ(nullptr, TestAccess::Semaphore(*m_handler));
    EXPECT_EQ(pthread_t{}, TestAccess::DispatchThread(*m_handler));
}

TEST_F(MessageSource, ASecondStartChangesNothing) {
    m_Start();
    GSource* const source = m_Source();
    const MainContextHandle other(g_main_context_new());
    EXPECT_EQ(m_queue, m_handler->Start(other.get(), [](TIIpcMessage&) { ADD_FAILURE(); }));
    m_ExpectLines(6, "Start", "Already started");
    EXPECT_EQ(source, m_Source());
    m_Push(1);
    EXPECT_FALSE(g_main_context_iteration(other.get(), FALSE));
    EXPECT_TRUE(m_Iterate());
    EXPECT_EQ(Numbers{1}, m_delivered);
}

TEST_F(MessageSource, DeliversOneMessagePerDispatchInOrder) {
    m_Start();
    for (std::int32_t number : {1, 2, 3}) {
        m_Push(number);
    }
    for (std::size_t count = 1; count <= 3; ++count) {
        EXPECT_TRUE(m_Iterate());
        EXPECT_EQ(count, m_delivered.size());
    }
    EXPECT_FALSE(m_Iterate());
    EXPECT_EQ((Numbers{1, 2, 3}), m_delivered);
    EXPECT_TRUE(m_HasToken());
}

TEST_F(MessageSource, OtherSourcesGetTheirTurnBetweenMessages) {
    m_Start();
    const SourceHandle other(g_idle_source_new());
    g_source_set_priority(other.get(), G_PRIORITY_DEFAULT);
    g_source_set_callback(
        other.get(),
        [](gpointer delivered) -> gboolean {
            static_cast<Numbers*>(delivered)->push_back(0);
            return TRUE;
        },
        &m_delivered, nullptr);
    g_source_attach(other.get(), m_context.get());
    m_Push(1);
    m_Push(2);
    m_Iterate();
    m_Iterate();
    g_source_destroy(other.get());
    EXPECT_EQ((Numbers{1, 0, 2, 0}), m_delivered);
}

TEST_F(MessageSource, HasTheDefaultPriorityAndNoName) {
    m_Start();
    EXPECT_EQ(G_PRIORITY_DEFAULT, g_source_get_priority(m_Source()));
    EXPECT_EQ(nullptr, g_source_get_name(m_Source()));
    EXPECT_EQ(-1, g_source_get_ready_time(m_Source()));
    EXPECT_EQ(m_context.get(), g_source_get_context(m_Source()));
}

TEST_F(MessageSource, IsReadyExactlyWhileSomethingIsQueued) {
    m_Start();
    gint timeout = 12345;
    EXPECT_FALSE(TestAccess::Prepare(m_Source(), &timeout));
    EXPECT_FALSE(TestAccess::Check(m_Source()));
    m_Push(1);
    EXPECT_TRUE(TestAccess::Prepare(m_Source(), &timeout));
    EXPECT_TRUE(TestAccess::Check(m_Source()));
    EXPECT_EQ(12345, timeout) << "the timeout is left alone";
    m_IterateAll();
    EXPECT_FALSE(TestAccess::Prepare(m_Source(), &timeout));
    EXPECT_FALSE(TestAccess::Check(m_Source()));
}

TEST_F(MessageSource, IsNotReadyWhileAnotherConsumerWaits) {
    m_Start();
    const AsyncQueueHandle queue = MavixApiLite::RefAsyncQueue(m_queue);
    std::future<void*> taken =
        std::async(std::launch::async, [&queue] { return g_async_queue_pop(queue.get()); });
    ASSERT_TRUE(Await([&queue] { return g_async_queue_length(queue.get()) < 0; }));
    gint timeout = 0;
    EXPECT_FALSE(TestAccess::Prepare(m_Source(), &timeout));
    EXPECT_FALSE(TestAccess::Check(m_Source()));
    m_Push(1);
    const RawMessage message(static_cast<GDBusMessage*>(Within(taken)));
    EXPECT_TRUE(message);
}

TEST_F(MessageSource, PushTakesAReferenceOfItsOwn) {
    m_Start();
    TCGdbusMessage message;
    message.SetRawMessage(Numbered(1).release());
    void* const raw = message.GetRawMessage(false);
    m_onMessage = [raw](TIIpcMessage& delivered) { EXPECT_EQ(raw, delivered.GetRawMessage(false)); };
    m_handler->PushMessage(message);
    EXPECT_EQ(2U, G_OBJECT(raw)->ref_count);
    EXPECT_EQ(raw, message.GetRawMessage(false));
    m_IterateAll();
    EXPECT_EQ(Numbers{1}, m_delivered);
    EXPECT_EQ(1U, G_OBJECT(raw)->ref_count);
}

TEST_F(MessageSource, PushDoesNotAskWhetherItIsStarted) {
    TCGdbusMessage message;
    message.SetRawMessage(Numbered(1).release());
    m_handler->PushMessage(message);
    EXPECT_EQ(std::vector<std::string>{"GLib: g_async_queue_push: assertion 'queue' failed"},
              m_complaints.Take());
    // The reference that nobody took.
    g_object_unref(message.GetRawMessage(false));
}

TEST_F(MessageSource, TakesWhatIsPushedIntoItsQueue) {
    m_Start();
    g_async_queue_push(m_queue, Numbered(5).release());
    m_IterateAll();
    EXPECT_EQ(Numbers{5}, m_delivered);
    EXPECT_EQ(1, m_allocator.wrapped);
}

TEST_F(MessageSource, PushWakesAContextThatSleeps) {
    m_Start();
    std::future<void> iteration = std::async(std::launch::async, [this] {
        while (m_delivered.empty()) {
            g_main_context_iteration(m_context.get(), TRUE);
        }
    });
    m_Push(1);
    Within(iteration);
    EXPECT_EQ(Numbers{1}, m_delivered);
}

TEST_F(MessageSource, StopFreesWhatIsQueuedThroughTheAllocator) {
    m_Start();
    for (std::int32_t number : {1, 2, 3}) {
        m_Push(number);
    }
    EXPECT_TRUE(m_Iterate());
    m_handler->Stop();
    EXPECT_EQ(2, m_allocator.deleted);
    EXPECT_EQ(1, m_allocator.wrapped);
    EXPECT_EQ(Numbers{1}, m_delivered);
    EXPECT_EQ(0, messagesAlive);
    m_IterateAll();
    EXPECT_EQ(Numbers{1}, m_delivered);
}

TEST_F(MessageSource, WhatIsPushedAfterStopIsFreedWithTheQueue) {
    m_Start();
    AsyncQueueHandle queue = MavixApiLite::RefAsyncQueue(m_queue);
    m_handler->Stop();
    g_async_queue_push(queue.get(), Numbered(1).release());
    m_IterateAll();
    EXPECT_TRUE(m_delivered.empty());
    EXPECT_EQ(1, messagesAlive);
    queue.reset();
    EXPECT_EQ(0, messagesAlive);
    EXPECT_EQ(0, m_allocator.deleted);
}

TEST_F(MessageSource, StartsAnewAfterStop) {
    m_Start();
    const AsyncQueueHandle oldQueue = MavixApiLite::RefAsyncQueue(m_queue);
    const auto oldMutex = TestAccess::Mutex(*m_handler);
    const auto oldSemaphore = TestAccess::Semaphore(*m_handler);
    m_handler->Stop();
    m_Start();
    EXPECT_NE(oldQueue.get(), m_queue);
    EXPECT_NE(oldMutex, TestAccess::Mutex(*m_handler));
    EXPECT_NE(oldSemaphore, TestAccess::Semaphore(*m_handler));
    EXPECT_TRUE(m_HasToken());
    m_Push(1);
    m_IterateAll();
    EXPECT_EQ(Numbers{1}, m_delivered);
}

TEST_F(MessageSource, HoldsItsContextWhileStarted) {
    bool contextGone = false;
    const SourceHandle witness(g_idle_source_new());
    g_source_set_callback(
        witness.get(), [](gpointer) -> gboolean { return TRUE; }, &contextGone,
        [](gpointer gone) { *static_cast<bool*>(gone) = true; });
    g_source_attach(witness.get(), m_context.get());
    m_Start();
    m_context.reset();
    EXPECT_FALSE(contextGone);
    m_handler->Stop();
    EXPECT_TRUE(contextGone);
}

TEST_F(MessageSource, KeepsTheHandlerFunctionUntilItsOwnEnd) {
    const auto captured = std::make_shared<int>(0);
    m_handler->Start(m_context.get(), [captured](TIIpcMessage&) {});
    EXPECT_EQ(2, captured.use_count());
    m_handler->Stop();
    EXPECT_EQ(2, captured.use_count());
    m_handler.reset();
    EXPECT_EQ(1, captured.use_count());
}

TEST_F(MessageSource, TheDestructorStopsBeforeTheHandlerFunctionGoes) {
    std::vector<std::string> order;
    auto captured = std::shared_ptr<void>(nullptr, [&](void*) { order.emplace_back("function"); });
    m_allocator.onDelete = [&] { order.emplace_back("message"); };
    m_handler->Start(m_context.get(), [kept = captured](TIIpcMessage&) {});
    m_Push(1);
    captured.reset();
    m_handler.reset();
    EXPECT_EQ((std::vector<std::string>{"message", "function"}), order);
}
