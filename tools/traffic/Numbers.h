#ifndef MAVIX_TRAFFIC_NUMBERS_H
#define MAVIX_TRAFFIC_NUMBERS_H

#include <cstdint>
#include <optional>
#include <string_view>

namespace MavixTraffic {

// A whole number in decimal or, with 0x, in hexadecimal notation, with a minus sign or without; none when the
// text is anything else or the number is out of range.
std::optional<std::int64_t> ParseNumber(std::string_view text, std::int64_t lowest, std::int64_t highest);

// The same for the bits of a field of 8 to 64: signed numbers and unsigned ones that fit.
std::optional<std::uint64_t> ParseField(std::string_view text, unsigned int bits);

} // namespace MavixTraffic

#endif
