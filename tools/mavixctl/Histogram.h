#ifndef MAVIX_CONTROL_HISTOGRAM_H
#define MAVIX_CONTROL_HISTOGRAM_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace MavixControl {

// Counts times in buckets that are an eighth of their value wide, so that quantiles are off by as much at
// most. Owner: one thread; several are added up afterwards.
class TCHistogram final {
public:
    struct Bucket {
        std::uint64_t fromNs;
        std::uint64_t toNs;
        std::uint64_t count;
    };

    void Add(std::uint64_t nanoseconds);
    void Add(const TCHistogram& other);

    std::uint64_t Count() const { return m_count; }
    std::uint64_t LeastNs() const { return m_count == 0 ? 0 : m_least; }
    std::uint64_t MostNs() const { return m_most; }
    double MeanNs() const { return m_count == 0 ? 0 : m_sum / static_cast<double>(m_count); }
    // The time that the share of all stays within, as the end of its bucket; 0 without any.
    std::uint64_t QuantileNs(double share) const;
    // From the first to the last that is not empty, each up to twice its beginning.
    std::vector<Bucket> Octaves() const;

private:
    static constexpr unsigned int partBits = 3;
    static constexpr std::size_t parts = std::size_t{1} << partBits;
    static constexpr std::size_t bucketCount = (64 - partBits + 1) * parts;

    static std::size_t m_IndexOf(std::uint64_t nanoseconds);
    static std::uint64_t m_BeginOf(std::size_t index);

    std::array<std::uint64_t, bucketCount> m_buckets{};
    std::uint64_t m_count = 0;
    std::uint64_t m_least = ~std::uint64_t{0};
    std::uint64_t m_most = 0;
    double m_sum = 0;
};

} // namespace MavixControl

#endif
