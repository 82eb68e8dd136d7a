#ifndef MAVIX_SIM_BURST_EMITTER_H
#define MAVIX_SIM_BURST_EMITTER_H

#include "Event.h"

#include <deque>
#include <functional>

namespace MavixSim {

// Emits runs of numbered events in slices, so that calls are served meanwhile and the connection's queue
// stays short. Owner: the server. One thread.
class TCBurstEmitter final {
public:
    TCBurstEmitter(sd_event* event, sd_bus* bus);

    // Emits `count` events whose payloads start with the running number, 4 bytes in machine byte order,
    // counted from `start`. Calls `done` after the last one. Bursts follow one another in the order of
    // asking. Throws when there can be no such event.
    void Start(const Event& event, std::uint32_t start, std::uint32_t count, std::function<void()> done);

    void EmitOne(sd_bus_message* message);

    std::uint64_t Emitted() const { return m_emitted; }

private:
    struct Burst {
        Event event;
        std::uint32_t next;
        std::uint32_t left;
        std::function<void()> done;
    };

    // Of the connection, for the next event of a burst.
    bool m_QueueIsShort() const;
    void m_EmitSlice();

    sd_bus* const m_bus;
    SourceHandle m_slices;
    SourceHandle m_wakeUp;
    std::deque<Burst> m_bursts;
    std::uint64_t m_emitted = 0;
};

} // namespace MavixSim

#endif
