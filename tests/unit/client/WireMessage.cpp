#include "WireMessage.h"

#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>

namespace MavixTest {

using MavixApiLite::ErrorHandle;
using MavixApiLite::ObjectHandle;
using MavixApiLite::SinkVariant;
using MavixApiLite::TextHandle;
using MavixApiLite::VariantHandle;

namespace {

constexpr guint32 anySerial = 7;

WireMessage New(GDBusMessageType type, const std::string& body) {
    WireMessage message(g_dbus_message_new());
    g_dbus_message_set_message_type(message.get(), type);
    g_dbus_message_set_serial(message.get(), anySerial);
    g_dbus_message_set_sender(message.get(), ":1.7");
    if (!body.empty()) {
        GError* error = nullptr;
        const VariantHandle value =
            SinkVariant(g_variant_parse(nullptr, body.c_str(), nullptr, nullptr, &error));
        if (!value) {
            throw std::runtime_error(body + ": " + ErrorHandle(error)->message);
        }
        g_dbus_message_set_body(message.get(), value.get());
    }
    return message;
}

// The bytes of the message, read back: locked, like everything that arrives.
WireMessage OverTheWire(const WireMessage& message) {
    GError* error = nullptr;
    gsize size = 0;
    const MavixApiLite::Handle<guchar, g_free> blob(
        g_dbus_message_to_blob(message.get(), &size, G_DBUS_CAPABILITY_FLAGS_NONE, &error));
    if (!blob) {
        throw std::runtime_error(ErrorHandle(error)->message);
    }
    WireMessage received(
        g_dbus_message_new_from_blob(blob.get(), size, G_DBUS_CAPABILITY_FLAGS_NONE, &error));
    if (!received) {
        throw std::runtime_error(ErrorHandle(error)->message);
    }
    g_dbus_message_lock(received.get());
    return received;
}

std::string TextOf(const char* text) {
    return text != nullptr ? text : "";
}

// Walks through the arguments of a body.
class Arguments final {
public:
    explicit Arguments(GVariant* body) : m_body(body) {}

    bool NextIs(const GVariantType* type) const {
        if (m_at == m_Count()) {
            return false;
        }
        return g_variant_is_of_type(m_Child().get(), type) != FALSE;
    }
    std::int32_t TakeInt() {
        const VariantHandle child = m_Take(G_VARIANT_TYPE_INT32);
        return child ? g_variant_get_int32(child.get()) : 0;
    }
    std::string TakeString() {
        const VariantHandle child = m_Take(G_VARIANT_TYPE_STRING);
        return child ? g_variant_get_string(child.get(), nullptr) : "";
    }
    Bytes TakeBytes() {
        const VariantHandle child = m_Take(G_VARIANT_TYPE_BYTESTRING);
        if (!child) {
            return {};
        }
        const auto* data = static_cast<const std::uint8_t*>(g_variant_get_data(child.get()));
        return {data, data + g_variant_get_size(child.get())};
    }
    bool AtEnd() const { return m_at == m_Count(); }

private:
    gsize m_Count() const { return m_body != nullptr ? g_variant_n_children(m_body) : 0; }
    VariantHandle m_Child() const { return VariantHandle(g_variant_get_child_value(m_body, m_at)); }
    VariantHandle m_Take(const GVariantType* type) {
        if (!NextIs(type)) {
            ADD_FAILURE() << "argument " << m_at << " is not of type " << g_variant_type_peek_string(type);
            return nullptr;
        }
        VariantHandle child = m_Child();
        ++m_at;
        return child;
    }

