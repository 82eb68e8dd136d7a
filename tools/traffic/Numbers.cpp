#include "Numbers.h"

#include <charconv>
#include <limits>

namespace MavixTraffic {

namespace {

struct Magnitude {
    std::uint64_t value = 0;
    bool isNegative = false;
};

std::optional<Magnitude> Parse(std::string_view text) {
    Magnitude number;
    number.isNegative = !text.empty() && text.front() == '-';
    if (number.isNegative)
        text.remove_prefix(1);
    const bool isHexadecimal = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    if (isHexadecimal)
        text.remove_prefix(2);
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number.value, isHexadecimal ? 16 : 10);
    if (error != std::errc() || stop != end)
        return std::nullopt;
    return number;
}

} // namespace

std::optional<std::uint64_t> ParseField(std::string_view text, unsigned int bits) {
    const std::optional<Magnitude> number = Parse(text);
    const std::uint64_t highest = std::numeric_limits<std::uint64_t>::max() >> (64U - bits);
    const std::uint64_t lowest = std::uint64_t{1} << (bits - 1U);
    if (!number || number->value > (number->isNegative ? lowest : highest))
        return std::nullopt;
    return (number->isNegative ? ~number->value + 1U : number->value) & highest;
}

std::optional<std::int64_t> ParseNumber(std::string_view text, std::int64_t lowest, std::int64_t highest) {
    const std::optional<Magnitude> number = Parse(text);
    constexpr std::uint64_t largest = std::numeric_limits<std::int64_t>::max();
    if (!number || number->value > largest)
        return std::nullopt;
    const auto magnitude = static_cast<std::int64_t>(number->value);
    const std::int64_t value = number->isNegative ? -magnitude : magnitude;
    if (value < lowest || value > highest)
        return std::nullopt;
    return value;
}

} // namespace MavixTraffic
