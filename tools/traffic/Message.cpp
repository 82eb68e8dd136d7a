#include "Message.h"

#include "sim/Arguments.h"
#include "sim/AuxBlock.h"
#include "sim/CallDecoder.h"

#include <algorithm>
#include <ctime>
#include <system_error>

namespace MavixTraffic {

using MavixSim::Check;
using MavixSim::Refusal;
using MavixSim::TCArguments;
using MavixSim::Text;

namespace {

const char* const busInterface = "org.freedesktop.DBus";
const char* const ownerMember = "NameOwnerChanged";
constexpr unsigned wellFormed = 1;

// The process that serves the bus name; null for any other name.
const MavixSim::Role* FindRole(const std::string& name) {
    for (const MavixSim::Role& role : MavixSim::Roles())
        if (std::find(role.busNames.begin(), role.busNames.end(), name) != role.busNames.end())
            return &role;
    return nullptr;
}

// The process that serves the destination; the one that serves most for any other.
const MavixSim::Role& RoleOf(const std::string& destination) {
    const MavixSim::Role* role = FindRole(destination);
    return role != nullptr ? *role : MavixSim::Roles().front();
}

bool IsServiceCall(const Message& message) {
    if (message.path == MavixSim::callPath)
        return true;
    return IsServiceName(message.destination) && message.path != "/com/norvale/Sim" &&
           message.interface.rfind("org.freedesktop.DBus.", 0) != 0;
}

bool IsEvent(const Message& message) {
    return message.path == MavixSim::signalPath || message.interface == MavixSim::signalInterface;
}

Kind KindOf(sd_bus_message* message, const Message& decoded) {
    std::uint8_t type = 0;
    Check(sd_bus_message_get_type(message, &type), "ask for a type");
    switch (type) {
    case SD_BUS_MESSAGE_METHOD_CALL:
        return IsServiceCall(decoded) ? Kind::Call : Kind::Other;
    case SD_BUS_MESSAGE_METHOD_RETURN:
        return Kind::Reply;
    case SD_BUS_MESSAGE_METHOD_ERROR:
        return Kind::Error;
    case SD_BUS_MESSAGE_SIGNAL:
        if (IsEvent(decoded))
            return Kind::Event;
        return decoded.interface == busInterface && decoded.member == ownerMember ? Kind::Owner : Kind::Other;
    default:
        return Kind::Other;
    }
}

void DecodeServiceCall(sd_bus_message* message, Message& decoded) {
    // Whose process it is, who prints it knows better; nobody is asked here.
    const MavixSim::PidSource unknown = [](const std::string&) { return std::nullopt; };
    try {
        MavixSim::DecodeCall(message, RoleOf(decoded.destination), unknown, decoded.call);
    } catch (...) {
        decoded.payload = decoded.call.payload;
        decoded.payloadSize = decoded.call.payloadSize;
        throw;
    }
    decoded.payload = decoded.call.payload;
    decoded.payloadSize = decoded.call.payloadSize;
}

void TakePayload(TCArguments& arguments, Message& decoded) {
    const auto [bytes, size] = arguments.TakeBytes("payload");
    decoded.payload = bytes;
    decoded.payloadSize = size;
}

void CheckEnd(TCArguments& arguments) {
    if (!arguments.AtEnd())
        throw Refusal("trailing argument of type '" + arguments.NextType() + "'");
}

void DecodeReplyAux(TCArguments& arguments, Message& decoded) {
    const std::int32_t length = arguments.TakeInt("auxiliary length");
    const auto [bytes, size] = arguments.TakeBytes("auxiliary block");
    if (length < 0 || static_cast<std::size_t>(length) != size)
        throw Refusal("auxiliary block: length " + std::to_string(length) + " announced, " +
                      std::to_string(size) + " bytes found");
    MavixSim::Call times;
    times.takenUpMs = decoded.atUs / 1000;
    try {
        MavixSim::DecodeAuxBlock(bytes, size, times);
    } catch (const Refusal&) {
        decoded.reply.timestampReceived = times.timestampReceived;
        decoded.reply.timestampSent = times.timestampSent;
        throw;
    }
    decoded.reply.timestampReceived = times.timestampReceived;
    decoded.reply.timestampSent = times.timestampSent;
}

void DecodeReply(sd_bus_message* message, Message& decoded) {
    TCArguments arguments(message);
    decoded.reply.value = arguments.TakeByte("reply byte");
    const unsigned value = *decoded.reply.value;
    if ((value & wellFormed) != 0) {
        decoded.reply.length = arguments.TakeInt("payload length");
        TakePayload(arguments, decoded);
    }
    const bool auxAnnounced = (value & (MavixSim::tagTimestampReceived | MavixSim::tagTimestampSent)) != 0;
    if (auxAnnounced)
        DecodeReplyAux(arguments, decoded);
    CheckEnd(arguments);
    if ((value & wellFormed) == 0)
        throw Refusal("reply byte " + std::to_string(value) + " says that the reply is broken");
    if (*decoded.reply.length < 0 || static_cast<std::size_t>(*decoded.reply.length) != decoded.payloadSize)
        throw Refusal("payload: length " + std::to_string(*decoded.reply.length) + " announced, " +
                      std::to_string(decoded.payloadSize) + " bytes found");
}

void DecodeError(sd_bus_message* message, Message& decoded) {
    decoded.reply.errorName = Text(sd_bus_message_get_error(message)->name);
    TCArguments arguments(message);
    if (arguments.NextType() == "s")
        decoded.reply.errorText = arguments.TakeString("error text");
}

void DecodeEvent(sd_bus_message* message, Message& decoded) {
    EventPart& event = decoded.event;
    const auto found =
        std::find_if(MavixSim::eventTypes.begin(), MavixSim::eventTypes.end(),
                     [&](const MavixSim::EventType& type) { return decoded.member == type.member; });
    if (found != MavixSim::eventTypes.end())
        event.type = &*found;
    TCArguments arguments(message);
    event.idText = arguments.TakeString("event id");
    if (event.type != nullptr && event.type->hasFurther)
        event.furtherText = arguments.TakeString("further text");
    event.handleText = arguments.TakeString("handle");
    TakePayload(arguments, decoded);
    CheckEnd(arguments);
    if (decoded.path != MavixSim::signalPath)
        throw Refusal("unexpected object path '" + decoded.path + "'");
    if (decoded.interface != MavixSim::signalInterface)
        throw Refusal("unexpected interface '" + decoded.interface + "'");
    if (event.type == nullptr)
        throw Refusal("no type of event '" + decoded.member + "'");
}

void DecodeOwner(sd_bus_message* message, Message& decoded) {
    TCArguments arguments(message);
    decoded.owner.name = arguments.TakeString("bus name");
    decoded.owner.oldOwner = arguments.TakeString("old owner");
    decoded.owner.newOwner = arguments.TakeString("new owner");
}

void DecodeBody(sd_bus_message* message, Message& decoded) {
    switch (decoded.kind) {
    case Kind::Call:
        return DecodeServiceCall(message, decoded);
    case Kind::Reply:
        return DecodeReply(message, decoded);
    case Kind::Error:
        return DecodeError(message, decoded);
    case Kind::Event:
        return DecodeEvent(message, decoded);
    case Kind::Owner:
        return DecodeOwner(message, decoded);
    case Kind::Other:
        return;
    }
}

} // namespace

bool IsServiceName(const std::string& name) {
    return FindRole(name) != nullptr;
}

const char* KindName(Kind kind) {
    switch (kind) {
    case Kind::Call:
        return "call";
    case Kind::Reply:
        return "reply";
    case Kind::Error:
        return "error";
    case Kind::Event:
        return "event";
    case Kind::Owner:
        return "owner";
    case Kind::Other:
        break;
    }
    return "other";
}

Message Decode(sd_bus_message* message, std::uint64_t atUs) {
    Message decoded;
    decoded.atUs = atUs;
    decoded.sender = Text(sd_bus_message_get_sender(message));
    decoded.destination = Text(sd_bus_message_get_destination(message));
    decoded.path = Text(sd_bus_message_get_path(message));
    decoded.interface = Text(sd_bus_message_get_interface(message));
    decoded.member = Text(sd_bus_message_get_member(message));
    decoded.signature = Text(sd_bus_message_get_signature(message, 1));
    Check(sd_bus_message_get_cookie(message, &decoded.serial), "ask for a serial");
    if (sd_bus_message_get_reply_cookie(message, &decoded.replySerial) < 0)
        decoded.replySerial = 0;
    decoded.kind = KindOf(message, decoded);
    try {
        DecodeBody(message, decoded);
    } catch (const Refusal& refusal) {
        decoded.deviation = refusal.what();
    } catch (const std::system_error& error) {
        decoded.deviation = std::string("cannot ") + error.what();
    }
    Check(sd_bus_message_rewind(message, 1), "rewind a message");
    return decoded;
}

std::uint64_t MonotonicUs() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000000 + static_cast<std::uint64_t>(now.tv_nsec) / 1000;
}

} // namespace MavixTraffic
