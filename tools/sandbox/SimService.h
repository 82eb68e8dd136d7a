#ifndef MAVIX_TOOLS_SIM_SERVICE_H
#define MAVIX_TOOLS_SIM_SERVICE_H

#include "ChildProcess.h"
#include "LineReader.h"

#include <string>
#include <vector>

namespace MavixTools {

// The stand-in service as a child process: a supervisor with its two serving processes. One thread.
class TCSimService final {
public:
    // Returns when the service owns its names. Throws std::runtime_error otherwise.
    TCSimService(const std::string& program, const std::vector<std::string>& arguments,
                 const std::string& busAddress, bool discardOutput);

    // Waits for the next time that both processes are ready, after one has been started anew.
    bool WaitReady(std::chrono::milliseconds limit);

    TCChildProcess& Process() { return m_process; }
    // As of the last readiness.
    pid_t DaemonPid() const { return m_daemonPid; }
    pid_t LitePid() const { return m_litePid; }

private:
    TCChildProcess m_process;
    TCLineReader m_ready;
    pid_t m_daemonPid = 0;
    pid_t m_litePid = 0;
};

} // namespace MavixTools

#endif
