#include "PidCache.h"

namespace MavixSim {

namespace {

// Unique names are never used again, so whole generations can be forgotten at once.
constexpr std::size_t mostEntries = 4096;

} // namespace

std::optional<pid_t> TCPidCache::PidOf(const std::string& sender) {
    const auto found = m_pids.find(sender);
    if (found != m_pids.end())
        return found->second;

    sd_bus_creds* asked = nullptr;
    if (sd_bus_get_name_creds(m_bus, sender.c_str(), SD_BUS_CREDS_PID, &asked) < 0)
        return std::nullopt;
    const CredsHandle creds(asked);
    pid_t pid = 0;
    if (sd_bus_creds_get_pid(creds.get(), &pid) < 0)
        return std::nullopt;
    if (m_pids.size() >= mostEntries)
        m_pids.clear();
    m_pids[sender] = pid;
    return pid;
}

} // namespace MavixSim
