#ifndef MAVIX_SIM_CALL_H
#define MAVIX_SIM_CALL_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace MavixSim {

// What one message to the service said, as far as it could be decoded.
struct Call {
    std::string interface;
    std::string path;
    std::string member;
    std::string destination;
    std::string sender;
    std::string signature;
    bool noReply = false;

    std::optional<std::int32_t> header;
    std::optional<std::int32_t> size;
    std::optional<std::int32_t> pid;
    // Whether the bus confirmed the pid; it cannot for a sender that has gone.
    bool pidVerified = false;
    std::optional<std::string> programName;
    // Borrowed from the message.
    const std::uint8_t* payload = nullptr;
    std::size_t payloadSize = 0;
    std::optional<std::uint64_t> timestampReceived;
    std::optional<std::uint64_t> timestampSent;

    // When the message was taken up.
    std::uint64_t takenUpMs = 0;

    std::int16_t Code() const { return static_cast<std::int16_t>(header.value_or(0) & 0xffff); }
    // The sign of a negative code fills the flags.
    bool FlagsKnown() const { return header.has_value() && Code() >= 0; }
    unsigned Flags() const { return static_cast<unsigned>(header.value_or(0)) >> 16; }
};

} // namespace MavixSim

#endif
