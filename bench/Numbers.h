#ifndef MAVIX_BENCH_NUMBERS_H
#define MAVIX_BENCH_NUMBERS_H

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <vector>

namespace MavixBench {

using Clock = std::chrono::steady_clock;

inline std::int64_t NowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
}

// Adds the distribution of some times in nanoseconds to a benchmark's result, as counters in microseconds:
// p1, p10, p25, p50, p75, p90, p99 and p999.
void AddPercentiles(benchmark::State& state, std::vector<std::int64_t>& times);

} // namespace MavixBench

#endif
