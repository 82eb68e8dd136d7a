#ifndef MAVIX_TEST_GDBUS_FIXTURE_H
#define MAVIX_TEST_GDBUS_FIXTURE_H

#include "GdbusMessage.h"
#include "GlibLog.h"
#include "RecordingPlatform.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

namespace MavixTest {

using Bytes = std::vector<std::uint8_t>;
using RawMessage = MavixApiLite::ObjectHandle<GDBusMessage>;
using MavixApiLite::TCGdbusMessage;
using MavixApiLite::TIIpcMessage;

constexpr const char* testBus = "com.norvale.Test";
constexpr const char* testPath = "/com/norvale/Test";
constexpr const char* testInterface = "com.norvale.ITest";
constexpr const char* testMember = "TestMember";

// A body from GVariant text such as "(int32 5, 'text')".
inline MavixApiLite::VariantHandle Body(const std::string& text) {
    GError* error = nullptr;
    GVariant* body = g_variant_parse(nullptr, text.c_str(), nullptr, nullptr, &error);
    const MavixApiLite::ErrorHandle owner(error);
    EXPECT_NE(nullptr, body) << text << ": " << (error != nullptr ? error->message : "");
    return MavixApiLite::SinkVariant(body);
}

// A method call that exists in this process only; without text it has no body.
inline RawMessage Built(const std::string& text = "") {
    RawMessage message(g_dbus_message_new_method_call(testBus, testPath, testInterface, testMember));
    if (!text.empty()) {
        g_dbus_message_set_body(message.get(), Body(text).get());
    }
    return message;
}

// The message as a peer gets it: turned into bytes, read back and locked.
inline RawMessage Received(RawMessage message) {
    gsize size = 0;
    g_dbus_message_set_serial(message.get(), 7);
    g_dbus_message_set_sender(message.get(), ":1.7");
    g_dbus_message_lock(message.get());
    guchar* blob =
        g_dbus_message_to_blob(message.get(), &size, G_DBUS_CAPABILITY_FLAGS_UNIX_FD_PASSING, nullptr);
    RawMessage received(
        g_dbus_message_new_from_blob(blob, size, G_DBUS_CAPABILITY_FLAGS_UNIX_FD_PASSING, nullptr));
    g_free(blob);
    EXPECT_TRUE(received);
    g_dbus_message_lock(received.get());
    return received;
}

inline void Adopt(TIIpcMessage& message, RawMessage raw) {
    message.SetRawMessage(raw.release());
}

// The text of the body that a message holds; "no body" when it has none.
inline std::string BodyOf(TIIpcMessage& message) {
    GVariant* body = g_dbus_message_get_body(static_cast<GDBusMessage*>(message.GetRawMessage(false)));
    if (body == nullptr) {
        return "no body";
    }
    const MavixApiLite::TextHandle text(g_variant_print(body, TRUE));
    return text.get();
}

// Tests of GIO messages: no GLib complaint is forgiven, and every line of the log is accounted for.
class GdbusMessageFixture : public testing::Test {
private:
    TCGlibLog m_glibLog; // outlives the message

protected:
    ~GdbusMessageFixture() override {
        for (const LogLine& line : m_platform.Lines()) {
            ADD_FAILURE() << "unexpected line: " << line;
        }
    }

    // Expects `count` error lines of this operation with this text and no others since the last time.
    void ExpectLines(const std::string& function, const std::string& text, std::size_t count = 1) {
        const std::vector<LogLine> lines = m_platform.Lines();
        EXPECT_EQ(count, lines.size());
        for (const LogLine& line : lines) {
            EXPECT_EQ(6, line.priority) << line;
            EXPECT_EQ("MAVIX_API", line.tag) << line;
            EXPECT_EQ("GdbusMessage", line.source) << line;
            EXPECT_EQ(function, line.function) << line;
            EXPECT_EQ(text, line.text) << line;
        }
        m_platform.Reset();
    }
    void ExpectNoLines() { ExpectLines("", "", 0); }

    TCRecordingPlatform& m_platform = TCRecordingPlatform::Get();
    TCGdbusMessage m_message;
};

} // namespace MavixTest

#endif
