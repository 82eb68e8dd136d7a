#ifndef MAVIX_TOOLS_BUS_CONFIG_H
#define MAVIX_TOOLS_BUS_CONFIG_H

#include <string>

namespace MavixTools {

// The bus configuration of a private bus: a system bus as distributions ship it, with its limits, whose
// services are owned by the current user.

// `policyPath` names the file with our own policy, as PolicyForCurrentUser gives it.
std::string BusConfigText(const std::string& socketPath, const std::string& policyPath);

// The text of the shipped policy file, with the current user in the place of the service's. Throws
// std::runtime_error when the file cannot be read or names no user, and when we have no account.
std::string PolicyForCurrentUser(const std::string& shippedPolicyPath);

} // namespace MavixTools

#endif
