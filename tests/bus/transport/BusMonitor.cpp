#include "BusMonitor.h"

#include <chrono>
#include <ostream>

namespace MavixTest {

using MavixSim::Check;
using MavixSim::MessageHandle;

namespace {

constexpr std::chrono::seconds limit{30};

std::string Text(const char* text) {
    return text != nullptr ? text : "";
}

std::string TypeOf(sd_bus_message* message) {
    std::uint8_t type = 0;
    Check(sd_bus_message_get_type(message, &type), "type");
    const char* const names[] = {"invalid", "call", "return", "error", "signal"};
    return names[type];
}

std::string TakeArgument(sd_bus_message* message, char type) {
    if (type == 's') {
        const char* text = nullptr;
        Check(sd_bus_message_read_basic(message, type, &text), "read a text");
        return text;
    }
    if (type == 'u') {
        std::uint32_t number = 0;
        Check(sd_bus_message_read_basic(message, type, &number), "read a number");
        return std::to_string(number);
    }
    Check(sd_bus_message_skip(message, nullptr), "skip");
    return "?";
}

WireMessage Take(sd_bus_message* message) {
    WireMessage taken;
    taken.type = TypeOf(message);
    taken.sender = Text(sd_bus_message_get_sender(message));
    taken.destination = Text(sd_bus_message_get_destination(message));
    taken.path = Text(sd_bus_message_get_path(message));
    taken.interface = Text(sd_bus_message_get_interface(message));
    taken.member = Text(sd_bus_message_get_member(message));
    if (const sd_bus_error* error = sd_bus_message_get_error(message)) {
        taken.errorName = error->name;
    }
    taken.signature = Text(sd_bus_message_get_signature(message, 1));
    taken.noReply = taken.type == "call" && sd_bus_message_get_expect_reply(message) == 0;
    char type = 0;
    while (sd_bus_message_peek_type(message, &type, nullptr) > 0) {
        taken.arguments.push_back(TakeArgument(message, type));
    }
    return taken;
}

} // namespace

std::string WireMessage::Shape() const {
    std::string shape = signature;
    for (std::size_t at = 1; at < arguments.size(); ++at) {
        shape += " " + arguments[at];
    }
    return noReply ? shape + " no-reply" : shape;
}

std::ostream& operator<<(std::ostream& out, const WireMessage& message) {
    return out << message.type << ' ' << message.sender << " to " << message.destination << ' '
               << message.path << ' ' << message.interface << ' ' << message.member << ' '
               << message.errorName << ' ' << message.Shape();
}

TCBusMonitor::TCBusMonitor(const std::string& address) {
    sd_bus* created = nullptr;
    Check(sd_bus_new(&created), "new connection");
    m_bus.reset(created);
    Check(sd_bus_set_address(created, address.c_str()), "set the address");
    Check(sd_bus_set_bus_client(created, 1), "be a client");
    Check(sd_bus_set_monitor(created, 1), "be a monitor");
    Check(sd_bus_start(created), "connect");
    Check(sd_bus_call_method(created, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                             "org.freedesktop.DBus.Monitoring", "BecomeMonitor", nullptr, nullptr, "asu", 0,
                             0),
          "become a monitor");
}

std::vector<WireMessage> TCBusMonitor::ReadUntil(const std::function<bool(const WireMessage&)>& last) {
    std::vector<WireMessage> messages;
    const auto end = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < end) {
        sd_bus_message* raw = nullptr;
        const int processed = Check(sd_bus_process(m_bus.get(), &raw), "process");
        const MessageHandle message(raw);
        if (message) {
            messages.push_back(Take(raw));
            if (last(messages.back())) {
                break;
            }
        } else if (processed == 0) {
            constexpr std::uint64_t waitUs = 100000;
            Check(sd_bus_wait(m_bus.get(), waitUs), "wait");
        }
    }
    return messages;
}

} // namespace MavixTest
