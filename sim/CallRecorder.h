#ifndef MAVIX_SIM_CALL_RECORDER_H
#define MAVIX_SIM_CALL_RECORDER_H

#include "Call.h"

#include <deque>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace MavixSim {

// Remembers what the service was asked: the latest calls one by one, all of them in counters. Owner: the
// server. One thread.
class TCCallRecorder final {
public:
    explicit TCCallRecorder(std::string processName);

    // `reason` is empty for a call that was accepted.
    void Add(const Call& call, const std::string& reason);
    void Clear();

    // One JSON object a line for the calls kept, from the sequence number `first` on.
    std::string Lines(std::uint64_t first) const;

    nlohmann::json Counters() const;

private:
    struct Record {
        std::uint64_t sequence;
        Call call; // without its payload
        std::string reason;
        std::vector<std::uint8_t> start; // of the payload
        std::uint64_t digest;
    };

    const std::string m_processName;
    std::deque<Record> m_records;
    std::uint64_t m_lastSequence = 0;
    std::uint64_t m_refused = 0;
    std::uint64_t m_noReply = 0;
    std::uint64_t m_forgotten = 0;
    std::uint64_t m_payloadBytes = 0;
    std::map<std::string, std::uint64_t> m_byDestination;
};

} // namespace MavixSim

#endif
