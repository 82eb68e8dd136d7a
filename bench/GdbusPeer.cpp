#include "GdbusPeer.h"

#include "Peer.h"

#include <unistd.h>

namespace MavixBench {

namespace {

using namespace MavixApiLite;

void Check(GError* error, const char* what) {
    if (error != nullptr) {
        const std::string text = std::string(what) + ": " + error->message;
        g_error_free(error);
        Fail(text);
    }
}

class TCGdbusPeer : public TIPeer {
public:
    void Call(const std::vector<char>& payload) override {
        const ObjectHandle<GDBusMessage> message = m_NewMessage(payload, 0);
        GError* error = nullptr;
        const ObjectHandle<GDBusMessage> reply(g_dbus_connection_send_message_with_reply_sync(
            m_connection.get(), message.get(), G_DBUS_SEND_MESSAGE_FLAGS_NONE, -1, nullptr, nullptr, &error));
        Check(error, "call");
        GVariant* body = g_dbus_message_get_body(reply.get());
        if (body == nullptr || g_variant_n_children(body) < 3) {
            Fail("an answer without payload");
        }
        const VariantHandle bytes(g_variant_get_child_value(body, 2));
        gsize size = 0;
        const void* data = g_variant_get_fixed_array(bytes.get(), &size, 1);
        TakeAnswer(payload.size(), data, size);
    }

    void CallAsync(const std::vector<char>& payload) override {
        const ObjectHandle<GDBusMessage> message = m_NewMessage(payload, 1);
        g_dbus_message_set_flags(message.get(), G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED);
        GError* error = nullptr;
        g_dbus_connection_send_message(m_connection.get(), message.get(), G_DBUS_SEND_MESSAGE_FLAGS_NONE,
                                       nullptr, &error);
        Check(error, "send");
    }

protected:
    GDBusConnection* t_Connection() const { return m_connection.get(); }

private:
    static ObjectHandle<GDBusMessage> m_NewMessage(const std::vector<char>& payload, int flags) {
        ObjectHandle<GDBusMessage> message(
            g_dbus_message_new_method_call(calledBus, calledObject, calledInterface, calledMember));
        const int header = echoCode | flags << 16;
        const int size = static_cast<int>(payload.size());
        static const int process = getpid();
        GVariant* body = payload.empty()
                             ? g_variant_new("(iii)", header, size, process)
                             : g_variant_new("(iii@ay)", header, size, process,
                                             g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, payload.data(),
                                                                       payload.size(), 1));
        g_dbus_message_set_body(message.get(), body);
        return message;
    }

    const ObjectHandle<GDBusConnection> m_connection = ConnectGdbus();
};

void IgnoreSignal(GDBusConnection* /*connection*/, const gchar* /*sender*/, const gchar* /*path*/,
                  const gchar* /*interface*/, const gchar* /*member*/, GVariant* /*arguments*/,
                  gpointer /*data*/) {}

class TCGdbusWatchingPeer final : public TCGdbusPeer {
public:
    TCGdbusWatchingPeer() {
        GError* error = nullptr;
        const VariantHandle answer(
            g_dbus_connection_call_sync(t_Connection(), busDriver, "/org/freedesktop/DBus", busDriver,
                                        "NameHasOwner", g_variant_new("(s)", calledBus),
                                        G_VARIANT_TYPE("(b)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error));
        Check(error, "owner query");
        gboolean hasOwner = FALSE;
        g_variant_get(answer.get(), "(b)", &hasOwner);
        if (hasOwner == FALSE) {
            Fail("the service has no owner");
        }
        g_dbus_connection_signal_subscribe(t_Connection(), busDriver, busDriver, "NameOwnerChanged", nullptr,
                                           calledBus, G_DBUS_SIGNAL_FLAGS_NONE, IgnoreSignal, nullptr,
                                           nullptr);
    }

private:
    static constexpr const char* busDriver = "org.freedesktop.DBus";
};

} // namespace

ObjectHandle<GDBusConnection> ConnectGdbus() {
    GError* error = nullptr;
    const TextHandle address(g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, &error));
    Check(error, "address");
    ObjectHandle<GDBusConnection> connection(g_dbus_connection_new_for_address_sync(
        address.get(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &error));
    Check(error, "connect");
    return connection;
}

std::unique_ptr<TIPeer> CreateGdbus() {
    return std::make_unique<TCGdbusPeer>();
}

std::unique_ptr<TIPeer> CreateGdbusThatWatches() {
    return std::make_unique<TCGdbusWatchingPeer>();
}

} // namespace MavixBench
