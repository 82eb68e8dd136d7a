#include "Values.h"

#include <cctype>
#include <charconv>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <type_traits>

namespace MavixSim {

namespace {

using Bytes = std::vector<std::uint8_t>;

// Signed or unsigned: the value's bits are what counts.
template <class Number>
void AppendNumber(Bytes& bytes, const std::string& text) {
    using Unsigned = std::make_unsigned_t<Number>;
    constexpr std::uint64_t lowest = std::uint64_t{1} << (sizeof(Number) * 8 - 1);
    constexpr std::uint64_t highest = std::numeric_limits<Unsigned>::max();
    const bool isNegative = !text.empty() && text[0] == '-';
    const std::size_t start = isNegative ? 1 : 0;
    const bool isHex = text.compare(start, 2, "0x") == 0 || text.compare(start, 2, "0X") == 0;
    std::uint64_t magnitude = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] =
        std::from_chars(text.data() + start + (isHex ? 2 : 0), end, magnitude, isHex ? 16 : 10);
    if (error != std::errc() || stop != end || magnitude > (isNegative ? lowest : highest))
        throw std::invalid_argument("expected a whole number from -" + std::to_string(lowest) + " to " +
                                    std::to_string(highest) + ", found '" + text + "'");
    const auto number = static_cast<Unsigned>(isNegative ? ~magnitude + 1 : magnitude);
    const std::size_t position = bytes.size();
    bytes.resize(position + sizeof number);
    std::memcpy(bytes.data() + position, &number, sizeof number);
}

int DigitOf(char letter) {
    const char* const digits = "0123456789abcdef";
    const char* found = std::strchr(digits, std::tolower(static_cast<unsigned char>(letter)));
    return letter == '\0' || found == nullptr ? -1 : static_cast<int>(found - digits);
}

void AppendHex(Bytes& bytes, const std::string& text) {
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text[at] == ' ' || text[at] == ':')
            continue;
        const int high = DigitOf(text[at]);
        const int low = ++at < text.size() ? DigitOf(text[at]) : -1;
        if (high < 0 || low < 0)
            throw std::invalid_argument("expected two hexadecimal digits a byte, found '" + text + "'");
        bytes.push_back(static_cast<std::uint8_t>(high * 16 + low));
    }
}

void AppendBytes(Bytes& bytes, const std::string& text) {
    bytes.insert(bytes.end(), text.begin(), text.end());
}

void AppendText(Bytes& bytes, const std::string& text) {
    AppendNumber<std::int32_t>(bytes, std::to_string(text.size()));
    AppendBytes(bytes, text);
}

void AppendTerminatedText(Bytes& bytes, const std::string& text) {
    AppendBytes(bytes, text);
    bytes.push_back(0);
}

const struct {
    const char* prefix;
    void (*append)(Bytes&, const std::string&);
} kinds[] = {
    {"c:", AppendNumber<std::int8_t>},
    {"s:", AppendNumber<std::int16_t>},
    {"i:", AppendNumber<std::int32_t>},
    {"l:", AppendNumber<std::int64_t>},
    {"str:", AppendText},
    {"strz:", AppendTerminatedText},
    {"hex:", AppendHex},
};

} // namespace

void AppendValue(Bytes& bytes, const std::string& value) {
    for (const auto& kind : kinds)
        if (value.rfind(kind.prefix, 0) == 0) {
            kind.append(bytes, value.substr(std::strlen(kind.prefix)));
            return;
        }
    throw std::invalid_argument(
        "expected a value that begins with c:, s:, i:, l:, str:, strz: or hex:, found '" + value + "'");
}

} // namespace MavixSim
