#include "Values.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <stdexcept>

namespace MavixSim {

namespace {

using Bytes = std::vector<std::uint8_t>;

template <class Number>
void AppendNumber(Bytes& bytes, const std::string& text) {
    using Limits = std::numeric_limits<Number>;
    const std::size_t digits = text.find_first_not_of("+-");
    const bool isHex =
        digits <= 1 && (text.compare(digits, 2, "0x") == 0 || text.compare(digits, 2, "0X") == 0);
    // The conversion itself would take leading blanks.
    const bool begins = digits <= 1 && std::isdigit(static_cast<unsigned char>(text[digits])) != 0;
    char* end = nullptr;
    errno = 0;
    const long long value = std::strtoll(text.c_str(), &end, isHex ? 16 : 10);
    if (!begins || end != text.c_str() + text.size() || errno != 0 || value < Limits::min() ||
        value > Limits::max())
        throw std::invalid_argument(
            "expected a whole number from " + std::to_string(static_cast<long long>(Limits::min())) + " to " +
            std::to_string(static_cast<long long>(Limits::max())) + ", found '" + text + "'");
    const auto number = static_cast<Number>(value);
    const std::size_t position = bytes.size();
    bytes.resize(position + sizeof number);
    std::memcpy(bytes.data() + position, &number, sizeof number);
}

int DigitOf(char letter) {
    static constexpr const char* digits = "0123456789abcdef";
    const char* found = std::strchr(digits, letter >= 'A' && letter <= 'F' ? letter - 'A' + 'a' : letter);
    return letter == '\0' || found == nullptr ? -1 : static_cast<int>(found - digits);
}

void AppendHex(Bytes& bytes, const std::string& text) {
    const auto fail = [&text] {
        throw std::invalid_argument("expected pairs of hexadecimal digits, found '" + text + "'");
    };
    if (text.size() % 2 != 0)
        fail();
    for (std::size_t at = 0; at < text.size(); at += 2) {
        const int high = DigitOf(text[at]);
        const int low = DigitOf(text[at + 1]);
        if (high < 0 || low < 0)
            fail();
        bytes.push_back(static_cast<std::uint8_t>(high * 16 + low));
    }
}

void AppendText(Bytes& bytes, const std::string& text) {
    bytes.insert(bytes.end(), text.begin(), text.end());
}

void AppendTerminatedText(Bytes& bytes, const std::string& text) {
    AppendText(bytes, text);
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
