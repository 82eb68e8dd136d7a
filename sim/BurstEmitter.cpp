#include "BurstEmitter.h"

#include "Trampoline.h"

#include <algorithm>
#include <cstring>

namespace MavixSim {

namespace {

constexpr int eventsASlice = 64;
// In messages, and in payload bytes, but for one event of any size.
constexpr std::uint64_t longestQueue = 512;
constexpr std::uint64_t largestQueue = std::uint64_t{4} * 1024 * 1024;

} // namespace

TCBurstEmitter::TCBurstEmitter(sd_event* event, sd_bus* bus) : m_bus(bus) {
    const auto emitSlice = [](sd_event_source*, void* self) {
        return Guarded([&] { static_cast<TCBurstEmitter*>(self)->m_EmitSlice(); });
    };
    // Runs after every other source's turn, that of the draining connection too.
    const auto wakeUp = [](sd_event_source*, void* self) {
        return Guarded([&] {
            auto* emitter = static_cast<TCBurstEmitter*>(self);
            if (!emitter->m_bursts.empty() && emitter->m_QueueIsShort())
                Check(sd_event_source_set_enabled(emitter->m_slices.get(), SD_EVENT_ON), "emit slices");
        });
    };
    sd_event_source* source = nullptr;
    Check(sd_event_add_defer(event, &source, emitSlice, this), "add a source");
    m_slices.reset(source);
    // The loop would take a source that is always due before the connection, for it has waited longest.
    Check(sd_event_source_set_priority(source, SD_EVENT_PRIORITY_NORMAL + 1), "set a priority");
    Check(sd_event_source_set_enabled(source, SD_EVENT_OFF), "pause a source");
    Check(sd_event_add_post(event, &source, wakeUp, this), "add a source");
    m_wakeUp.reset(source);
}

void TCBurstEmitter::Start(const Event& event, std::uint32_t start, std::uint32_t count,
                           std::function<void()> done) {
    Burst burst{event, start, count, std::move(done)};
    std::vector<std::uint8_t>& payload = burst.event.payload;
    if (payload.size() < sizeof start)
        payload.resize(sizeof start);
    // What cannot be emitted is the caller's to know, before there are thousands of it.
    MakeEvent(m_bus, burst.event);
    m_bursts.push_back(std::move(burst));
    Check(sd_event_source_set_enabled(m_slices.get(), SD_EVENT_ON), "emit slices");
}

void TCBurstEmitter::EmitOne(sd_bus_message* message) {
    Check(sd_bus_send(m_bus, message, nullptr), "emit an event");
    ++m_emitted;
}

bool TCBurstEmitter::m_QueueIsShort() const {
    std::uint64_t queued = 0;
    Check(sd_bus_get_n_queued_write(m_bus, &queued), "ask for the queue");
    const std::uint64_t size = m_bursts.front().event.payload.size();
    return queued < std::clamp<std::uint64_t>(largestQueue / size, 1, longestQueue);
}

void TCBurstEmitter::m_EmitSlice() {
    for (int i = 0; i < eventsASlice && !m_bursts.empty() && m_QueueIsShort(); ++i) {
        Burst& burst = m_bursts.front();
        if (burst.left > 0) {
            std::memcpy(burst.event.payload.data(), &burst.next, sizeof burst.next);
            EmitOne(MakeEvent(m_bus, burst.event).get());
            ++burst.next;
            --burst.left;
            continue;
        }
        const std::function<void()> done = std::move(burst.done);
        m_bursts.pop_front();
        done();
    }
    if (m_bursts.empty() || !m_QueueIsShort())
        Check(sd_event_source_set_enabled(m_slices.get(), SD_EVENT_OFF), "pause a source");
}

} // namespace MavixSim
