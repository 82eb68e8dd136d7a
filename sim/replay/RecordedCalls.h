#ifndef MAVIX_SIM_REPLAY_RECORDED_CALLS_H
#define MAVIX_SIM_REPLAY_RECORDED_CALLS_H

#include "Call.h"
#include "scenario/Scenario.h"

#include "Recording.h"

#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace MavixSim {

// What follows a recorded call, or the beginning, in its order.
struct RecordedStep {
    std::uint64_t afterUs = 0;
    const MavixTraffic::RecordedReply* reply = nullptr; // or an event
    const MavixTraffic::RecordedEvent* event = nullptr;
};

// A recording by its calls. The same calls are those of the same interface, function code and payload, that
// both want an answer or do not; those that deviate from the layout are the same when they do so in the same
// way. Owner: who replays it; it does not change.
class TCRecordedCalls final {
public:
    explicit TCRecordedCalls(MavixTraffic::Recording recording);
    TCRecordedCalls(const TCRecordedCalls&) = delete;
    TCRecordedCalls& operator=(const TCRecordedCalls&) = delete;

    // The number of the call among the different ones; none for one that was not recorded. `refusal` is empty
    // for a call that follows the layout.
    std::optional<std::size_t> Find(const Call& call, const std::string& refusal) const;

    // The recorded call that answers the same call for the n-th time, from 0: the n-th, or the last.
    const MavixTraffic::RecordedCall& CallAt(std::size_t number, std::uint64_t n) const;
    // What followed it; without the events when it has been played before.
    std::vector<RecordedStep> StepsAt(std::size_t number, std::uint64_t n) const;
    // What preceded the first call.
    std::vector<RecordedStep> FirstSteps() const;

    // As many rules as there are different calls, and one action: how far a replay has come is counted by
    // them.
    const Scenario& Counted() const { return m_counted; }

private:
    std::vector<RecordedStep> m_EventsAfter(std::size_t callsBefore, std::uint64_t startUs) const;

    const MavixTraffic::Recording m_recording;
    std::unordered_map<std::string, std::size_t> m_numbers;
    std::vector<std::vector<std::size_t>> m_calls; // by number
    Scenario m_counted;
};

} // namespace MavixSim

#endif