    GVariant* m_body;
    gsize m_at = 0;
};

} // namespace

WireMessage Reply(const std::string& body) {
    const WireMessage message = New(G_DBUS_MESSAGE_TYPE_METHOD_RETURN, body);
    g_dbus_message_set_reply_serial(message.get(), anySerial);
    // As the bus addresses it: to the client's own connection.
    g_dbus_message_set_destination(message.get(), ":1.42");
    return OverTheWire(message);
}

WireMessage ErrorReply(const std::string& name, const std::string& body) {
    const WireMessage message = New(G_DBUS_MESSAGE_TYPE_ERROR, body);
    g_dbus_message_set_reply_serial(message.get(), anySerial);
    g_dbus_message_set_error_name(message.get(), name.c_str());
    g_dbus_message_set_destination(message.get(), ":1.42");
    return OverTheWire(message);
}

WireMessage Signal(const std::string& member, const std::string& body, const std::string& interface,
                   const std::string& path) {
    const WireMessage message = New(G_DBUS_MESSAGE_TYPE_SIGNAL, body);
    g_dbus_message_set_path(message.get(), path.c_str());
    g_dbus_message_set_interface(message.get(), interface.c_str());
    g_dbus_message_set_member(message.get(), member.c_str());
    return OverTheWire(message);
}

WireMessage OwnerChange(const std::string& body) {
    return Signal("NameOwnerChanged", body, "org.freedesktop.DBus", "/org/freedesktop/DBus");
}

WireMessage MethodCall(const char* interface, const std::string& member, const std::string& body) {
    const WireMessage message = New(G_DBUS_MESSAGE_TYPE_METHOD_CALL, body);
    g_dbus_message_set_path(message.get(), "/");
    if (interface != nullptr) {
        g_dbus_message_set_interface(message.get(), interface);
    }
    g_dbus_message_set_member(message.get(), member.c_str());
    return OverTheWire(message);
}

std::string BytesText(const Bytes& bytes) {
    std::string text;
    for (const std::uint8_t byte : bytes) {
        text += (text.empty() ? "byte " : ", ") + std::to_string(byte);
    }
    return "@ay [" + text + "]";
}

void Adopt(MavixApiLite::TIIpcMessage& message, WireMessage wire) {
    message.SetRawMessage(wire.release());
}

std::unique_ptr<MavixApiLite::TCGdbusMessage> Received(WireMessage wire) {
    auto message = std::make_unique<MavixApiLite::TCGdbusMessage>();
    Adopt(*message, std::move(wire));
    return message;
}

Request TakeApart(MavixApiLite::TIIpcMessage& message) {
    Request request;
    auto* raw = static_cast<GDBusMessage*>(message.GetRawMessage(false));
    if (raw == nullptr) {
        ADD_FAILURE() << "an empty message";
        return request;
    }
    request.destination = TextOf(g_dbus_message_get_destination(raw));
    request.path = TextOf(g_dbus_message_get_path(raw));
    request.interface = TextOf(g_dbus_message_get_interface(raw));
    request.member = TextOf(g_dbus_message_get_member(raw));
    request.signature = TextOf(g_dbus_message_get_signature(raw));
    request.noReply = (g_dbus_message_get_flags(raw) & G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED) != 0;

    Arguments arguments(g_dbus_message_get_body(raw));
    request.header = static_cast<std::uint32_t>(arguments.TakeInt());
    request.size = arguments.TakeInt();
    request.pid = arguments.TakeInt();
    if (arguments.NextIs(G_VARIANT_TYPE_STRING)) {
        request.programName = arguments.TakeString();
    }
    if (arguments.NextIs(G_VARIANT_TYPE_BYTESTRING)) {
        request.payload = arguments.TakeBytes();
    }
    if (arguments.NextIs(G_VARIANT_TYPE_INT32)) {
        request.auxLength = arguments.TakeInt();
        request.aux = arguments.TakeBytes();
    }
    EXPECT_TRUE(arguments.AtEnd()) << request.signature;
    return request;
}

Bytes TimestampRecord(std::uint32_t tag, std::uint64_t milliseconds) {
    const std::uint32_t head[] = {tag, sizeof milliseconds};
    Bytes record(sizeof head + sizeof milliseconds);
    std::memcpy(record.data(), head, sizeof head);
    std::memcpy(record.data() + sizeof head, &milliseconds, sizeof milliseconds);
    return record;
}

std::uint64_t TimestampOf(const Bytes& record) {
    std::uint64_t milliseconds = 0;
    if (record.size() >= sizeof milliseconds) {
        std::memcpy(&milliseconds, record.data() + record.size() - sizeof milliseconds, sizeof milliseconds);
    }
    return milliseconds;
}

} // namespace MavixTest
