#include "Values.h"

#include "Hex.h"
#include "Numbers.h"

#include <cstring>
#include <limits>
#include <stdexcept>

namespace MavixSim {

namespace {

using Bytes = std::vector<std::uint8_t>;

// Signed or unsigned: the value's bits are what counts.
template <class Number>
void AppendNumber(Bytes& bytes, const std::string& text) {
    constexpr unsigned int bits = sizeof(Number) * 8;
    const std::optional<std::uint64_t> field = MavixTraffic::ParseField(text, bits);
    if (!field)
        throw std::invalid_argument("expected a whole number from " +
                                    std::to_string(std::numeric_limits<Number>::min()) + " to " +
                                    std::to_string(std::numeric_limits<std::uint64_t>::max() >> (64 - bits)) +
                                    ", found '" + text + "'");
    const auto number = static_cast<Number>(*field);
    const std::size_t position = bytes.size();
    bytes.resize(position + sizeof number);
    std::memcpy(bytes.data() + position, &number, sizeof number);
}

void AppendHex(Bytes& bytes, const std::string& text) {
    const auto more = MavixTraffic::FromTypedHex(text);
    if (!more)
        throw std::invalid_argument("expected two hexadecimal digits a byte, found '" + text + "'");
    bytes.insert(bytes.end(), more->begin(), more->end());
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
