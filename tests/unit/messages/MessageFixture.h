#ifndef MAVIX_TEST_MESSAGE_FIXTURE_H
#define MAVIX_TEST_MESSAGE_FIXTURE_H

#include "DbusMessage.h"
#include "GdbusMessage.h"
#include "GlibLog.h"
#include "RecordingPlatform.h"
#include "TransportTable.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

namespace MavixTest {

using Bytes = std::vector<std::uint8_t>;
using GioMessage = MavixApiLite::ObjectHandle<GDBusMessage>;
using MavixApiLite::DbusMessageHandle;
using MavixApiLite::TCDbusMessage;
using MavixApiLite::TCGdbusMessage;
using MavixApiLite::TIIpcMessage;

constexpr const char* testBus = "com.norvale.Test";
constexpr const char* testPath = "/com/norvale/Test";
constexpr const char* testInterface = "com.norvale.ITest";
constexpr const char* testMember = "TestMember";
constexpr const char* noBody = "no body";

// A body from GVariant text such as "(int32 5, 'text')".
inline MavixApiLite::VariantHandle Body(const std::string& text) {
    GError* error = nullptr;
    GVariant* body = g_variant_parse(nullptr, text.c_str(), nullptr, nullptr, &error);
    const MavixApiLite::ErrorHandle owner(error);
    EXPECT_NE(nullptr, body) << text << ": " << (error != nullptr ? error->message : "");
    return MavixApiLite::SinkVariant(body);
}

// A method call, as GIO builds it; without text it has no body.
inline GioMessage Built(const std::string& text = "") {
    GioMessage message(g_dbus_message_new_method_call(testBus, testPath, testInterface, testMember));
    if (!text.empty()) {
        g_dbus_message_set_body(message.get(), Body(text).get());
    }
    return message;
}

// The bytes in which a message travels.
class TCBlob final {
public:
    static constexpr GDBusCapabilityFlags flags = G_DBUS_CAPABILITY_FLAGS_UNIX_FD_PASSING;

    // Message number 7 of a peer.
    explicit TCBlob(GDBusMessage* message) {
        const GioMessage copy(g_dbus_message_copy(message, nullptr));
        gsize size = 0;
        g_dbus_message_set_serial(copy.get(), 7);
        g_dbus_message_set_sender(copy.get(), ":1.7");
        g_dbus_message_lock(copy.get());
        guchar* bytes = g_dbus_message_to_blob(copy.get(), &size, flags, nullptr);
        m_bytes.assign(bytes, bytes + size);
        g_free(bytes);
    }
    explicit TCBlob(DBusMessage* message) {
        const DbusMessageHandle copy(dbus_message_copy(message));
        char* bytes = nullptr;
        int size = 0;
        dbus_message_set_serial(copy.get(), 7);
        EXPECT_TRUE(dbus_message_marshal(copy.get(), &bytes, &size));
        m_bytes.assign(bytes, bytes + size);
        dbus_free(bytes);
    }

    GioMessage ForGio() {
        GioMessage message(g_dbus_message_new_from_blob(m_bytes.data(), m_bytes.size(), flags, nullptr));
        EXPECT_TRUE(message);
        g_dbus_message_lock(message.get());
        return message;
    }
    DbusMessageHandle ForLibdbus() const {
        DbusMessageHandle message(dbus_message_demarshal(reinterpret_cast<const char*>(m_bytes.data()),
                                                         static_cast<int>(m_bytes.size()), nullptr));
        EXPECT_TRUE(message);
        return message;
    }

private:
    Bytes m_bytes;
};

inline std::string BodyText(GDBusMessage* message) {
    GVariant* body = g_dbus_message_get_body(message);
    return body != nullptr ? MavixApiLite::TextHandle(g_variant_print(body, TRUE)).get() : noBody;
}

// What is particular about a transport's messages.
template <class Message>
struct MessageKit;

template <>
struct MessageKit<TCGdbusMessage> {
    static constexpr const TransportRow& row = gdbusRow;
    static constexpr const char* name = "Gdbus";
    using Raw = GDBusMessage;

