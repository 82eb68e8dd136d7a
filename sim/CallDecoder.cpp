#include "CallDecoder.h"

#include "Arguments.h"
#include "AuxBlock.h"
#include "Clock.h"

#include <algorithm>
#include <tuple>

namespace MavixSim {

namespace {

void DecodeEnvelope(sd_bus_message* message, Call& call) {
    call.interface = Text(sd_bus_message_get_interface(message));
    call.path = Text(sd_bus_message_get_path(message));
    call.member = Text(sd_bus_message_get_member(message));
    call.destination = Text(sd_bus_message_get_destination(message));
    call.sender = Text(sd_bus_message_get_sender(message));
    call.signature = Text(sd_bus_message_get_signature(message, 1));
    call.noReply = sd_bus_message_get_expect_reply(message) == 0;
}

void CheckEnvelope(const Role& role, const Call& call) {
    if (call.path != callPath)
        throw Refusal("unexpected object path '" + call.path + "'");
    if (call.member != callMember)
        throw Refusal("unexpected member '" + call.member + "'");
    if (call.interface.empty())
        throw Refusal("no interface");
    if (std::find(role.busNames.begin(), role.busNames.end(), call.destination) == role.busNames.end())
        throw Refusal("addressed to '" + call.destination + "', not to one of the service's names");
    if ((call.interface == sessionInterface) != (call.destination == sessionInterface))
        throw Refusal("interface '" + call.interface + "' is not served on '" + call.destination + "'");
}

void CheckFlags(const Call& call) {
    if (!call.FlagsKnown()) {
        if (call.Flags() != 0xffff)
            throw Refusal("header word: a negative function code has to fill the flags");
        return;
    }
    const unsigned flags = call.Flags();
    if ((flags & ~(flagNoReply | flagProgramName | flagTimestampSent)) != 0)
        throw Refusal("header word: unknown flags " + std::to_string(flags));
    if (((flags & flagNoReply) != 0) != call.noReply)
        throw Refusal(call.noReply ? "the message wants no reply, its flags want one"
                                   : "the flags want no reply, the message wants one");
}

void CheckPid(const PidSource& pidOf, Call& call) {
    if (*call.pid <= 0)
        throw Refusal("process id " + std::to_string(*call.pid));
    const std::optional<pid_t> real = pidOf(call.sender);
    call.pidVerified = real.has_value();
    if (real && *real != *call.pid)
        throw Refusal("process id " + std::to_string(*call.pid) + ", but the sender is process " +
                      std::to_string(*real));
}

void DecodeProgramName(TCArguments& arguments, Call& call) {
    const bool present = arguments.NextType() == "s";
    if (call.FlagsKnown()) {
        const bool announced = (call.Flags() & flagProgramName) != 0;
        if (present && !announced)
            throw Refusal("program name: present, but not announced by the flags");
        if (announced && !present)
            throw Refusal("program name: announced by the flags, but absent");
    }
    if (present)
        call.programName = arguments.TakeString("program name");
}

void DecodePayload(TCArguments& arguments, Call& call) {
    if (*call.size == 0) {
        if (arguments.NextType() == "ay")
            throw Refusal("payload: present with size 0");
        return;
    }
    std::tie(call.payload, call.payloadSize) = arguments.TakeBytes("payload");
    if (call.payloadSize != static_cast<std::size_t>(*call.size))
        throw Refusal("payload: size " + std::to_string(*call.size) + " announced, " +
                      std::to_string(call.payloadSize) + " bytes found");
}

void CheckAuxFlags(const Call& call) {
    if (!call.FlagsKnown())
        return;
    const unsigned flags = call.Flags();
    if (((flags & flagTimestampSent) != 0) != call.timestampSent.has_value())
        throw Refusal(call.timestampSent
                          ? "auxiliary block: send timestamp not announced by the flags"
                          : "auxiliary block: send timestamp announced by the flags, but absent");
    if (call.timestampReceived && (flags & tagTimestampReceived) == 0)
        throw Refusal("auxiliary block: tag 2 not announced by the flags");
}

void DecodeAux(TCArguments& arguments, Call& call) {
    if (!arguments.NextType().empty()) {
        const std::int32_t length = arguments.TakeInt("auxiliary length");
        const auto [bytes, size] = arguments.TakeBytes("auxiliary block");
        if (length < 0 || static_cast<std::size_t>(length) != size)
            throw Refusal("auxiliary block: length " + std::to_string(length) + " announced, " +
                          std::to_string(size) + " bytes found");
        DecodeAuxBlock(bytes, size, call);
    }
    CheckAuxFlags(call);
}

} // namespace

void DecodeCall(sd_bus_message* message, const Role& role, const PidSource& pidOf, Call& call) {
    call.takenUpMs = MonotonicMs();
    DecodeEnvelope(message, call);
    CheckEnvelope(role, call);

    TCArguments arguments(message);
    call.header = arguments.TakeInt("header word");
    CheckFlags(call);
    call.size = arguments.TakeInt("payload size");
    if (*call.size < 0 || *call.size > largestPayload)
        throw Refusal("payload size " + std::to_string(*call.size) + " is out of range");
    call.pid = arguments.TakeInt("process id");
    CheckPid(pidOf, call);
    DecodeProgramName(arguments, call);
    DecodePayload(arguments, call);
    DecodeAux(arguments, call);
    if (!arguments.NextType().empty())
        throw Refusal("trailing argument of type '" + arguments.NextType() + "'");
}

} // namespace MavixSim
