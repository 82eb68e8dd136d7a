#ifndef MAVIX_TRAFFIC_HEX_H
#define MAVIX_TRAFFIC_HEX_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace MavixTraffic {

std::string ToHex(const std::uint8_t* bytes, std::size_t size);
// None when the text is not pairs of lower-case hexadecimal digits.
std::optional<std::vector<std::uint8_t>> FromHex(const std::string& text);
// As people type it: digits of either case, bytes parted by blanks or colons, or not.
std::optional<std::vector<std::uint8_t>> FromTypedHex(std::string_view text);

// What of the bytes is printable ASCII; a dot for every other byte.
std::string ToPrintable(const std::uint8_t* bytes, std::size_t size);

// Gives a part of a row its colour.
using Paint = std::string (*)(std::string_view text);

// Bytes in rows of offset, hexadecimal and printable text, each row after `indent` and before a line feed.
void AppendDump(std::string& text, const std::uint8_t* bytes, std::size_t size, std::string_view indent,
                Paint paint = nullptr);

} // namespace MavixTraffic

#endif
