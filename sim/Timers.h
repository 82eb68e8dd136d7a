#ifndef MAVIX_SIM_TIMERS_H
#define MAVIX_SIM_TIMERS_H

#include "Handles.h"

#include <cstdint>
#include <functional>
#include <map>

namespace MavixSim {

// Runs actions later on the event loop. Actions not yet due are dropped with it. Owner: the server. One
// thread.
class TCTimers final {
public:
    explicit TCTimers(sd_event* event) : m_event(event) {}

    void After(std::uint32_t milliseconds, std::function<void()> action);
    std::size_t Waiting() const { return m_timers.size(); }

private:
    struct Timer {
        TCTimers* owner;
        std::uint64_t number;
        std::function<void()> action;
        SourceHandle source;
    };

    static int m_OnTime(sd_event_source* source, std::uint64_t time, void* timer);

    sd_event* const m_event;
    std::uint64_t m_lastNumber = 0;
    std::map<std::uint64_t, Timer> m_timers;
};

} // namespace MavixSim

#endif
