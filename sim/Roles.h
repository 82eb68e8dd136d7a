#ifndef MAVIX_SIM_ROLES_H
#define MAVIX_SIM_ROLES_H

#include <array>
#include <string>
#include <vector>

namespace MavixSim {

// The interface that the session process serves, and the only one there.
inline constexpr const char* sessionInterface = "com.norvale.ISessionControl";

// One of the two processes that the service consists of.
struct Role {
    const char* option;      // as --serve names it
    const char* processName; // as the kernel shows it
    const char* controlName; // bus name for the control interface alone, kept when service names are dropped
    std::vector<std::string> busNames;
};

const std::array<Role, 2>& Roles();

// Null when there is no such role.
const Role* FindRole(const std::string& option);

} // namespace MavixSim

#endif
