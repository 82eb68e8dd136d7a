#include "Timers.h"

#include "Trampoline.h"

#include <algorithm>
#include <ctime>
#include <limits>

namespace MavixSim {

namespace {

// Behind every time that a clock reaches, and before the one that the event loop takes for none.
constexpr std::uint64_t never = std::numeric_limits<std::uint64_t>::max() / 2;

} // namespace

TCTimers::TCTimers(sd_event* event) : m_event(event) {
    sd_event_source* source = nullptr;
    Check(sd_event_add_time(event, &source, CLOCK_MONOTONIC, 0, 1, m_OnTime, this), "add a timer");
    m_source.reset(source);
    Check(sd_event_source_set_enabled(source, SD_EVENT_OFF), "pause a timer");
}

void TCTimers::After(std::uint64_t milliseconds, std::function<void()> action) {
    const std::uint64_t now = m_Now();
    const std::uint64_t due = now + std::min(milliseconds, (never - now) / 1000) * 1000;
    m_timers.emplace(std::pair(due, ++m_lastNumber), std::move(action));
    m_Arm();
}

std::uint64_t TCTimers::m_Now() const {
    std::uint64_t now = 0;
    Check(sd_event_now(m_event, CLOCK_MONOTONIC, &now), "ask for the time");
    return now;
}

void TCTimers::m_Arm() {
    if (m_timers.empty())
        return;
    Check(sd_event_source_set_time(m_source.get(), m_timers.begin()->first.first), "set a timer");
    Check(sd_event_source_set_enabled(m_source.get(), SD_EVENT_ONESHOT), "start a timer");
}

int TCTimers::m_OnTime(sd_event_source*, std::uint64_t, void* self) {
    return Guarded([self] {
        auto& timers = *static_cast<TCTimers*>(self);
        // Those that the actions add get their turn after everything else.
        const Due last(timers.m_Now(), timers.m_lastNumber);
        while (!timers.m_timers.empty() && timers.m_timers.begin()->first <= last) {
            const auto due = timers.m_timers.extract(timers.m_timers.begin());
            Guarded(due.mapped());
        }
        timers.m_Arm();
    });
}

} // namespace MavixSim
