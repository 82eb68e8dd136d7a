#ifndef MAVIX_SIM_EVENT_TYPES_H
#define MAVIX_SIM_EVENT_TYPES_H

#include <array>
#include <string>

namespace MavixSim {

inline constexpr const char* signalPath = "/com/norvale/Mavix/SignalObject";
inline constexpr const char* signalInterface = "com.norvale.Mavix.SignalIFace";

struct EventType {
    const char* member;
    // Whether one further argument stands before the handle.
    bool hasFurther;
};

// In the order of their numbers.
inline constexpr std::array<EventType, 14> eventTypes{{
    {"Signal", true},
    {"PipelineSignal", true},
    {"Data", false},
    {"Program", false},
    {"Section", false},
    {"TextData", false},
    {"Dsm", false},
    {"CopyProtectionInfo", false},
    {"PESData", false},
    {"ExPESData", false},
    {"Ht", true},
    {"ATSC3Signalling", false},
    {"ATSC3Mpd", false},
    {"ATSC3Linkage", false},
}};

// By member name or decimal number; null when there is no such type.
const EventType* FindEventType(const std::string& text);

} // namespace MavixSim

#endif
