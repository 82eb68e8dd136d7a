#ifndef MAVIX_SIM_REPLAY_REPLAY_H
#define MAVIX_SIM_REPLAY_REPLAY_H

#include "BurstEmitter.h"
#include "RecordedCalls.h"
#include "Timers.h"
#include "scenario/Progress.h"

#include <map>
#include <memory>

namespace MavixSim {

// What a process replays, and how far it has come.
struct Replayed {
    const TCRecordedCalls& calls;
    TCProgress& progress;
    bool isFast = false; // not with the recorded timing
};

// The D-Bus error that a call gets which the recording does not know.
inline constexpr const char* unknownCallErrorName = "com.norvale.Error.NotRecorded";

// Answers calls with what they were answered with when they were recorded, and emits the events that followed
// them. Owner: the server. One thread.
class TCReplay final {
public:
    TCReplay(const Replayed& replayed, sd_bus* bus, TCBurstEmitter& emitter, TCTimers& timers)
        : m_replayed(replayed), m_bus(bus), m_emitter(emitter), m_timers(timers) {}
    TCReplay(const TCReplay&) = delete;
    TCReplay& operator=(const TCReplay&) = delete;

    // Emits the events that preceded the first call; once for all processes.
    void Start();
    // `refusal` is empty for a call that follows the layout.
    void Respond(sd_bus_message* request, const Call& call, const std::string& refusal);

private:
    using Request = std::shared_ptr<sd_bus_message>;

    void m_Play(const std::vector<RecordedStep>& steps, const Request& request);
    void m_Do(const RecordedStep& step, const Request& request);
    void m_Answer(sd_bus_message* request, const MavixTraffic::RecordedReply& reply);
    void m_Emit(const MavixTraffic::RecordedEvent& event);
    void m_TellUnknown(sd_bus_message* request, const Call& call, const std::string& refusal);

    const Replayed m_replayed;
    sd_bus* const m_bus;
    TCBurstEmitter& m_emitter;
    TCTimers& m_timers;
    // The clients now by the unique names of those that made the same calls then.
    std::map<std::string, std::string> m_clients;
};

// The calls that the recording did not know, for people to read, a line each; empty when it knew all.
std::string TellUnknownCalls(const TCProgress& progress);

} // namespace MavixSim

#endif
