#ifndef MAVIX_TEST_SOURCE_FIXTURE_H
#define MAVIX_TEST_SOURCE_FIXTURE_H

#include "Await.h"
#include "GSourceHandler.h"
#include "GdbusMessage.h"
#include "GlibLog.h"
#include "RecordingPlatform.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <string>
#include <vector>

namespace MavixApiLite {

struct TestAccess {
    static GSource* Source(TCGSourceHandler& handler) { return handler.m_pGSource.get(); }
    static std::shared_ptr<std::mutex> Mutex(TCGSourceHandler& handler) { return handler.m_pDispatchMutex; }
    static std::shared_ptr<SignalSemaphore> Semaphore(TCGSourceHandler& handler) {
        return handler.m_pSemaphore;
    }
    static pthread_t DispatchThread(TCGSourceHandler& handler) { return handler.m_dispatchThread.load(); }
    static gboolean Dispatch(GSource* source, TCGSourceHandler* handler) {
        return TCGSourceHandler::m_GSourceHandlerDispatch(source, nullptr, handler);
    }
    static gboolean Prepare(GSource* source, gint* timeout) {
        return TCGSourceHandler::m_GSourceHandlerPrepare(source, timeout);
    }
    static gboolean Check(GSource* source) { return TCGSourceHandler::m_GSourceHandlerCheck(source); }
};

} // namespace MavixApiLite

namespace MavixTest {

using MavixApiLite::MainContextHandle;
using MavixApiLite::SourceHandle;
using MavixApiLite::TCGdbusMessage;
using MavixApiLite::TCGSourceHandler;
using MavixApiLite::TestAccess;
using MavixApiLite::TIIpcMessage;
using RawMessage = MavixApiLite::ObjectHandle<GDBusMessage>;

// Messages of this process that nobody has freed.
inline std::atomic<int> messagesAlive{0};

inline RawMessage Numbered(std::int32_t number) {
    RawMessage message(g_dbus_message_new_signal("/a", "a.b", "Number"));
    g_dbus_message_set_body(message.get(), g_variant_new("(i)", number));
    ++messagesAlive;
    g_object_set_data_full(G_OBJECT(message.get()), "alive", &messagesAlive,
                           [](gpointer) { --messagesAlive; });
    return message;
}

inline std::int32_t NumberOf(TIIpcMessage& message) {
    std::int32_t number = -1;
    EXPECT_TRUE(message.PopInt(number));
    return number;
}

// Makes GIO messages and counts what it is asked. Any thread.
class CountingAllocator final : public MavixApiLite::TIIpcMessageAllocator {
public:
    std::atomic<int> wrapped{0};
    std::atomic<int> deleted{0};
    std::function<std::unique_ptr<TIIpcMessage>(void*)> onNewMessage;
    std::function<void()> onDelete;

    std::unique_ptr<TIIpcMessage> NewMessage(void* raw) override {
        ++wrapped;
        if (onNewMessage) {
            return onNewMessage(raw);
        }
        auto message = std::make_unique<TCGdbusMessage>();
        message->SetRawMessage(raw);
        return message;
    }
    void DeleteRawMessage(void* raw) override {
        ++deleted;
        if (onDelete) {
            onDelete();
        }
        g_object_unref(raw);
    }
    void (*GetRawMessageDeleter())(void*) override { return g_object_unref; }
};

// A started or stopped handler on a context that the test iterates. Nothing may be left at the end: no
// message, no line that was not expected, no complaint of GLib.
class MessageSourceFixture : public testing::Test {
protected:
    ~MessageSourceFixture() override {
        m_handler.reset();
        EXPECT_EQ(0, messagesAlive);
        for (const LogLine& line : m_platform.Lines()) {
            // The destructor stops once more.
            if (line.text != "Already stopped") {
                ADD_FAILURE() << "unexpected line: " << line;
            }
        }
    }

    void m_Start() {
        m_queue = m_handler->Start(m_context.get(), [this](TIIpcMessage& message) {
            m_delivered.push_back(NumberOf(message));
            if (m_onMessage) {
                m_onMessage(message);
            }
        });
        ASSERT_NE(nullptr, m_queue);
    }
    void m_Push(std::int32_t number) {
        TCGdbusMessage message;
        message.SetRawMessage(Numbered(number).release());
        m_handler->PushMessage(message);
    }
    bool m_Iterate() { return g_main_context_iteration(m_context.get(), FALSE) != FALSE; }
    void m_IterateAll() {
        while (m_Iterate()) {
        }
    }
    GSource* m_Source() { return TestAccess::Source(*m_handler); }
    bool m_HasToken() {
        const std::lock_guard<std::mutex> lock(TestAccess::Semaphore(*m_handler)->mutex);
        return TestAccess::Semaphore(*m_handler)->signalled;
    }
    // Expects lines of the handler with this text, and no others since the last time.
    void m_ExpectLines(int priority, const std::string& function, const std::string& text,
                       std::size_t count = 1) {
        EXPECT_EQ(count, m_platform.Lines().size());
        for (const LogLine& line : m_platform.Lines()) {
            EXPECT_EQ(priority, line.priority) << line;
            EXPECT_EQ("MAVIX_API", line.tag) << line;
            EXPECT_EQ("GSourceHandler", line.source) << line;
            EXPECT_EQ(function, line.function) << line;
            EXPECT_EQ(text, line.text) << line;
        }
        m_platform.Reset();
    }

    TCGlibLog m_complaints;
    TCRecordingPlatform& m_platform = TCRecordingPlatform::Get();
    MainContextHandle m_context{g_main_context_new()};
    CountingAllocator m_allocator;
    std::unique_ptr<TCGSourceHandler> m_handler = std::make_unique<TCGSourceHandler>(&m_allocator);
    GAsyncQueue* m_queue = nullptr;
    std::vector<std::int32_t> m_delivered;
    std::function<void(TIIpcMessage&)> m_onMessage;
};

// Waits for a thread of the test; it hangs the test otherwise.
template <class Result>
Result Within(std::future<Result>& future) {
    if (future.wait_for(std::chrono::seconds(30)) != std::future_status::ready) {
        ADD_FAILURE() << "a thread hangs";
        std::abort();
    }
    return future.get();
}

} // namespace MavixTest

#endif
