#ifndef MAVIX_TEST_READ_IN_EVERY_WAY_H
#define MAVIX_TEST_READ_IN_EVERY_WAY_H

#include "IpcMessage.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace MavixTest {

// Reads a message in every way there is, in an order that depends on the round.
inline void ReadInEveryWay(MavixApiLite::TIIpcMessage& message, unsigned int round) {
    bool truth = false;
    std::uint8_t byte = 0;
    std::int32_t number = 0;
    std::uint32_t natural = 0;
    std::string text;
    std::vector<std::uint8_t> bytes;
    const std::uint8_t* data = nullptr;
    std::size_t size = 0;
    const std::function<bool()> ways[] = {
        [&] { return message.PopBool(truth); },
        [&] { return message.PopByte(byte); },
        [&] { return message.PopInt(number); },
        [&] { return message.PopUint(natural); },
        [&] { return message.PopString(text); },
        [&] { return message.PopBytes(bytes); },
        [&] { return message.PopByteRange(data, size, bytes); },
        [&] { return message.PopSkip(); },
    };
    constexpr unsigned int count = sizeof ways / sizeof *ways;
    for (unsigned int at = 0; at < 2 * count; ++at) {
        ways[(at + round) % count]();
    }
    message.PopEnd();
    message.PushInt(1);
    message.PushEnd();
    message.SetNoReply();
}

} // namespace MavixTest

#endif
