#include "Numbers.h"

#include <algorithm>
#include <utility>

namespace MavixBench {

void AddPercentiles(benchmark::State& state, std::vector<std::int64_t>& times) {
    constexpr std::pair<const char*, double> percentiles[] = {
        {"p1", 0.01},  {"p10", 0.1}, {"p25", 0.25}, {"p50", 0.5},
        {"p75", 0.75}, {"p90", 0.9}, {"p99", 0.99}, {"p999", 0.999},
    };
    if (times.empty()) {
        return;
    }
    std::sort(times.begin(), times.end());
    for (const auto& [name, share] : percentiles) {
        const auto at = static_cast<std::size_t>(share * static_cast<double>(times.size() - 1));
        state.counters[name] =
            benchmark::Counter(static_cast<double>(times[at]) / 1000, benchmark::Counter::kAvgThreads);
    }
}

} // namespace MavixBench
