#ifndef MAVIX_CONTROL_SERVICE_H
#define MAVIX_CONTROL_SERVICE_H

#include <mavix-api/IpcConfigurationMavix.h>

#include <array>
#include <optional>
#include <string>

namespace MavixControl {

constexpr const char* eventInterfaceName = "com.norvale.Mavix.SignalIFace";
constexpr const char* eventObjectName = "/com/norvale/Mavix/SignalObject";

inline MavixApiLite::IpcConfigurationMavix ServiceConfiguration() {
    return {eventInterfaceName, eventObjectName};
}

// The types of events by their numbers.
inline constexpr std::array<const char*, 14> eventNames{
    "Signal",   "PipelineSignal",     "Data",    "Program",   "Section", "TextData",
    "Dsm",      "CopyProtectionInfo", "PESData", "ExPESData", "Ht",      "ATSC3Signalling",
    "ATSC3Mpd", "ATSC3Linkage",
};

// By name or number.
std::optional<int> FindEventType(const std::string& text);

} // namespace MavixControl

#endif
