#include "Output.h"

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

} // namespace

void PrintLine(std::string_view line) {
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fputc('\n', stdout);
}

void PrintJson(const Json& value) {
    PrintLine(value.dump(-1, ' ', false, Json::error_handler_t::replace));
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

std::string Printable(std::string_view text) {
    std::string printable;
    for (const char letter : text) {
        const auto byte = static_cast<unsigned char>(letter);
        if (letter == '\n')
            printable += "\\n";
        else if (letter == '\\')
            printable += "\\\\";
        else if (byte < ' ' || byte == 0x7F)
            printable += fmt::format("\\x{:02x}", byte);
        else
            printable += letter;
    }
    return printable;
}

bool FlushOutput() {
    return std::fflush(stdout) == 0 && std::ferror(stdout) == 0;
}

} // namespace MavixControl
