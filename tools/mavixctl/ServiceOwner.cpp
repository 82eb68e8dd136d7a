#include "ServiceOwner.h"

#include "Command.h"

#include "sim/Roles.h"

#include <algorithm>
#include <cstring>
#include <fmt/format.h>

namespace MavixControl {

std::vector<std::string> ServiceNames() {
    std::vector<std::string> names;
    for (const MavixSim::Role& role : MavixSim::Roles())
        names.insert(names.end(), role.busNames.begin(), role.busNames.end());
    return names;
}

std::string ServiceProcess(const std::string& name) {
    for (const MavixSim::Role& role : MavixSim::Roles())
        if (std::find(role.busNames.begin(), role.busNames.end(), name) != role.busNames.end())
            return role.processName;
    return "";
}

TSServiceOwner FindOwner(sd_bus* bus, const std::string& name) {
    TSServiceOwner owner;
    owner.name = name;
    sd_bus_creds* asked = nullptr;
    const int result = sd_bus_get_name_creds(
        bus, name.c_str(), SD_BUS_CREDS_UNIQUE_NAME | SD_BUS_CREDS_PID | SD_BUS_CREDS_EUID, &asked);
    if (result == -ENXIO || result == -ESRCH)
        return owner;
    if (result < 0)
        throw TCFailure(NoService, fmt::format("the bus does not answer: {}", std::strerror(-result)));
    const MavixSim::CredsHandle creds(asked);
    const char* uniqueName = nullptr;
    pid_t pid = 0;
    if (sd_bus_creds_get_unique_name(asked, &uniqueName) >= 0)
        owner.uniqueName = uniqueName;
    sd_bus_creds_get_euid(asked, &owner.user);
    if (sd_bus_creds_get_pid(asked, &pid) >= 0) {
        owner.process = LookAtProcess(pid);
        owner.since = StartTime(pid);
    }
    return owner;
}

} // namespace MavixControl
