#ifndef MAVIX_SIM_HANDLES_H
#define MAVIX_SIM_HANDLES_H

#include <memory>
#include <string>
#include <system_error>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

namespace MavixSim {

template <auto Free>
struct Deleter {
    template <class T>
    void operator()(T* pointer) const noexcept {
        Free(pointer);
    }
};

using BusHandle = std::unique_ptr<sd_bus, Deleter<sd_bus_flush_close_unref>>;
using MessageHandle = std::unique_ptr<sd_bus_message, Deleter<sd_bus_message_unref>>;
using SlotHandle = std::unique_ptr<sd_bus_slot, Deleter<sd_bus_slot_unref>>;
using TrackHandle = std::unique_ptr<sd_bus_track, Deleter<sd_bus_track_unref>>;
using CredsHandle = std::unique_ptr<sd_bus_creds, Deleter<sd_bus_creds_unref>>;
using EventHandle = std::unique_ptr<sd_event, Deleter<sd_event_unref>>;
using SourceHandle = std::unique_ptr<sd_event_source, Deleter<sd_event_source_disable_unref>>;

inline MessageHandle RefMessage(sd_bus_message* message) {
    return MessageHandle(sd_bus_message_ref(message));
}

// Passes a non-negative result on; throws std::system_error for a negative errno.
inline int Check(int result, const char* what) {
    if (result < 0)
        throw std::system_error(-result, std::generic_category(), what);
    return result;
}

} // namespace MavixSim

#endif
