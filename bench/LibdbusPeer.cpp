#include "Peer.h"

#include "Handles.h"

#include <unistd.h>

namespace MavixBench {

namespace {

using namespace MavixApiLite;

class TCLibdbusPeer final : public TIPeer {
public:
    TCLibdbusPeer() : m_connection(dbus_bus_get_private(DBUS_BUS_SYSTEM, nullptr)) {
        if (!m_connection) {
            Fail("no connection of libdbus");
        }
        dbus_connection_set_exit_on_disconnect(m_connection.get(), FALSE);
    }

    void Call(const std::vector<char>& payload) override {
        const DbusMessageHandle message(
            dbus_message_new_method_call(calledBus, calledObject, calledInterface, calledMember));
        const dbus_int32_t header = echoCode;
        const auto size = static_cast<dbus_int32_t>(payload.size());
        const dbus_int32_t process = getpid();
        dbus_message_append_args(message.get(), DBUS_TYPE_INT32, &header, DBUS_TYPE_INT32, &size,
                                 DBUS_TYPE_INT32, &process, DBUS_TYPE_INVALID);
        if (size > 0) {
            const char* data = payload.data();
            dbus_message_append_args(message.get(), DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &data, size,
                                     DBUS_TYPE_INVALID);
        }
        const DbusMessageHandle reply(
            dbus_connection_send_with_reply_and_block(m_connection.get(), message.get(), -1, nullptr));
        unsigned char value = 0;
        dbus_int32_t length = 0;
        const char* bytes = nullptr;
        int count = 0;
        if (!reply || dbus_message_get_args(reply.get(), nullptr, DBUS_TYPE_BYTE, &value, DBUS_TYPE_INT32,
                                            &length, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &bytes, &count,
                                            DBUS_TYPE_INVALID) == FALSE) {
            Fail("a call of libdbus failed");
        }
        TakeAnswer(payload.size(), bytes, static_cast<std::size_t>(count));
    }

private:
    const DbusConnectionHandle m_connection;
};

} // namespace

std::unique_ptr<TIPeer> CreateLibdbus() {
    return std::make_unique<TCLibdbusPeer>();
}

} // namespace MavixBench
