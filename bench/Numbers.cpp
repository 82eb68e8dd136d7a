#include "Numbers.h"

#include <algorithm>
#include <ctime>
#include <random>
#include <utility>

namespace MavixBench {

namespace {

double ProcessorNs() {
    timespec now = {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return 1e9 * static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec);
}

double Median(std::vector<double> numbers) {
    const auto middle = numbers.begin() + static_cast<std::ptrdiff_t>(numbers.size() / 2);
    std::nth_element(numbers.begin(), middle, numbers.end());
    return numbers.empty() ? 0 : *middle;
}

} // namespace

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

TurnCost CostOf(const std::function<void()>& work) {
    const double cpuBefore = ProcessorNs();
    const std::int64_t before = NowNs();
    work();
    return {static_cast<double>(NowNs() - before), ProcessorNs() - cpuBefore};
}

void TakeTurns(benchmark::State& state, const Turn& measured, const Turn& beside) {
    std::minstd_rand chance(std::random_device{}());
    std::vector<double> times;
    std::vector<double> processorTimes;
    for ([[maybe_unused]] auto step : state) {
        TurnCost ours;
        TurnCost theirs;
        if (chance() % 2 == 0) {
            ours = measured();
            theirs = beside();
        } else {
            theirs = beside();
            ours = measured();
        }
        times.push_back(ours.timeNs / theirs.timeNs);
        processorTimes.push_back(ours.cpuNs / theirs.cpuNs);
    }
    state.counters["time_ratio"] = Median(times);
    state.counters["cpu_ratio"] = Median(processorTimes);
}

} // namespace MavixBench
