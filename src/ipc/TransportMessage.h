#ifndef MAVIX_TRANSPORT_MESSAGE_H
#define MAVIX_TRANSPORT_MESSAGE_H

#include "IpcMessage.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

// What the messages of the transports have in common.

namespace MavixApiLite {

// Whether the bus keeps one of these names, either of which may be null, to the bus libraries: it hangs up on
// who sends it, and already on who sends one that begins so.
inline bool IsReserved(const char* path, const char* interface) {
    const auto begins = [](const char* name, std::string_view reserved) {
        return name != nullptr && std::strncmp(name, reserved.data(), reserved.size()) == 0;
    };
    return begins(path, "/org/freedesktop/DBus/Local") || begins(interface, "org.freedesktop.DBus.Local");
}

// PopBytes of a message whose PopByteRange lends bytes that it keeps itself.
inline bool PopCopyOfByteRange(TIIpcMessage& message, std::vector<std::uint8_t>& value) {
    const std::uint8_t* data = nullptr;
    std::size_t size = 0;
    std::vector<std::uint8_t> unused;
    if (!message.PopByteRange(data, size, unused)) {
        return false;
    }
    value.assign(data, data + size);
    return true;
}

} // namespace MavixApiLite

#endif
