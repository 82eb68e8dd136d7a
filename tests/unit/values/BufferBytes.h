#ifndef MAVIX_TEST_BUFFER_BYTES_H
#define MAVIX_TEST_BUFFER_BYTES_H

#include "MessageBuffer.h"

#include <string>

namespace MavixTest {

// The payload of a buffer, as text that can be compared.
inline std::string BytesOf(const MavixApiLite::TCMessageBuffer& buffer) {
    const char* start = buffer.GetAsCStr(0);
    return start != nullptr ? std::string(start, buffer.PayloadSize()) : std::string();
}

inline MavixApiLite::TCMessageBuffer BufferOf(const std::string& bytes) {
    MavixApiLite::TCMessageBuffer buffer;
    buffer.PushConcatenated(bytes.size(), bytes.data());
    return buffer;
}

} // namespace MavixTest

#endif
