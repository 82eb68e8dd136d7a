#include "Pairing.h"

#include <algorithm>

namespace MavixTraffic {

namespace {

constexpr std::size_t spareEntries = 1024;

// Milliseconds are cut, so what they precede may seem to come first.
std::uint64_t Difference(std::uint64_t later, std::uint64_t earlier) {
    return later > earlier ? later - earlier : 0;
}

} // namespace

TimeSplit SplitTime(const WaitingCall& call, const Message& reply) {
    TimeSplit split;
    split.startsAtClient = call.timestampSent.has_value();
    const std::uint64_t startUs = call.timestampSent ? *call.timestampSent * 1000 : call.atUs;
    split.totalUs = Difference(reply.atUs, startUs);
    const auto& received = reply.reply.timestampReceived;
    const auto& sent = reply.reply.timestampSent;
    if (received && sent) {
        split.wayOutUs = Difference(*received * 1000, startUs);
        split.serviceUs = Difference(*sent, *received) * 1000;
        split.wayBackUs = Difference(reply.atUs, *sent * 1000);
    }
    return split;
}

void TCPairing::Add(WaitingCall call) {
    Key key{call.sender, call.serial};
    m_order.emplace_back(key, call.number);
    m_waiting[std::move(key)] = std::move(call);
    // One call that waits long must not keep all that were answered after it.
    if (m_order.size() > 2 * m_waiting.size() + spareEntries)
        m_order.erase(std::remove_if(m_order.begin(), m_order.end(),
                                     [this](const auto& entry) { return !m_Waits(entry); }),
                      m_order.end());
}

std::optional<WaitingCall> TCPairing::Take(const Message& reply) {
    const auto found = m_waiting.find(Key{reply.destination, reply.replySerial});
    if (found == m_waiting.end())
        return std::nullopt;
    WaitingCall call = std::move(found->second);
    m_waiting.erase(found);
    m_DropAnswered();
    return call;
}

bool TCPairing::m_Waits(const std::pair<Key, std::uint64_t>& entry) const {
    const auto found = m_waiting.find(entry.first);
    return found != m_waiting.end() && found->second.number == entry.second;
}

bool TCPairing::m_IsDue(const WaitingCall& call, std::uint64_t nowUs) const {
    return m_waiting.size() > m_limits.mostCalls || Difference(nowUs, call.atUs) >= m_limits.longestWaitUs;
}

void TCPairing::m_DropAnswered() {
    while (!m_order.empty() && !m_Waits(m_order.front()))
        m_order.pop_front();
}

std::vector<WaitingCall> TCPairing::TakeTimedOut(std::uint64_t nowUs) {
    std::vector<WaitingCall> calls;
    for (m_DropAnswered(); !m_order.empty(); m_DropAnswered()) {
        const auto first = m_waiting.find(m_order.front().first);
        if (!m_IsDue(first->second, nowUs))
            break;
        calls.push_back(std::move(first->second));
        m_waiting.erase(first);
        m_order.pop_front();
    }
    return calls;
}

std::optional<std::uint64_t> TCPairing::NextTimeOutUs() const {
    if (m_order.empty())
        return std::nullopt;
    const auto first = m_waiting.find(m_order.front().first);
    return first != m_waiting.end() ? std::optional(first->second.atUs + m_limits.longestWaitUs)
                                    : std::nullopt;
}

} // namespace MavixTraffic
