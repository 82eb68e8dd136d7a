#include "Recording.h"

#include "Hex.h"

namespace MavixTraffic {

const char* ByteOrder() {
    const std::uint16_t number = 1;
    return *reinterpret_cast<const std::uint8_t*>(&number) == 1 ? "little" : "big";
}

void TCDigest::Add(const std::string& bytes) {
    for (const char byte : bytes)
        m_value = (m_value ^ static_cast<std::uint8_t>(byte)) * 0x100000001b3u;
}

std::string TCDigest::Text() const {
    std::uint8_t bytes[8];
    for (std::size_t i = 0; i < sizeof bytes; ++i)
        bytes[i] = static_cast<std::uint8_t>(m_value >> (56 - 8 * i));
    return ToHex(bytes, sizeof bytes);
}

} // namespace MavixTraffic
