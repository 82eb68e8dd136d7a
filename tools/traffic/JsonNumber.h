#ifndef MAVIX_TRAFFIC_JSON_NUMBER_H
#define MAVIX_TRAFFIC_JSON_NUMBER_H

#include <limits>
#include <nlohmann/json.hpp>

namespace MavixTraffic {

// Whether it is a whole number in the range of the type.
template <class Number>
bool IsNumber(const nlohmann::json& value) {
    using Limits = std::numeric_limits<Number>;
    if (!value.is_number_integer())
        return false;
    if (!value.is_number_unsigned() && value.get<std::int64_t>() < 0)
        return value.get<std::int64_t>() >= static_cast<std::int64_t>(Limits::min());
    return value.get<std::uint64_t>() <= static_cast<std::uint64_t>(Limits::max());
}

} // namespace MavixTraffic

#endif
