#ifndef MAVIX_SIM_REPLIES_H
#define MAVIX_SIM_REPLIES_H

#include "Behaviours.h"
#include "Call.h"
#include "Handles.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace MavixSim {

// A behaviour's parameter, borrowed.
struct Parameter {
    const std::uint8_t* data = nullptr;
    std::size_t size = 0;

    // The int32 or byte at its start.
    std::int32_t Number() const;
    std::uint8_t Variant() const;
    std::string Text() const;
};

// Makes the reply of a behaviour. Behaviours that echo answer with `echoed`. `received` is when the call was
// taken up, for the auxiliary block. Null for behaviours that answer nothing.
MessageHandle MakeReply(sd_bus_message* request, Behaviour behaviour, const Parameter& parameter,
                        const Parameter& echoed, std::uint64_t receivedMs);

// An error without arguments.
MessageHandle NewError(sd_bus_message* request, const std::string& name);

void SendReply(MessageHandle reply);
void SendError(sd_bus_message* request, const std::string& name, const std::string& text);

} // namespace MavixSim

#endif
