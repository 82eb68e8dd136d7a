#ifndef MAVIX_SIM_PID_CACHE_H
#define MAVIX_SIM_PID_CACHE_H

#include "Handles.h"

#include <map>
#include <optional>
#include <sys/types.h>

namespace MavixSim {

// Asks the bus once for the process behind each unique name. Owner: the server. One thread.
class TCPidCache final {
public:
    explicit TCPidCache(sd_bus* bus) : m_bus(bus) {}

    // None when the sender has gone.
    std::optional<pid_t> PidOf(const std::string& sender);

private:
    sd_bus* const m_bus;
    std::map<std::string, pid_t> m_pids;
};

} // namespace MavixSim

#endif
