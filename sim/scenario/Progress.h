#ifndef MAVIX_SIM_SCENARIO_PROGRESS_H
#define MAVIX_SIM_SCENARIO_PROGRESS_H

#include "Roles.h"
#include "Scenario.h"

#include <array>
#include <atomic>

namespace MavixSim {

// How far a scenario has been played: memory that the serving processes share with their supervisor, so that
// it survives each of them. Owner: who plays or judges. The counters may be used by all at the same time.
class TCProgress final {
public:
    using Counter = std::atomic<std::uint64_t>;

    // What came of an expectation.
    struct Tally {
        Counter count;
        Counter others; // calls of the function with another payload
        Counter first;  // number of the first call among all calls; 0 for none
    };

    // A call that nobody expected.
    struct Stranger {
        std::atomic<bool> complete;
        char interface[256];
        bool hasCode;
        std::int16_t code;
        std::uint64_t size;
        std::uint8_t start[16]; // of the payload
        char reason[160];       // why the call was refused; empty when it was not
    };
    static constexpr std::size_t mostStrangers = 16;

    // In a file that is empty or has the progress of the same scenario; in memory of its own when
    // `descriptor` is negative. Throws std::system_error.
    TCProgress(const Scenario& scenario, int descriptor);
    TCProgress(const TCProgress&) = delete;
    TCProgress& operator=(const TCProgress&) = delete;
    ~TCProgress();

    // The beginning of the scenario on the clock of Clock.h, which is now when it had none yet.
    std::uint64_t StartMs();
    // How long a role's process, which is about to end, is to be away.
    Counter& AwayMs(const Role& role);
    // Calls of a rule.
    Counter& Calls(std::size_t rule) { return m_rules[rule]; }
    // How often an action of the timeline was done.
    Counter& Done(std::size_t action) { return m_actions[action]; }

    void Count(const Scenario& scenario, const Call& call, const std::string& refusal);
    const Tally& TallyOf(std::size_t expectation) const { return m_tallies[expectation]; }
    // The first calls that nobody expected; `strangers` of all there were.
    std::vector<const Stranger*> Strangers(std::uint64_t& strangers) const;

private:
    struct Shared {
        Counter startMs;
        std::array<Counter, 2> awayMs;
        Counter calls;
        Counter strangers;
        std::array<Stranger, mostStrangers> first;
    };

    static std::size_t m_SizeFor(const Scenario& scenario);
    void m_AddStranger(const Call& call, const std::string& refusal);

    const std::size_t m_size;
    Shared* m_shared = nullptr;
    Tally* m_tallies = nullptr;
    Counter* m_rules = nullptr;
    Counter* m_actions = nullptr;
};

} // namespace MavixSim

#endif
