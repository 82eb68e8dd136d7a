#ifndef MAVIX_CONTROL_BUS_LIMITS_H
#define MAVIX_CONTROL_BUS_LIMITS_H

#include <cstddef>
#include <optional>

namespace MavixControl {

// What the bus allows one connection, found by trying on connections of our own, which close afterwards. None
// when it allows at least `most`, or the trying itself.
struct TSBusLimit {
    std::optional<std::size_t> value;
    bool isForbidden = false;
};

constexpr std::size_t mostTried = 2048;

TSBusLimit FindMatchRuleLimit();
TSBusLimit FindPendingReplyLimit();

} // namespace MavixControl

#endif
