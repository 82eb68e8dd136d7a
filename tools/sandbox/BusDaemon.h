#ifndef MAVIX_TOOLS_BUS_DAEMON_H
#define MAVIX_TOOLS_BUS_DAEMON_H

#include "ChildProcess.h"

#include <string>

namespace MavixTools {

// A private dbus-daemon with the configuration of a system bus, its files in a folder of the caller's. The
// address stays the same over restarts. One thread.
class TCBusDaemon final {
public:
    // Writes the configuration; starts nothing. `policyPath` is the shipped policy file.
    TCBusDaemon(const std::string& folder, const std::string& policyPath, bool discardOutput);

    // Returns when the bus accepts connections. Throws std::runtime_error otherwise.
    void Start();
    // Ends the daemon and its connections.
    void Stop();
    // The same by SIGKILL: the socket's file stays.
    void Kill();

    const std::string& Address() const { return m_address; }
    TCChildProcess& Process() { return m_process; }

private:
    const std::string m_socketPath;
    const std::string m_configPath;
    const std::string m_address;
    const bool m_discardOutput;
    TCChildProcess m_process;
};

} // namespace MavixTools

#endif
