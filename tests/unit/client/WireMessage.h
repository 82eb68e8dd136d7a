#ifndef MAVIX_TEST_WIRE_MESSAGE_H
#define MAVIX_TEST_WIRE_MESSAGE_H

#include "GdbusMessage.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace MavixTest {

using Bytes = std::vector<std::uint8_t>;
using WireMessage = MavixApiLite::ObjectHandle<GDBusMessage>;

// Messages as they arrive from a peer: built, turned into bytes and read back. A body is GVariant text, such
// as "(byte 1, 3, [byte 1, 2, 3])"; an empty one is no body.
WireMessage Reply(const std::string& body);
WireMessage ErrorReply(const std::string& name, const std::string& body);
WireMessage Signal(const std::string& member, const std::string& body,
                   const std::string& interface = "com.norvale.Mavix.SignalIFace",
                   const std::string& path = "/com/norvale/Mavix/SignalObject");
WireMessage OwnerChange(const std::string& body);
// `interface` may be null.
WireMessage MethodCall(const char* interface, const std::string& member, const std::string& body = "");

// The text of a byte array in a body.
std::string BytesText(const Bytes& bytes);

// Moves the message into an object of the library.
void Adopt(MavixApiLite::TIIpcMessage& message, WireMessage wire);
std::unique_ptr<MavixApiLite::TCGdbusMessage> Received(WireMessage wire);

// A request as it is handed to the bus.
struct Request {
    std::string destination;
    std::string path;
    std::string interface;
    std::string member;
    std::string signature;
    bool noReply = false;
    std::uint32_t header = 0;
    std::int32_t size = 0;
    std::int32_t pid = 0;
    std::optional<std::string> programName;
    std::optional<Bytes> payload;
    std::optional<std::int32_t> auxLength;
    std::optional<Bytes> aux;
};

// Takes a finished request apart by its arguments' types; fails the test when there are others.
Request TakeApart(MavixApiLite::TIIpcMessage& message);

// A record of an auxiliary block that holds a timestamp.
Bytes TimestampRecord(std::uint32_t tag, std::uint64_t milliseconds);
std::uint64_t TimestampOf(const Bytes& record);

} // namespace MavixTest

#endif
