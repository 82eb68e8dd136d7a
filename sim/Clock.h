#ifndef MAVIX_SIM_CLOCK_H
#define MAVIX_SIM_CLOCK_H

#include <cstdint>
#include <ctime>

namespace MavixSim {

// The clock of the timestamps that travel with calls and replies.
inline std::uint64_t MonotonicMs() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000 + static_cast<std::uint64_t>(now.tv_nsec) / 1000000;
}

} // namespace MavixSim

#endif
