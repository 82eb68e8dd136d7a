#include "Hex.h"

#include <algorithm>

namespace MavixTraffic {

namespace {

const char* const digits = "0123456789abcdef";
constexpr std::size_t bytesARow = 16;

void AppendByte(std::string& text, std::uint8_t byte) {
    text += digits[byte >> 4];
    text += digits[byte & 15];
}

int Value(char digit) {
    if (digit >= '0' && digit <= '9')
        return digit - '0';
    return digit >= 'a' && digit <= 'f' ? digit - 'a' + 10 : -1;
}

} // namespace

std::string ToHex(const std::uint8_t* bytes, std::size_t size) {
    std::string text;
    text.reserve(2 * size);
    for (std::size_t i = 0; i < size; ++i)
        AppendByte(text, bytes[i]);
    return text;
}

std::optional<std::vector<std::uint8_t>> FromHex(const std::string& text) {
    if (text.size() % 2 != 0)
        return std::nullopt;
    std::vector<std::uint8_t> bytes;
    bytes.reserve(text.size() / 2);
    for (std::size_t i = 0; i < text.size(); i += 2) {
        const int high = Value(text[i]);
        const int low = Value(text[i + 1]);
        if (high < 0 || low < 0)
            return std::nullopt;
        bytes.push_back(static_cast<std::uint8_t>(high << 4 | low));
    }
    return bytes;
}

std::optional<std::vector<std::uint8_t>> FromTypedHex(std::string_view text) {
    std::string digits;
    for (const char letter : text) {
        const bool parts = letter == ' ' || letter == ':';
        if (parts && digits.size() % 2 != 0)
            return std::nullopt;
        if (!parts)
            digits += letter >= 'A' && letter <= 'F' ? static_cast<char>(letter - 'A' + 'a') : letter;
    }
    return FromHex(digits);
}

std::string ToPrintable(const std::uint8_t* bytes, std::size_t size) {
    std::string text(bytes, bytes + size);
    std::replace_if(
        text.begin(), text.end(), [](char c) { return c < ' ' || c > '~'; }, '.');
    return text;
}

void AppendDump(std::string& text, const std::uint8_t* bytes, std::size_t size, std::string_view indent,
                Paint paint) {
    for (std::size_t start = 0; start < size; start += bytesARow) {
        const std::size_t count = std::min(bytesARow, size - start);
        text += indent;
        for (int shift = 24; shift >= 0; shift -= 8)
            AppendByte(text, static_cast<std::uint8_t>(start >> shift));
        text += ' ';
        for (std::size_t i = 0; i < bytesARow; ++i) {
            text += i == bytesARow / 2 ? "  " : " ";
            if (i < count)
                AppendByte(text, bytes[start + i]);
            else
                text += "  ";
        }
        const std::string letters = "|" + ToPrintable(bytes + start, count) + "|";
        text += "  ";
        text += paint != nullptr ? paint(letters) : letters;
        text += '\n';
    }
}

} // namespace MavixTraffic
