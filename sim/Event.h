#ifndef MAVIX_SIM_EVENT_H
#define MAVIX_SIM_EVENT_H

#include "EventTypes.h"
#include "Handles.h"

#include <cstdint>
#include <string>
#include <vector>

namespace MavixSim {

// One event as the control interface asks for it.
struct Event {
    const EventType* type = nullptr;
    std::string idText;
    std::uint32_t handleHigh = 0;
    std::uint32_t handleLow = 0;
    std::vector<std::uint8_t> payload;
    // A bus name that alone gets the event; everyone with a matching rule when empty.
    std::string destination;
};

// The handle as the clients' match rules spell it.
std::string HandleText(const Event& event);

MessageHandle MakeEvent(sd_bus* bus, const Event& event);

// A malformed event: see RawEventKinds. Throws std::invalid_argument for an unknown kind.
MessageHandle MakeRawEvent(sd_bus* bus, const std::string& kind, const Event& event);

// The kinds in which an event can be malformed, for the documentation and for tests that try them all.
const std::vector<std::string>& RawEventKinds();

} // namespace MavixSim

#endif
