#ifndef MAVIX_SIM_PLAN_H
#define MAVIX_SIM_PLAN_H

#include "Behaviours.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

namespace MavixSim {

// What is to happen to one call.
struct Plan {
    Behaviour behaviour = Behaviour::Echo;
    // The behaviour's; the call's payload when empty.
    std::vector<std::uint8_t> parameter;
    // The answer of behaviours that echo; what the call itself gives when not set.
    std::optional<std::vector<std::uint8_t>> answer;
    std::uint32_t delayMs = 0;
    // May be empty. Is handed the answering, after the delay, to do it at another time.
    std::function<void(std::function<void()>)> hold;
    // May be empty. They run right before the answer and right after it, also when there is none.
    std::function<void()> before;
    std::function<void()> after;
};

} // namespace MavixSim

#endif
