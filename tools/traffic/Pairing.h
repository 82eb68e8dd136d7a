#ifndef MAVIX_TRAFFIC_PAIRING_H
#define MAVIX_TRAFFIC_PAIRING_H

#include "Message.h"

#include <deque>
#include <optional>
#include <unordered_map>
#include <vector>

namespace MavixTraffic {

// A call that waits for its reply.
struct WaitingCall {
    std::uint64_t number = 0; // the caller's, of the message
    std::uint64_t atUs = 0;
    std::string sender;
    std::uint64_t serial = 0;
    std::string destination;
    std::string interface;
    std::optional<std::int16_t> code;
    std::optional<std::uint64_t> timestampSent;
    // What the caller wants to know of it later.
    bool isSelected = true;
};

// Where the time of a call went, in microseconds. All times are of the monotonic clock: the timestamps that
// travel with call and reply, which count milliseconds, and the monitor's own for the moments at which it
// took up both.
struct TimeSplit {
    std::uint64_t totalUs = 0;
    // Whether the beginning is the client's send timestamp, not the moment at which the call was seen.
    bool startsAtClient = false;
    // Known when the reply carries both timestamps.
    std::optional<std::uint64_t> wayOutUs;
    std::optional<std::uint64_t> serviceUs;
    std::optional<std::uint64_t> wayBackUs;
};

TimeSplit SplitTime(const WaitingCall& call, const Message& reply);

// The calls without a reply so far. Those that wait too long, or longest where there are too many, time out.
// Owner: who reads the messages. One thread.
class TCPairing final {
public:
    struct Limits {
        std::uint64_t longestWaitUs = 30'000'000;
        std::size_t mostCalls = 65536;
    };

    TCPairing() : TCPairing(Limits{}) {}
    explicit TCPairing(const Limits& limits) : m_limits(limits) {}

    void Add(WaitingCall call);
    // The call that a reply or an error answers; none when it is not one of ours.
    std::optional<WaitingCall> Take(const Message& reply);
    // Those that have timed out by now, in their order.
    std::vector<WaitingCall> TakeTimedOut(std::uint64_t nowUs);
    // When the next one times out; none when no call waits.
    std::optional<std::uint64_t> NextTimeOutUs() const;

    std::size_t Size() const { return m_waiting.size(); }
    // Entries that are kept for the order, those of answered calls among them.
    std::size_t Remembered() const { return m_order.size(); }

private:
    struct Key {
        std::string sender;
        std::uint64_t serial;
        bool operator==(const Key& other) const { return serial == other.serial && sender == other.sender; }
    };
    struct Hash {
        std::size_t operator()(const Key& key) const {
            return std::hash<std::string>()(key.sender) * 31 + key.serial;
        }
    };

    bool m_Waits(const std::pair<Key, std::uint64_t>& entry) const;
    bool m_IsDue(const WaitingCall& call, std::uint64_t nowUs) const;
    void m_DropAnswered();

    const Limits m_limits;
    std::unordered_map<Key, WaitingCall, Hash> m_waiting;
    // In the order of their arrival; those answered stay until they are the first, with the number of the
    // call, as a serial may come again.
    std::deque<std::pair<Key, std::uint64_t>> m_order;
};

} // namespace MavixTraffic

#endif
