#include "RecordedCalls.h"

#include <algorithm>

namespace MavixSim {

using MavixTraffic::RecordedCall;
using MavixTraffic::RecordedEvent;

namespace {

std::string Key(const std::string& interface, std::int16_t code, bool noReply, const std::uint8_t* payload,
                std::size_t size) {
    std::string key = interface + ' ' + std::to_string(code) + (noReply ? " 1 " : " 0 ");
    return key.append(reinterpret_cast<const char*>(payload), size);
}

std::string DeviationKey(const std::string& interface, const std::string& deviation) {
    return "deviates " + interface + ' ' + deviation;
}

std::string KeyOf(const RecordedCall& call) {
    if (!call.deviation.empty())
        return DeviationKey(call.interface, call.deviation);
    return Key(call.interface, call.code, call.noReply, call.payload.data(), call.payload.size());
}

} // namespace

TCRecordedCalls::TCRecordedCalls(MavixTraffic::Recording recording) : m_recording(std::move(recording)) {
    for (std::size_t i = 0; i < m_recording.calls.size(); ++i) {
        const std::size_t next = m_calls.size();
        const std::size_t number = m_numbers.emplace(KeyOf(m_recording.calls[i]), next).first->second;
        m_calls.resize(std::max(m_calls.size(), number + 1));
        m_calls[number].push_back(i);
    }
    m_counted.rules.resize(m_calls.size());
    m_counted.timeline.resize(1);
}

std::optional<std::size_t> TCRecordedCalls::Find(const Call& call, const std::string& refusal) const {
    const auto found = m_numbers.find(
        refusal.empty() ? Key(call.interface, call.Code(), call.noReply, call.payload, call.payloadSize)
                        : DeviationKey(call.interface, refusal));
    return found != m_numbers.end() ? std::optional(found->second) : std::nullopt;
}

const RecordedCall& TCRecordedCalls::CallAt(std::size_t number, std::uint64_t n) const {
    const std::vector<std::size_t>& calls = m_calls[number];
    return m_recording.calls[calls[std::min<std::uint64_t>(n, calls.size() - 1)]];
}

std::vector<RecordedStep> TCRecordedCalls::StepsAt(std::size_t number, std::uint64_t n) const {
    const RecordedCall& call = CallAt(number, n);
    std::vector<RecordedStep> steps;
    if (n < m_calls[number].size())
        steps = m_EventsAfter(m_calls[number][n] + 1, call.atUs);
    if (call.reply) {
        const auto isBefore = [&](const RecordedStep& step) { return step.event->line < call.reply->line; };
        steps.insert(std::partition_point(steps.begin(), steps.end(), isBefore),
                     RecordedStep{call.reply->atUs - call.atUs, &*call.reply, nullptr});
    }
    return steps;
}

std::vector<RecordedStep> TCRecordedCalls::FirstSteps() const {
    return m_EventsAfter(0, 0);
}

std::vector<RecordedStep> TCRecordedCalls::m_EventsAfter(std::size_t callsBefore,
                                                         std::uint64_t startUs) const {
    const std::vector<RecordedEvent>& events = m_recording.events;
    auto event = std::partition_point(events.begin(), events.end(), [&](const RecordedEvent& each) {
        return each.callsBefore < callsBefore;
    });
    std::vector<RecordedStep> steps;
    for (; event != events.end() && event->callsBefore == callsBefore; ++event)
        steps.push_back({event->atUs - startUs, nullptr, &*event});
    return steps;
}

} // namespace MavixSim
