#ifndef MAVIX_SIM_CALL_DECODER_H
#define MAVIX_SIM_CALL_DECODER_H

#include "Call.h"
#include "Handles.h"
#include "Roles.h"

#include <functional>
#include <stdexcept>

namespace MavixSim {

// Says in what a message deviates from the layout of calls.
class Refusal : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

inline constexpr const char* callPath = "/com/norvale/Object";
inline constexpr const char* callMember = "MethodCall";

constexpr std::int32_t largestPayload = 0x1000000;

// Bits of the flag half of the header word.
constexpr unsigned flagNoReply = 1;
constexpr unsigned flagProgramName = 2;
constexpr unsigned flagTimestampSent = 4;

// Tags of the auxiliary block; each is also the flag that announces it.
constexpr std::uint32_t tagTimestampReceived = 2;
constexpr std::uint32_t tagTimestampSent = 4;

// The D-Bus error that a refused call gets.
inline constexpr const char* refusalErrorName = "com.norvale.Error.BadCall";

// The process behind a unique bus name; none when it has gone.
using PidSource = std::function<std::optional<pid_t>(const std::string& sender)>;

// Decodes a method call argument by argument into `call`. Throws Refusal at the first deviation; `call` then
// holds what preceded it.
void DecodeCall(sd_bus_message* message, const Role& role, const PidSource& pidOf, Call& call);

} // namespace MavixSim

#endif