    // A raw message that was never sent, and one that came from a peer.
    static Raw* Fresh(GioMessage message) { return message.release(); }
    static Raw* Received(const GioMessage& message) { return TCBlob(message.get()).ForGio().release(); }
    static GioMessage OnTheWire(Raw* raw) { return TCBlob(raw).ForGio(); }
    static std::string BodyOf(Raw* raw) { return BodyText(raw); }
    // Tells when the last reference has gone.
    static void Watch(Raw* raw, bool* gone) {
        g_object_weak_ref(
            G_OBJECT(raw), [](gpointer flag, GObject*) { *static_cast<bool*>(flag) = true; }, gone);
    }
    static void Unref(void* raw) { g_object_unref(raw); }
};

template <>
struct MessageKit<TCDbusMessage> {
    static constexpr const TransportRow& row = libdbusRow;
    static constexpr const char* name = "Libdbus";
    using Raw = DBusMessage;

    static Raw* Fresh(const GioMessage& message) {
        return dbus_message_copy(TCBlob(message.get()).ForLibdbus().get());
    }
    static Raw* Received(const GioMessage& message) { return TCBlob(message.get()).ForLibdbus().release(); }
    static GioMessage OnTheWire(Raw* raw) { return TCBlob(raw).ForGio(); }
    static std::string BodyOf(Raw* raw) { return BodyText(OnTheWire(raw).get()); }
    static void Watch(Raw* raw, bool* gone) {
        static const dbus_int32_t slot = [] {
            dbus_int32_t allocated = -1;
            dbus_message_allocate_data_slot(&allocated);
            return allocated;
        }();
        *gone = false;
        dbus_message_set_data(raw, slot, gone, [](void* flag) { *static_cast<bool*>(flag) = true; });
    }
    static void Unref(void* raw) { dbus_message_unref(static_cast<DBusMessage*>(raw)); }
};

using MessageTypes = testing::Types<TCGdbusMessage, TCDbusMessage>;

struct MessageNames {
    template <class Message>
    static std::string GetName(int /*index*/) {
        return MessageKit<Message>::name;
    }
};

// Tests of one transport's messages: no GLib complaint is forgiven, libdbus ends the process, and every line
// of the log is accounted for.
template <class Message>
class MessageFixture : public testing::Test {
private:
    TCGlibLog m_glibLog; // outlives the message

protected:
    using Kit = MessageKit<Message>;
    using Raw = typename Kit::Raw;

    ~MessageFixture() override {
        for (const LogLine& line : m_platform.Lines()) {
            ADD_FAILURE() << "unexpected line: " << line;
        }
    }

    // Lets the object hold a message that was never sent, or one that came from a peer.
    static void Hold(TIIpcMessage& message, GioMessage built) {
        message.SetRawMessage(Kit::Fresh(std::move(built)));
    }
    static void Receive(TIIpcMessage& message, const GioMessage& built) {
        message.SetRawMessage(Kit::Received(built));
    }
    static Raw* RawOf(TIIpcMessage& message) { return static_cast<Raw*>(message.GetRawMessage(false)); }
    // The text of the body that a message holds.
    static std::string BodyOf(TIIpcMessage& message) { return Kit::BodyOf(RawOf(message)); }
    // The message as a peer would get it.
    static GioMessage OnTheWire(TIIpcMessage& message) { return Kit::OnTheWire(RawOf(message)); }

    // The body after arguments were pushed into a message that had some.
    static std::string Pushed(const std::string& before, const std::string& pushed) {
        return Kit::row.pushingReplacesBody
                   ? "(" + pushed + (pushed.find(',') == std::string::npos ? ",)" : ")")
                   : "(" + before + ", " + pushed + ")";
    }

    bool InitializeCall() {
        return m_message.Initialize(TIIpcMessage::MethodCall, testBus, testPath, testInterface, testMember);
    }

    // Expects `count` error lines of this operation with this text and no others since the last time; no
    // lines at all when the text is null.
    void ExpectLines(const std::string& function, const char* text, std::size_t count = 1) {
        const std::vector<LogLine> lines = m_platform.Lines();
        EXPECT_EQ(text != nullptr ? count : 0, lines.size());
        for (const LogLine& line : lines) {
            EXPECT_EQ(errorLine, line.priority) << line;
            EXPECT_EQ("MAVIX_API", line.tag) << line;
            EXPECT_EQ(Kit::row.messageSource, line.source) << line;
            EXPECT_EQ(function, line.function) << line;
            EXPECT_EQ(text != nullptr ? text : "", line.text) << line;
        }
        m_platform.Reset();
    }
    void ExpectTypeError(const std::string& function, const std::string& text) {
        ExpectLines(function, (text + Kit::row.typeErrorMark).c_str());
    }
    void ExpectNoLines() { ExpectLines("", nullptr); }

    TCRecordingPlatform& m_platform = TCRecordingPlatform::Get();
    Message m_message;
};

} // namespace MavixTest

#endif
