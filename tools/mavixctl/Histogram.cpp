#include "Histogram.h"

#include <algorithm>
#include <cmath>

namespace MavixControl {

// Numbers below `parts` have buckets of their own; each further octave has `parts` buckets.
std::size_t TCHistogram::m_IndexOf(std::uint64_t nanoseconds) {
    if (nanoseconds < parts)
        return nanoseconds;
    const auto highestBit = static_cast<unsigned int>(63 - __builtin_clzll(nanoseconds));
    const unsigned int shift = highestBit - partBits;
    return (shift + 1) * parts + ((nanoseconds >> shift) & (parts - 1));
}

std::uint64_t TCHistogram::m_BeginOf(std::size_t index) {
    if (index < parts)
        return index;
    const std::size_t shift = index / parts - 1;
    return (parts + index % parts) << shift;
}

void TCHistogram::Add(std::uint64_t nanoseconds) {
    ++m_buckets[m_IndexOf(nanoseconds)];
    ++m_count;
    m_least = std::min(m_least, nanoseconds);
    m_most = std::max(m_most, nanoseconds);
    m_sum += static_cast<double>(nanoseconds);
}

void TCHistogram::Add(const TCHistogram& other) {
    for (std::size_t i = 0; i < bucketCount; ++i)
        m_buckets[i] += other.m_buckets[i];
    m_count += other.m_count;
    m_least = std::min(m_least, other.m_least);
    m_most = std::max(m_most, other.m_most);
    m_sum += other.m_sum;
}

std::uint64_t TCHistogram::QuantileNs(double share) const {
    const auto wanted = static_cast<std::uint64_t>(std::ceil(share * static_cast<double>(m_count)));
    std::uint64_t seen = 0;
    for (std::size_t i = 0; i + 1 < bucketCount && m_count > 0; ++i) {
        seen += m_buckets[i];
        if (seen >= wanted && seen > 0)
            return std::clamp(m_BeginOf(i + 1) - 1, m_least, m_most);
    }
    return m_most;
}

std::vector<TCHistogram::Bucket> TCHistogram::Octaves() const {
    std::vector<Bucket> octaves;
    std::size_t kept = 0;
    for (std::size_t begin = 0; begin + parts < bucketCount; begin += parts) {
        std::uint64_t count = 0;
        for (std::size_t i = begin; i < begin + parts; ++i)
            count += m_buckets[i];
        if (count == 0 && octaves.empty())
            continue;
        octaves.push_back({m_BeginOf(begin), m_BeginOf(begin + parts), count});
        kept = count > 0 ? octaves.size() : kept;
    }
    octaves.resize(kept);
    return octaves;
}

} // namespace MavixControl
