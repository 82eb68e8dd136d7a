#ifndef MAVIX_SIM_TRAMPOLINE_H
#define MAVIX_SIM_TRAMPOLINE_H

#include "Complaint.h"

#include <exception>

namespace MavixSim {

// Runs what a C library called us for; no exception may pass its frames. A failure is told and the loop goes
// on.
template <class Action>
int Guarded(Action&& action) noexcept {
    try {
        action();
    } catch (const std::exception& error) {
        Complain(std::string("failed: ") + error.what());
    }
    return 0;
}

} // namespace MavixSim

#endif
