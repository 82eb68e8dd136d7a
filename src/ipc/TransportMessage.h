#ifndef MAVIX_TRANSPORT_MESSAGE_H
#define MAVIX_TRANSPORT_MESSAGE_H

#include "IpcMessage.h"

#include <cstddef>
#include <cstdint>
#include <vector>

// What the messages of the transports have in common.

namespace MavixApiLite {

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
