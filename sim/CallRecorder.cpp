#include "CallRecorder.h"

#include "Hex.h"

#include <nlohmann/json.hpp>

namespace MavixSim {

namespace {

using Json = nlohmann::ordered_json;

// The memory of a long run stays bounded; tests that look at single calls make far fewer.
constexpr std::size_t mostRecords = 16384;
constexpr std::size_t mostPayloadBytesKept = 64;

// FNV-1a, 64 bits.
std::uint64_t Digest(const std::uint8_t* bytes, std::size_t size) {
    std::uint64_t digest = 0xcbf29ce484222325u;
    for (std::size_t i = 0; i < size; ++i)
        digest = (digest ^ bytes[i]) * 0x100000001b3u;
    return digest;
}

std::string Hex(std::uint64_t value) {
    std::vector<std::uint8_t> bytes;
    for (int shift = 56; shift >= 0; shift -= 8)
        bytes.push_back(static_cast<std::uint8_t>(value >> shift));
    return MavixTraffic::ToHex(bytes.data(), bytes.size());
}

template <class T>
Json OrNull(const std::optional<T>& value) {
    return value ? Json(*value) : Json(nullptr);
}

} // namespace

TCCallRecorder::TCCallRecorder(std::string processName) : m_processName(std::move(processName)) {}

void TCCallRecorder::Add(const Call& call, const std::string& reason) {
    m_refused += reason.empty() ? 0u : 1u;
    m_noReply += call.noReply ? 1u : 0u;
    m_payloadBytes += call.payloadSize;
    ++m_byDestination[call.destination];

    Record record{++m_lastSequence, call, reason, {}, Digest(call.payload, call.payloadSize)};
    if (call.payload != nullptr)
        record.start.assign(call.payload, call.payload + std::min(call.payloadSize, mostPayloadBytesKept));
    record.call.payload = nullptr;
    m_records.push_back(std::move(record));
    if (m_records.size() > mostRecords) {
        m_records.pop_front();
        ++m_forgotten;
    }
}

void TCCallRecorder::Clear() {
    m_records.clear();
    m_byDestination.clear();
    m_lastSequence = m_refused = m_noReply = m_forgotten = m_payloadBytes = 0;
}

std::string TCCallRecorder::Lines(std::uint64_t first) const {
    std::string lines;
    for (const Record& record : m_records) {
        if (record.sequence < first)
            continue;
        const Call& call = record.call;
        Json line;
        line["sequence"] = record.sequence;
        line["process"] = m_processName;
        line["ok"] = record.reason.empty();
        line["reason"] = record.reason.empty() ? Json(nullptr) : Json(record.reason);
        line["interface"] = call.interface;
        line["code"] = call.header ? Json(call.Code()) : Json(nullptr);
        line["flags"] = call.FlagsKnown() ? Json(call.Flags()) : Json(nullptr);
        line["header"] = call.header ? Json(static_cast<std::uint32_t>(*call.header)) : Json(nullptr);
        line["pid"] = OrNull(call.pid);
        line["pidVerified"] = call.pidVerified;
        line["programName"] = OrNull(call.programName);
        line["size"] = OrNull(call.size);
        line["payload"] = MavixTraffic::ToHex(record.start.data(), record.start.size());
        line["digest"] = Hex(record.digest);
        line["timestampReceived"] = OrNull(call.timestampReceived);
        line["timestampSent"] = OrNull(call.timestampSent);
        line["noReply"] = call.noReply;
        line["destination"] = call.destination;
        line["sender"] = call.sender;
        line["path"] = call.path;
        line["member"] = call.member;
        line["signature"] = call.signature;
        lines += line.dump() + "\n";
    }
    return lines;
}

nlohmann::json TCCallRecorder::Counters() const {
    return {{"calls", m_lastSequence},        {"refused", m_refused},     {"noReply", m_noReply},
            {"forgotten", m_forgotten},       {"kept", m_records.size()}, {"payloadBytes", m_payloadBytes},
            {"destinations", m_byDestination}};
}

} // namespace MavixSim
