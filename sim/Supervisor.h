#ifndef MAVIX_SIM_SUPERVISOR_H
#define MAVIX_SIM_SUPERVISOR_H

#include "ChildProcess.h"
#include "SimOptions.h"
#include "scenario/Progress.h"

#include <array>

namespace MavixSim {

// What the processes that play a scenario, or replay a recording, inherit. Owner: main.
struct SupervisedScenario {
    // The text is the file's, which they find by an option of this name.
    SupervisedScenario(const Scenario& scenario, const std::string& fileText, const char* optionName);

    const std::string option;
    MavixTools::TCDescriptor text;
    MavixTools::TCDescriptor shared;
    TCProgress progress; // in `shared`
};

// Runs one child process a role, tells when all are ready, and ends or starts them anew when one ends. Owner:
// main. One thread.
class TCSupervisor final {
public:
    // `scenario` is null when none is played.
    TCSupervisor(const SimOptions& options, SupervisedScenario* scenario);

    // Runs until a signal, or until a process ends and is not started anew. The processes have ended. The
    // exit code.
    int Run();

private:
    using Clock = std::chrono::steady_clock;

    struct Child {
        const Role* role = nullptr;
        MavixTools::TCChildProcess process;
        MavixTools::TCDescriptor ready; // readable or at its end when the process is ready or has ended
        bool isReady = false;
        Clock::time_point startTime;
    };

    int m_Watch();
    void m_StartDue();
    void m_Start(Child& child);
    int m_PollLimit() const;
    void m_HandleReady(Child& child);
    // The exit code when the run ends with this process.
    std::optional<int> m_HandleEnd(Child& child);
    void m_TellReady() const;

    const SimOptions m_options;
    SupervisedScenario* const m_scenario;
    MavixTools::TCDescriptor m_signals;
    std::array<Child, 2> m_children;
};

} // namespace MavixSim

#endif
