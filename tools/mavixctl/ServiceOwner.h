#ifndef MAVIX_CONTROL_SERVICE_OWNER_H
#define MAVIX_CONTROL_SERVICE_OWNER_H

#include "ProcessInfo.h"

#include "sim/Handles.h"

#include <string>
#include <vector>

namespace MavixControl {

// All bus names of the service.
std::vector<std::string> ServiceNames();

// The process that should own the name.
std::string ServiceProcess(const std::string& name);

struct TSServiceOwner {
    std::string name;
    std::string uniqueName; // empty without an owner
    TSProcess process;
    uid_t user = 0;
    std::optional<std::int64_t> since; // its process's start
};

// Throws TCFailure when the bus does not tell.
TSServiceOwner FindOwner(sd_bus* bus, const std::string& name);

} // namespace MavixControl

#endif
