#ifndef MAVIX_TRAFFIC_MESSAGE_H
#define MAVIX_TRAFFIC_MESSAGE_H

#include "sim/Call.h"
#include "sim/EventTypes.h"
#include "sim/Handles.h"

#include <cstdint>
#include <optional>
#include <string>

namespace MavixTraffic {

enum class Kind {
    Call,
    Reply, // a method return; whether it answers a call to the service, only pairing can tell
    Error,
    Event,
    Owner, // a bus name has another owner
    Other
};

// Whether it is one of the service's bus names.
bool IsServiceName(const std::string& name);

// The word for a kind, as filters and outputs have it.
const char* KindName(Kind kind);

struct ReplyPart {
    std::optional<std::uint8_t> value;
    std::optional<std::int32_t> length;
    std::optional<std::uint64_t> timestampReceived;
    std::optional<std::uint64_t> timestampSent;
    // Of an error.
    std::string errorName;
    std::optional<std::string> errorText;
};

struct EventPart {
    // Null for a member that is no type of event.
    const MavixSim::EventType* type = nullptr;
    std::string idText;
    std::optional<std::string> furtherText;
    std::optional<std::string> handleText;
};

struct OwnerPart {
    std::string name;
    std::string oldOwner;
    std::string newOwner;
};

// One message of the service's traffic, as far as it could be decoded. Texts are copies, the payload is
// borrowed from the bus message.
struct Message {
    Kind kind = Kind::Other;
    // When it was taken up: microseconds of the monotonic clock, which is the clock of the timestamps that
    // travel with calls and replies, too.
    std::uint64_t atUs = 0;
    std::string sender;
    std::string destination;
    std::string path;
    std::string interface;
    std::string member;
    std::string signature;
    std::uint64_t serial = 0;
    std::uint64_t replySerial = 0;
    // In what the message deviates from the layout of its kind; empty when it does not.
    std::string deviation;
    const std::uint8_t* payload = nullptr;
    std::size_t payloadSize = 0;

    MavixSim::Call call;
    ReplyPart reply;
    EventPart event;
    OwnerPart owner;
};

// Decodes a bus message, and leaves it rewound.
Message Decode(sd_bus_message* message, std::uint64_t atUs);

// Microseconds of the monotonic clock.
std::uint64_t MonotonicUs();

} // namespace MavixTraffic

#endif
