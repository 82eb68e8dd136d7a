#include "Output.h"

#include <algorithm>
#include <cstdlib>
#include <fmt/format.h>
#include <unistd.h>

namespace MavixControl {

namespace {

bool HasColours() {
    static const bool has = [] {
        const char* unwanted = std::getenv("NO_COLOR");
        return IsTerminal(stdout) && (unwanted == nullptr || *unwanted == '\0');
    }();
    return has;
}

const char* Sequence(EColour colour) {
    switch (colour) {
    case EColour::Name:
        return "\033[1m";
    case EColour::Good:
        return "\033[32m";
    case EColour::Bad:
        return "\033[31m";
    case EColour::Faint:
        return "\033[2m";
    }
    return "";
}

bool IsContinuation(char letter) {
    return (static_cast<unsigned char>(letter) & 0xC0U) == 0x80;
}

// How many bytes of UTF-8 stand at the beginning as one character that does not steer a terminal; 0 when they
// are anything else.
std::size_t LengthOfCharacter(std::string_view text) {
    const auto first = static_cast<unsigned char>(text.front());
    if (first < 0x80)
        return first >= ' ' && first != 0x7F ? 1 : 0;
    const std::size_t length = first < 0xC2 ? 0 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : first < 0xF5 ? 4 : 0;
    if (length == 0 || text.size() < length)
        return 0;
    if (!std::all_of(text.begin() + 1, text.begin() + length, IsContinuation))
        return 0;
    // U+0080 to U+009F are controls.
    return first == 0xC2 && static_cast<unsigned char>(text[1]) < 0xA0 ? 0 : length;
}

// JSON itself demands no escapes for U+007F to U+009F.
std::string WithoutControls(std::string json) {
    // Looking for one at a time is many times faster, and there is hardly ever one.
    if (json.find('\x7F') == std::string::npos && json.find('\xC2') == std::string::npos)
        return json;
    for (std::size_t at = 0; (at = json.find_first_of("\x7F\xC2", at)) != std::string::npos; ++at) {
        const auto second = static_cast<unsigned char>(at + 1 < json.size() ? json[at + 1] : 0);
        if (json[at] == '\x7F')
            json.replace(at, 1, "\\u007f");
        else if (second >= 0x80 && second < 0xA0)
            json.replace(at, 2, fmt::format("\\u{:04x}", second));
    }
    return json;
}

} // namespace

void PrintLine(std::string_view line) {
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fputc('\n', stdout);
}

void PrintJson(const Json& value) {
    PrintLine(WithoutControls(value.dump(-1, ' ', false, Json::error_handler_t::replace)));
}

void PrintError(std::string_view text) {
    // In one write, so that it stays whole beside what others print.
    const std::string line = fmt::format("mavixctl: {}\n", text);
    std::fwrite(line.data(), 1, line.size(), stderr);
}

bool IsTerminal(std::FILE* stream) {
    return ::isatty(::fileno(stream)) == 1;
}

std::string Paint(EColour colour, std::string_view text) {
    return HasColours() ? fmt::format("{}{}\033[0m", Sequence(colour), text) : std::string(text);
}

std::string Faint(std::string_view text) {
    return Paint(EColour::Faint, text);
}

std::string Printable(std::string_view text) {
    std::string printable;
    while (!text.empty()) {
        const std::size_t length = LengthOfCharacter(text);
        if (text.front() == '\n')
            printable += "\\n";
        else if (text.front() == '\\')
            printable += "\\\\";
        else if (length == 0)
            printable += fmt::format("\\x{:02x}", static_cast<unsigned char>(text.front()));
        else
            printable += text.substr(0, length);
        text.remove_prefix(std::max<std::size_t>(length, 1));
    }
    return printable;
}

bool FlushOutput() {
    return std::fflush(stdout) == 0 && std::ferror(stdout) == 0;
}

} // namespace MavixControl
