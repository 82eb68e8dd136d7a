#include "Timers.h"

#include "Trampoline.h"

#include <ctime>

namespace MavixSim {

void TCTimers::After(std::uint32_t milliseconds, std::function<void()> action) {
    const std::uint64_t number = ++m_lastNumber;
    Timer& timer = m_timers[number];
    timer.owner = this;
    timer.number = number;
    timer.action = std::move(action);
    sd_event_source* source = nullptr;
    Check(sd_event_add_time_relative(m_event, &source, CLOCK_MONOTONIC, std::uint64_t{milliseconds} * 1000, 1,
                                     m_OnTime, &timer),
          "add a timer");
    timer.source.reset(source);
}

int TCTimers::m_OnTime(sd_event_source*, std::uint64_t, void* timer) {
    return Guarded([&] {
        auto* due = static_cast<Timer*>(timer);
        const std::function<void()> action = std::move(due->action);
        due->owner->m_timers.erase(due->number);
        action();
    });
}

} // namespace MavixSim
