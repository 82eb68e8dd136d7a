#include "ChildProgram.h"
#include "GSourceHandler.h"
#include "GdbusConnection.h"
#include "LogPriorities.h"
#include "MessageFilterContext.h"
#include "RecordingPlatform.h"

#include <gtest/gtest.h>

#include <csignal>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

// The function that GIO's worker runs for every message, and other parts of the connection, without a bus.

namespace MavixApiLite {

struct TestAccess {
    // As if it had connected.
    static void SetConnection(TCGdbusConnection& connection, GDBusConnection* raw) {
        connection.m_connection.reset(raw);
        connection.m_connected = true;
    }
    static GDBusMessage* Filter(GDBusMessage* message, bool incoming, MessageFilterContext* context) {
        return TCGdbusConnection::m_MessageHandlerHelper(nullptr, message, incoming ? TRUE : FALSE, context);
    }
};

} // namespace MavixApiLite

namespace MavixTest {

namespace {

using namespace MavixApiLite;

class GdbusFilter : public testing::Test {
protected:
    // Hands the message to the filter, as GIO does with a reference of its own.
    bool IsQueued(const ObjectHandle<GDBusMessage>& message, bool incoming = true) {
        GDBusMessage* given = RefObject(message.get()).release();
        const ObjectHandle<GDBusMessage> passed(TestAccess::Filter(given, incoming, &m_filterContext));
        EXPECT_TRUE(passed == nullptr || passed == message);
        const ObjectHandle<GDBusMessage> queued(
            static_cast<GDBusMessage*>(g_async_queue_try_pop(m_queue.get())));
        EXPECT_TRUE(queued == nullptr || queued == message);
        EXPECT_NE(passed == nullptr, queued == nullptr);
        return queued != nullptr;
    }

    MainContextHandle m_context{g_main_context_new()};
    AsyncQueueHandle m_queue{g_async_queue_new()};
    MessageFilterContext m_filterContext{m_context.get(), m_queue.get()};
    ObjectHandle<GDBusMessage> m_signal{g_dbus_message_new_signal("/path", "com.norvale.IFace", "Member")};
    ObjectHandle<GDBusMessage> m_call{g_dbus_message_new_method_call(nullptr, "/path", nullptr, "Member")};
};

TEST_F(GdbusFilter, TakesMethodCallsAndSignals) {
    EXPECT_TRUE(IsQueued(m_signal));
    EXPECT_TRUE(IsQueued(m_call));
    EXPECT_TRUE(TCRecordingPlatform::Get().Lines().empty());
}

TEST_F(GdbusFilter, PassesRepliesOn) {
    g_dbus_message_set_serial(m_call.get(), 3);
    EXPECT_FALSE(IsQueued(ObjectHandle<GDBusMessage>(g_dbus_message_new_method_reply(m_call.get()))));
    EXPECT_FALSE(IsQueued(ObjectHandle<GDBusMessage>(
        g_dbus_message_new_method_error_literal(m_call.get(), "org.example.Error", "text"))));
    EXPECT_TRUE(TCRecordingPlatform::Get().Lines().empty());
}

TEST_F(GdbusFilter, PassesOutgoingMessagesOn) {
    EXPECT_FALSE(IsQueued(m_signal, false));
    EXPECT_FALSE(IsQueued(m_call, false));
    EXPECT_TRUE(TCRecordingPlatform::Get().Lines().empty());
}

TEST_F(GdbusFilter, WithoutContextOrQueueItSaysSoAndPassesTheMessageOn) {
    EXPECT_EQ(m_signal.get(), TestAccess::Filter(m_signal.get(), true, nullptr));
    MessageFilterContext withoutQueue{m_context.get(), nullptr};
    EXPECT_EQ(m_signal.get(), TestAccess::Filter(m_signal.get(), true, &withoutQueue));
    EXPECT_EQ(2U, TCRecordingPlatform::Get().Count(errorLine, "No context or queue!"));
    EXPECT_EQ("m_MessageHandlerHelper", TCRecordingPlatform::Get().Lines().at(0).function);
}

TEST_F(GdbusFilter, WakesTheContextThatDispatches) {
    EXPECT_TRUE(IsQueued(m_signal));
    gint timeout = -1;
    gint priority = 0;
    ASSERT_TRUE(g_main_context_acquire(m_context.get()));
    g_main_context_prepare(m_context.get(), &priority);
    GPollFD wakeUp{};
    ASSERT_EQ(1, g_main_context_query(m_context.get(), G_MAXINT, &timeout, &wakeUp, 1));
    EXPECT_EQ(1, g_poll(&wakeUp, 1, 0));
    g_main_context_release(m_context.get());
}

TEST(GdbusAllocator, MakesAdoptsAndDropsMessages) {
    TCGdbusConnection connection;
    TIIpcMessageAllocator& allocator = *connection.GetMessageAllocatorInstance();
    EXPECT_EQ(nullptr, allocator.NewMessage(nullptr)->GetRawMessage(false));
    GDBusMessage* raw = g_dbus_message_new_signal("/path", "com.norvale.IFace", "Member");
    gpointer watched = raw;
    g_object_add_weak_pointer(G_OBJECT(raw), &watched);
    const ObjectHandle<GDBusMessage> ours = RefObject(raw);
    EXPECT_EQ(raw, allocator.NewMessage(raw)->GetRawMessage(false));
    EXPECT_EQ(raw, watched);
    allocator.DeleteRawMessage(RefObject(raw).release());
    allocator.GetRawMessageDeleter()(RefObject(raw).release());
    allocator.DeleteRawMessage(nullptr);
    EXPECT_EQ(1U, G_OBJECT(raw)->ref_count);
    g_object_remove_weak_pointer(G_OBJECT(raw), &watched);
}

MAVIX_CHILD(StoreASecondConnectingThread) {
    class Connection final : public TCGdbusConnection {
    public:
        void Store() {
            t_SetConnectingThread(std::thread([] { pause(); }));
        }
    };
    // Never destroyed: that would wait for its thread.
    auto& connection = *new Connection;
    connection.Store();
    std::printf("one is stored\n");
    std::fflush(stdout);
    connection.Store();
    return 0;
}

TEST(GdbusConnectingThread, ASecondOneStopsTheProcess) {
    const ChildResult result = RunChildProgram("StoreASecondConnectingThread");
    EXPECT_EQ(SIGABRT, result.signal) << result.errors;
    EXPECT_EQ("one is stored\n", result.output);
    EXPECT_EQ(std::string::npos, result.errors.find("Assertion failed")) << result.errors;
}

// A connection to a peer without a bus between them has no unique name.
TEST(GdbusUniqueName, MissesWithALine) {
    int ends[2] = {-1, -1};
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
    const TCFileDescriptor other(ends[1]);
    const ObjectHandle<GSocket> socket(g_socket_new_from_fd(ends[0], nullptr));
    const ObjectHandle<GSocketConnection> stream(g_socket_connection_factory_create_connection(socket.get()));
    GDBusConnection* raw = g_dbus_connection_new_sync(
        G_IO_STREAM(stream.get()), nullptr, G_DBUS_CONNECTION_FLAGS_NONE, nullptr, nullptr, nullptr);
    ASSERT_NE(nullptr, raw);
    TCGdbusConnection connection;
    TestAccess::SetConnection(connection, raw);
    EXPECT_EQ("", connection.GetUniqueName());
    EXPECT_EQ(1U, TCRecordingPlatform::Get().Count(errorLine, "[API_LITE] no unique name!"));
    EXPECT_EQ(1U, TCRecordingPlatform::Get().Lines().size());
}

} // namespace

} // namespace MavixTest
