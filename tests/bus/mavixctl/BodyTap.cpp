#include "BodyTap.h"

#include <chrono>
#include <cstring>
#include <map>
#include <stdexcept>
#include <utility>

namespace MavixTest {

namespace {

constexpr std::chrono::seconds limit{30};
constexpr int pauseMs = 100;

struct Unref {
    void operator()(DBusMessage* message) const { dbus_message_unref(message); }
};
using Message = std::unique_ptr<DBusMessage, Unref>;

// Throws when the bus library has failed.
class TCError final {
public:
    TCError() { dbus_error_init(&m_error); }
    TCError(const TCError&) = delete;
    TCError& operator=(const TCError&) = delete;
    ~TCError() { dbus_error_free(&m_error); }
    DBusError* Get() { return &m_error; }
    void Check(const char* what) const {
        if (dbus_error_is_set(&m_error) != 0)
            throw std::runtime_error(std::string(what) + ": " + m_error.message);
    }

private:
    DBusError m_error{};
};

std::string Text(const char* text) {
    return text != nullptr ? text : "";
}

// The last bytes of a message, which are as many as it says in its fifth to eighth byte.
std::string BodyOf(DBusMessage* message) {
    char* bytes = nullptr;
    int size = 0;
    if (dbus_message_marshal(message, &bytes, &size) == 0)
        throw std::runtime_error("out of memory");
    const std::unique_ptr<char, decltype(&dbus_free)> owned(bytes, dbus_free);
    const std::uint16_t one = 1;
    const char machine = *reinterpret_cast<const char*>(&one) == 1 ? DBUS_LITTLE_ENDIAN : DBUS_BIG_ENDIAN;
    if (bytes[0] != machine)
        throw std::runtime_error("a message of another byte order");
    std::uint32_t length = 0;
    std::memcpy(&length, bytes + 4, sizeof length);
    return {bytes + size - length, length};
}

bool IsServiceCall(DBusMessage* message) {
    return dbus_message_get_type(message) == DBUS_MESSAGE_TYPE_METHOD_CALL &&
           dbus_message_has_member(message, "MethodCall") != 0;
}

bool IsAnswer(DBusMessage* message) {
    const int type = dbus_message_get_type(message);
    return type == DBUS_MESSAGE_TYPE_METHOD_RETURN || type == DBUS_MESSAGE_TYPE_ERROR;
}

} // namespace

void TCBodyTap::Close::operator()(DBusConnection* connection) const {
    dbus_connection_close(connection);
    dbus_connection_unref(connection);
}

TCBodyTap::TCBodyTap(const std::string& address) {
    TCError error;
    m_connection.reset(dbus_connection_open_private(address.c_str(), error.Get()));
    error.Check("cannot connect");
    dbus_connection_set_exit_on_disconnect(m_connection.get(), 0);
    dbus_bus_register(m_connection.get(), error.Get());
    error.Check("cannot register");
    const Message call(dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS,
                                                    DBUS_INTERFACE_MONITORING, "BecomeMonitor"));
    const char* const* rules = nullptr;
    dbus_uint32_t flags = 0;
    dbus_message_append_args(call.get(), DBUS_TYPE_ARRAY, DBUS_TYPE_STRING, &rules, 0, DBUS_TYPE_UINT32,
                             &flags, DBUS_TYPE_INVALID);
    const Message reply(
        dbus_connection_send_with_reply_and_block(m_connection.get(), call.get(), -1, error.Get()));
    error.Check("cannot monitor");
}

std::vector<TappedCall> TCBodyTap::CallsUpTo(const std::string& lastInterface) {
    std::vector<TappedCall> calls;
    std::map<std::pair<std::string, dbus_uint32_t>, std::size_t> waiting; // by caller and serial
    const auto end = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < end) {
        const Message message(dbus_connection_pop_message(m_connection.get()));
        if (!message) {
            if (dbus_connection_read_write(m_connection.get(), pauseMs) == 0)
                break;
        } else if (IsServiceCall(message.get())) {
            waiting[{Text(dbus_message_get_sender(message.get())), dbus_message_get_serial(message.get())}] =
                calls.size();
            TappedCall& call = calls.emplace_back();
            call.interface = Text(dbus_message_get_interface(message.get()));
            call.body = BodyOf(message.get());
        } else if (IsAnswer(message.get())) {
            const auto found = waiting.find({Text(dbus_message_get_destination(message.get())),
                                             dbus_message_get_reply_serial(message.get())});
            if (found == waiting.end())
                continue;
            TappedCall& call = calls[found->second];
            call.answerType = dbus_message_get_type(message.get());
            call.errorName = Text(dbus_message_get_error_name(message.get()));
            call.signature = Text(dbus_message_get_signature(message.get()));
            call.answer = BodyOf(message.get());
            if (call.interface == lastInterface)
                return calls;
        }
    }
    throw std::runtime_error("the tap has not seen the answer of " + lastInterface);
}

} // namespace MavixTest
