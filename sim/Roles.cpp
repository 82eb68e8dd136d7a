#include "Roles.h"

namespace MavixSim {

const std::array<Role, 2>& Roles() {
    static const std::array<Role, 2> roles{
        Role{"daemon",
             "mavix-daemon",
             "com.norvale.Sim.Daemon",
             {"com.norvale.MavixAPI", "com.norvale.MavixAPI.Pipeline", "com.norvale.MavixAPI.ServiceDb",
              "com.norvale.MavixAPI.HyperFast"}},
        Role{"lite", "mavix-lite", "com.norvale.Sim.Lite", {sessionInterface}},
    };
    return roles;
}

const Role* FindRole(const std::string& option) {
    for (const Role& role : Roles())
        if (option == role.option)
            return &role;
    return nullptr;
}

} // namespace MavixSim
