#ifndef MAVIX_SIM_SCENARIO_PLAYER_H
#define MAVIX_SIM_SCENARIO_PLAYER_H

#include "BurstEmitter.h"
#include "BusNames.h"
#include "Plan.h"
#include "Progress.h"

#include <map>

namespace MavixSim {

// What a process plays, and how far it has come.
struct Playback {
    const Scenario& scenario;
    TCProgress& progress;
};

// Plays a scenario's part of one process. Owner: the server. One thread.
class TCPlayer final {
public:
    struct Parts {
        const Role& role;
        sd_event* event;
        sd_bus* bus;
        TCBusNames& names;
        TCBurstEmitter& emitter;
        TCTimers& timers;
    };

    TCPlayer(const Playback& playback, const Parts& parts) : m_playback(playback), m_parts(parts) {}
    TCPlayer(const TCPlayer&) = delete;
    TCPlayer& operator=(const TCPlayer&) = delete;

    // Takes the role's names as the scenario wants them taken, unless the process has had them before.
    void TakeNames(bool isFirstTime);
    // Begins with the timeline, or goes on with it.
    void Start();
    void Count(const Call& call, const std::string& refusal) {
        m_playback.progress.Count(m_playback.scenario, call, refusal);
    }
    // None for a call that no rule is for.
    std::optional<Plan> PlanFor(const Call& call);
    // How long to stay off the bus, when that is why the event loop has ended.
    std::optional<std::uint32_t> AwayMs() const { return m_awayMs; }

private:
    Plan m_PlanFor(const Step& step, const Call& call, std::uint64_t chance);
    std::uint64_t m_Chance(std::size_t rule, std::uint64_t number) const;
    // Answers each two calls of a step the other way round; the first one alone when it has waited long.
    void m_Swap(const Step& step, std::function<void()> answer);
    bool m_IsOurs(const Action& action) const;
    void m_DoAt(std::uint64_t dueMs, const Action& action, const std::string& caller, std::uint64_t done,
                TCProgress::Counter* kept);
    void m_Do(const Action& action, const std::string& caller);
    void m_Emit(Event event, const FaultUse& fault);
    void m_Break(const FaultUse& fault, const std::string& busName);
    void m_Hang(std::uint32_t milliseconds);
    void m_Flap(const std::string& busName, std::uint32_t milliseconds, std::uint32_t times);

    struct Held {
        std::uint64_t number;
        std::function<void()> answer;
    };

    const Playback m_playback;
    const Parts m_parts;
    std::map<const Step*, Held> m_held; // answers that wait for the next call
    std::uint64_t m_lastHeld = 0;
    std::optional<std::uint32_t> m_awayMs;
};

// Waits, but no longer than until a signal asks the process to end, which is then still pending. For ever
// when `milliseconds` is 0. False after a signal.
bool WaitWithoutServing(std::uint32_t milliseconds);

} // namespace MavixSim

#endif
