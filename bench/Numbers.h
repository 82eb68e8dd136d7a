#ifndef MAVIX_BENCH_NUMBERS_H
#define MAVIX_BENCH_NUMBERS_H

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <vector>

namespace MavixBench {

using Clock = std::chrono::steady_clock;

inline std::int64_t NowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
}

// Adds the distribution of some times in nanoseconds to a benchmark's result, as counters in microseconds:
// p1, p10, p25, p50, p75, p90, p99 and p999.
void AddPercentiles(benchmark::State& state, std::vector<std::int64_t>& times);

// What a turn of some work cost: its time, and the processor time of the whole process.
struct TurnCost {
    double timeNs = 0;
    double cpuNs = 0;
};
using Turn = std::function<TurnCost()>;

TurnCost CostOf(const std::function<void()>& work);

// Runs two kinds of work in turns, in an order of chance. Turns are short, so that what disturbs the machine
// disturbs neighbours alike. Adds the medians of measured by beside as counters: time_ratio and cpu_ratio.
void TakeTurns(benchmark::State& state, const Turn& measured, const Turn& beside);

} // namespace MavixBench

#endif
