#include "IpcAuxData.h"

#include "Log.h"

#include <cstring>

namespace MavixApiLite {

namespace {

constexpr std::uint32_t tagBytes = 4;
constexpr std::uint32_t headerBytes = 8;
constexpr int timestampBytes = 8;

std::uint32_t ReadWord(const char* at) {
    std::uint32_t word = 0;
    std::memcpy(&word, at, sizeof word);
    return word;
}

void WriteWord(char* at, std::uint32_t word) {
    std::memcpy(at, &word, sizeof word);
}

} // namespace

IpcAuxData::~IpcAuxData() = default;
IpcNativeAuxData::~IpcNativeAuxData() = default;
IpcProxyAuxData::~IpcProxyAuxData() = default;

std::set<std::int32_t> IpcNativeAuxData::t_SupportedFlags() const {
    return {IPC_AUX_TIMESTAMP_RECEIVED, IPC_AUX_TIMESTAMP_SENT};
}

std::set<std::int32_t> IpcProxyAuxData::t_SupportedFlags() const {
    return {IPC_AUX_TIMESTAMP_SENT};
}

void IpcAuxData::SetTimestamp(int tag, unsigned long long value) {
    if (!m_IsSupported(tag)) {
        MAVIX_LOGD("[IpcAuxData] tag:%d not supported", tag);
        return;
    }
    std::vector<char>& stored = m_values[tag];
    stored.resize(timestampBytes);
    std::memcpy(stored.data(), &value, sizeof value);
}

bool IpcAuxData::GetTimestamp(int tag, unsigned long long& value) const {
    const auto found = m_values.find(tag);
    if (found == m_values.end()) {
        return false;
    }
    const std::vector<char>& stored = found->second;
    if (stored.size() != timestampBytes) {
        MAVIX_LOGE("[IpcAuxData] tag:%d -> size:%zu != expected:%d", tag, stored.size(), timestampBytes);
        return false;
    }
    std::memcpy(&value, stored.data(), sizeof value);
    return true;
}

std::uint32_t IpcAuxData::Mask() const {
    std::uint32_t mask = 0;
    for (const auto& entry : m_values) {
        mask |= static_cast<std::uint32_t>(entry.first);
    }
    return mask;
}

bool IpcAuxData::AuxiliaryFlagsPresent(int flags) const {
    for (const std::int32_t tag : t_SupportedFlags()) {
        if ((tag & flags) != 0) {
            return true;
        }
    }
    return false;
}

bool IpcAuxData::Store(std::vector<char>& out) const {
    out.clear();
    if (m_values.empty()) {
        return false;
    }
    std::uint32_t total = 0;
    for (const auto& entry : m_values) {
        total += static_cast<std::uint32_t>(entry.second.size()) + headerBytes;
    }
    out.resize(total);
    char* cursor = out.data();
    for (const auto& [tag, value] : m_values) {
        WriteWord(cursor, static_cast<std::uint32_t>(tag));
        WriteWord(cursor + tagBytes, static_cast<std::uint32_t>(value.size()));
        if (value.empty()) {
            MAVIX_LOGE("[IpcAuxData] tag:%d -> size:%zu", tag, value.size());
            out.clear();
            return false;
        }
        std::memcpy(cursor + headerBytes, value.data(), value.size());
        cursor += headerBytes + value.size();
    }
    return true;
}

bool IpcAuxData::Load(unsigned int length, const char* data) {
    if (data == nullptr) {
        return false;
    }
    m_values.clear();
    const std::set<std::int32_t> supported = t_SupportedFlags();
    std::uint32_t header = 0;
    while (length - header >= headerBytes) {
        const auto tag = static_cast<std::int32_t>(ReadWord(data + header));
        const std::uint32_t valueLength = ReadWord(data + header + tagBytes);
        const std::uint32_t position = header + headerBytes;
        // In 64 bits: a length that wraps in 32 lies beyond the block like any other that is too long.
        const std::uint64_t end = std::uint64_t{position} + valueLength;
        if (valueLength == 0 || end > length) {
            MAVIX_LOGE("[IpcAuxData] invalid data -> tag:%d, paramLength:%u, position:%u, length:%u", tag,
                       valueLength, position, length);
            m_values.clear();
            return false;
        }
        if (supported.count(tag) != 0) {
            m_values[tag].assign(data + position, data + end);
        } else {
            MAVIX_LOGD("[IpcAuxData] tag:%d not supported", tag);
        }
        header = static_cast<std::uint32_t>(end);
    }
    return !m_values.empty();
}

bool IpcAuxData::m_IsSupported(std::int32_t tag) const {
    return t_SupportedFlags().count(tag) != 0;
}

} // namespace MavixApiLite
