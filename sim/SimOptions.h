#ifndef MAVIX_SIM_SIM_OPTIONS_H
#define MAVIX_SIM_SIM_OPTIONS_H

#include "Roles.h"

#include <chrono>
#include <optional>

namespace MavixSim {

struct SimOptions {
    // Null for the supervisor of both roles.
    const Role* role = nullptr;
    bool respawn = false;
    std::chrono::milliseconds respawnDelay{0};
    bool keepRecords = true;
    // What to play, a file; nothing when empty.
    std::string scenario;
    // What to replay, a file; nothing when empty.
    std::string replay;
    bool isReplayFast = false;
    // Where the supervisor's processes share their progress; negative for a process alone.
    int progressDescriptor = -1;
    // Where it is told why a scenario or recording was refused or not met; standard error when empty.
    std::string report;
    // Where readiness is told; standard output when negative.
    int readyDescriptor = -1;
};

// None when the run ends here; `exitCode` is then the process's. Prints help, version and complaints.
std::optional<SimOptions> ParseSimOptions(int argc, char** argv, int& exitCode);

} // namespace MavixSim

#endif
