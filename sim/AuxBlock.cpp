#include "AuxBlock.h"

#include "CallDecoder.h"

#include <cstring>

namespace MavixSim {

namespace {

constexpr std::size_t recordHeaderSize = 8;

template <class T>
T Load(const std::uint8_t* bytes) {
    T value;
    std::memcpy(&value, bytes, sizeof value);
    return value;
}

template <class T>
void Append(std::vector<std::uint8_t>& block, T value) {
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(&value);
    block.insert(block.end(), bytes, bytes + sizeof value);
}

// A timestamp of this device's clock that has already been.
void CheckTimestamp(std::uint64_t value, const Call& call) {
    if (value == 0 || value > call.takenUpMs)
        throw Refusal("auxiliary block: implausible timestamp " + std::to_string(value));
}

} // namespace

void DecodeAuxBlock(const std::uint8_t* bytes, std::size_t size, Call& call) {
    if (size == 0)
        throw Refusal("auxiliary block: present, but empty");
    std::uint32_t lastTag = 0;
    for (std::size_t at = 0; at < size;) {
        if (size - at < recordHeaderSize)
            throw Refusal("auxiliary block: " + std::to_string(size - at) + " stray bytes");
        const auto tag = Load<std::uint32_t>(bytes + at);
        const auto length = Load<std::uint32_t>(bytes + at + sizeof tag);
        at += recordHeaderSize;
        if (tag != tagTimestampReceived && tag != tagTimestampSent)
            throw Refusal("auxiliary block: unknown tag " + std::to_string(tag));
        if (tag <= lastTag)
            throw Refusal("auxiliary block: tag " + std::to_string(tag) + " out of order");
        if (length != sizeof(std::uint64_t) || size - at < length)
            throw Refusal("auxiliary block: value of " + std::to_string(length) + " bytes");
        const auto value = Load<std::uint64_t>(bytes + at);
        CheckTimestamp(value, call);
        (tag == tagTimestampSent ? call.timestampSent : call.timestampReceived) = value;
        lastTag = tag;
        at += length;
    }
}

void AppendAuxRecord(std::vector<std::uint8_t>& block, std::uint32_t tag,
                     const std::vector<std::uint8_t>& value) {
    Append(block, tag);
    Append(block, static_cast<std::uint32_t>(value.size()));
    block.insert(block.end(), value.begin(), value.end());
}

void AppendAuxTimestamp(std::vector<std::uint8_t>& block, std::uint32_t tag, std::uint64_t milliseconds) {
    std::vector<std::uint8_t> value;
    Append(value, milliseconds);
    AppendAuxRecord(block, tag, value);
}

} // namespace MavixSim
