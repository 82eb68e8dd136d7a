#include "EventTypes.h"

namespace MavixSim {

const EventType* FindEventType(const std::string& text) {
    for (std::size_t number = 0; number < eventTypes.size(); ++number)
        if (text == eventTypes[number].member || text == std::to_string(number))
            return &eventTypes[number];
    return nullptr;
}

} // namespace MavixSim
