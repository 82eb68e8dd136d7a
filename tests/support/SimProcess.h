#ifndef MAVIX_TEST_SIM_PROCESS_H
#define MAVIX_TEST_SIM_PROCESS_H

#include "PrivateBus.h"
#include "SimService.h"

namespace MavixTest {

// The stand-in service on a private bus. Owner: the test, on one thread.
class TCSimProcess final {
public:
    // Returns when the service owns its names. `options` as of mavix-sim --help. What it refuses shows on
    // standard error, unless `quiet`.
    explicit TCSimProcess(const TCPrivateBus& bus, const std::vector<std::string>& options = {},
                          bool quiet = false);

    pid_t DaemonPid() const { return m_service.DaemonPid(); }
    pid_t LitePid() const { return m_service.LitePid(); }

    // Kills one serving process; with the option --respawn it is started anew.
    void KillDaemon();
    void KillLite();
    // Waits until both processes are ready again; the process ids are then those of the new ones.
    bool WaitReady(std::chrono::milliseconds limit = std::chrono::seconds(20)) {
        return m_service.WaitReady(limit);
    }

    // Kills the service as a whole, and returns when all of it is gone.
    void Kill();
    // The same by SIGTERM.
    void Stop();
    // The exit status as of waitpid, or none when it runs on after `limit`.
    std::optional<int> WaitForEnd(std::chrono::milliseconds limit) { return m_service.Process().Wait(limit); }

private:
    MavixTools::TCSimService m_service;
};

} // namespace MavixTest

#endif
