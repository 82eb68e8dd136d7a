#ifndef MAVIX_TOOLS_SANDBOX_H
#define MAVIX_TOOLS_SANDBOX_H

#include "BusDaemon.h"
#include "Keeper.h"
#include "SandboxOptions.h"
#include "SimService.h"
#include "TempFolder.h"

#include <memory>
#include <vector>

namespace MavixTools {

// The exit code for failures of the sandbox itself, as of env(1) and timeout(1).
constexpr int sandboxFailed = 125;
// When a scenario's expectations are not met; mavix-sim's, too.
constexpr int scenarioNotMet = 124;
// When a recording does not know all calls; mavix-sim's, too.
constexpr int callNotRecorded = 123;

// One run: bus, stand-in service, command. Owner: the keeper's body, in whose process there is one. The
// destructor ends what still runs, the command's own left-overs too, and removes the files.
class TCSandbox final {
public:
    TCSandbox(const SandboxOptions& options, Kept& kept);
    TCSandbox(const TCSandbox&) = delete;
    TCSandbox& operator=(const TCSandbox&) = delete;
    ~TCSandbox();

    // The command's exit status as a shell reports it. Throws what starting the parts throws.
    int Run();

private:
    void m_StartServices();
    ChildOptions m_CommandOptions() const;
    int m_RunCommand();
    // Ends the service. The exit status, when that of the command is `status`.
    int m_JudgeScenario(int status);
    std::string m_ReportPath() const { return m_folder.Path() + "/report"; }
    int m_WaitForCommand(TCChildProcess& command);
    void m_HandleSignal(TCChildProcess& command);
    std::vector<pid_t> m_ServicePids() const;
    void m_CheckServices();

    const SandboxOptions m_options;
    const Kept& m_kept;
    TCDescriptor m_signals;
    // The command is killed when it has not ended this long after a signal that asked for it.
    std::optional<std::chrono::steady_clock::time_point> m_killTime;
    TCTempFolder m_folder;
    std::unique_ptr<TCBusDaemon> m_bus;
    std::unique_ptr<TCSimService> m_sim;
};

} // namespace MavixTools

#endif
