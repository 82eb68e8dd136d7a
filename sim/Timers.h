#ifndef MAVIX_SIM_TIMERS_H
#define MAVIX_SIM_TIMERS_H

#include "Handles.h"

#include <cstdint>
#include <functional>
#include <map>
#include <utility>

namespace MavixSim {

// Runs actions later on the event loop, those of the same time in the order of asking. Actions not yet due
// are dropped with it. Owner: the server. One thread.
class TCTimers final {
public:
    explicit TCTimers(sd_event* event);
    TCTimers(const TCTimers&) = delete;
    TCTimers& operator=(const TCTimers&) = delete;

    void After(std::uint64_t milliseconds, std::function<void()> action);
    std::size_t Waiting() const { return m_timers.size(); }

private:
    // The time in microseconds, and the number of the asking.
    using Due = std::pair<std::uint64_t, std::uint64_t>;

    static int m_OnTime(sd_event_source* source, std::uint64_t time, void* self);
    std::uint64_t m_Now() const;
    void m_Arm();

    sd_event* const m_event;
    SourceHandle m_source;
    std::uint64_t m_lastNumber = 0;
    std::map<Due, std::function<void()>> m_timers;
};

} // namespace MavixSim

#endif
