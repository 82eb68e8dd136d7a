#include "MessageMaker.h"

#include <cstdarg>
#include <cstring>
#include <sys/socket.h>

namespace MavixTest {

using MavixSim::Check;
using MavixSim::MessageHandle;

TCMessageMaker::TCMessageMaker() {
    int sockets[2] = {-1, -1};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, sockets) != 0)
        throw std::system_error(errno, std::generic_category(), "socketpair");
    m_peer = MavixTools::TCDescriptor(sockets[0]);
    sd_bus* created = nullptr;
    Check(sd_bus_new(&created), "new connection");
    m_bus.reset(created);
    Check(sd_bus_set_fd(created, sockets[1], sockets[1]), "set a socket");
    Check(sd_bus_start(created), "start");
}

void TCMessageMaker::Append(sd_bus_message* message, const char* types, ...) {
    va_list values;
    va_start(values, types);
    const int result = sd_bus_message_appendv(message, types, values);
    va_end(values);
    Check(result, "append");
}

void TCMessageMaker::AppendBytes(sd_bus_message* message, const Bytes& bytes) {
    Check(sd_bus_message_append_array(message, 'y', bytes.data(), bytes.size()), "append bytes");
}

void TCMessageMaker::SpoilText(const MessageHandle& message, const char* typesBefore) {
    if (*typesBefore != '\0')
        Check(sd_bus_message_skip(message.get(), typesBefore), "skip");
    const char* text = nullptr;
    Check(sd_bus_message_read_basic(message.get(), 's', &text), "read a text");
    std::memcpy(const_cast<char*>(text), "\xEF\xBF\xBE", 3);
    Check(sd_bus_message_rewind(message.get(), 1), "rewind");
}

MessageHandle TCMessageMaker::m_Seal(sd_bus_message* message, const Fill& fill) {
    MessageHandle made(message);
    fill(message);
    Check(sd_bus_message_seal(message, 9, 0), "seal");
    return made;
}

MessageHandle TCMessageMaker::Call(const Envelope& envelope, const Fill& fill) {
    sd_bus_message* message = nullptr;
    Check(sd_bus_message_new_method_call(
              m_bus.get(), &message, envelope.destination.empty() ? nullptr : envelope.destination.c_str(),
              envelope.path.c_str(), envelope.interface.empty() ? nullptr : envelope.interface.c_str(),
              envelope.member.c_str()),
          "new call");
    Check(sd_bus_message_set_sender(message, envelope.sender.c_str()), "set the sender");
    Check(sd_bus_message_set_expect_reply(message, envelope.noReply ? 0 : 1), "want a reply");
    return m_Seal(message, fill);
}

MessageHandle TCMessageMaker::Return(const Fill& fill) {
    Envelope envelope;
    sd_bus_message* call = nullptr;
    Check(sd_bus_message_new_method_call(m_bus.get(), &call, "com.norvale.MavixAPI", "/com/norvale/Object",
                                         "com.norvale.ITest", "MethodCall"),
          "new call");
    const MessageHandle held(call);
    Check(sd_bus_message_set_sender(call, envelope.sender.c_str()), "set the sender");
    Check(sd_bus_message_seal(call, 5, 0), "seal");
    sd_bus_message* message = nullptr;
    Check(sd_bus_message_new_method_return(call, &message), "new reply");
    return m_Seal(message, fill);
}

MessageHandle TCMessageMaker::Error(const char* name, const Fill& fill) {
    sd_bus_message* call = nullptr;
    Check(sd_bus_message_new_method_call(m_bus.get(), &call, "com.norvale.MavixAPI", "/com/norvale/Object",
                                         "com.norvale.ITest", "MethodCall"),
          "new call");
    const MessageHandle held(call);
    Check(sd_bus_message_seal(call, 5, 0), "seal");
    const sd_bus_error error = SD_BUS_ERROR_MAKE_CONST(name, nullptr);
    sd_bus_message* message = nullptr;
    Check(sd_bus_message_new_method_error(call, &message, &error), "new error");
    return m_Seal(message, fill);
}

MessageHandle TCMessageMaker::Signal(const Envelope& envelope, const Fill& fill) {
    sd_bus_message* message = nullptr;
    Check(sd_bus_message_new_signal(m_bus.get(), &message, envelope.path.c_str(), envelope.interface.c_str(),
                                    envelope.member.c_str()),
          "new signal");
    Check(sd_bus_message_set_sender(message, envelope.sender.c_str()), "set the sender");
    return m_Seal(message, fill);
}

} // namespace MavixTest
