#include "LibraryLog.h"

#include "Command.h"
#include "Output.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <dlfcn.h>
#include <string_view>
#include <unistd.h>
#include <vector>

namespace MavixControl {

namespace {

constexpr int warningPriority = 5;
constexpr int errorPriority = 6;
constexpr std::size_t mostLines = 8;
constexpr std::size_t longestLine = 1024;

// Plain memory: the library's threads log until the process has gone.
struct Lines {
    bool wanted = false;
    std::size_t count = 0;
    int priorities[mostLines] = {};
    char texts[mostLines][longestLine] = {};
};
thread_local Lines t_lines;

// The line of the first check that failed; `s_hasAssertion` is set behind it.
char s_assertion[longestLine];
std::atomic<bool> s_isAsserting{false};
std::atomic<bool> s_hasAssertion{false};

// What stands behind the library's prefix "<source>: <function>(<line>) > ", and behind the function and line
// that the cache repeats.
std::string_view WithoutPrefix(std::string_view line) {
    constexpr std::string_view mark = ") > ";
    constexpr std::string_view repeated = "():";
    const std::size_t at = line.find(mark);
    if (at == std::string_view::npos)
        return line;
    line.remove_prefix(at + mark.size());
    const std::size_t blank = line.find(' ');
    return line.substr(0, blank).find(repeated) == std::string_view::npos ? line : line.substr(blank + 1);
}

bool DropFront(std::string_view& text, std::string_view front) {
    if (text.substr(0, front.size()) != front)
        return false;
    text.remove_prefix(front.size());
    return true;
}

void Keep(int priority, const char* line) {
    if (t_lines.wanted && t_lines.count < mostLines) {
        t_lines.priorities[t_lines.count] = priority;
        std::snprintf(t_lines.texts[t_lines.count++], longestLine, "%s", line);
    }
    if (std::strstr(line, "MAVIX Assertion failed") != nullptr && !s_isAsserting.exchange(true)) {
        const std::string_view text = WithoutPrefix(line);
        std::snprintf(s_assertion, sizeof s_assertion, "%.*s", static_cast<int>(text.size()), text.data());
        s_hasAssertion = true;
    }
}

// Only what a signal handler may call.
void Write(const char* text) {
    [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, text, std::strlen(text));
}

void OnAbort(int /*signal*/) {
    if (!s_hasAssertion)
        return;
    Write("mavixctl: the library stops the program: ");
    Write(s_assertion);
    Write("\n");
    // The connection checks that the bus can be reached.
    ::_exit(std::strstr(s_assertion, "/GdbusConnection:") != nullptr ? NoService : Refused);
}

using PrintFunction = int (*)(int, int, const char*, const char*, ...);

PrintFunction PlatformPrint() {
    static const auto print = reinterpret_cast<PrintFunction>(::dlsym(RTLD_NEXT, "__dlog_print"));
    return print;
}

} // namespace

TCErrorLines::TCErrorLines() {
    t_lines.count = 0;
    t_lines.wanted = true;
}

TCErrorLines::~TCErrorLines() {
    t_lines.wanted = false;
}

bool TCErrorLines::HasLines() const {
    return t_lines.count > 0;
}

std::string TCErrorLines::ErrorName() const {
    for (std::size_t i = 0; i < t_lines.count; ++i) {
        std::string_view line = WithoutPrefix(t_lines.texts[i]);
        if (DropFront(line, "[IPC][Error name: ") && !line.empty())
            return std::string(line.substr(0, line.size() - 1));
    }
    return {};
}

std::string TCErrorLines::Reason() const {
    const bool hasName = !ErrorName().empty();
    std::string warning;
    std::string first;
    std::string own;
    for (std::size_t i = 0; i < t_lines.count; ++i) {
        std::string_view line = WithoutPrefix(t_lines.texts[i]);
        const bool isPeers = DropFront(line, "[IPC]");
        const bool isOwn = DropFront(line, "[API_LITE] ");
        // Texts of errors stand in quotes; the lines before them tell the operation only.
        if (line.size() >= 2 && line.front() == '\'' && line.back() == '\'')
            return std::string(line.substr(1, line.size() - 2));
        if (t_lines.priorities[i] < errorPriority) {
            if (warning.empty())
                warning = line;
            continue;
        }
        if (isOwn && own.empty())
            own = line;
        if (!isPeers && first.empty())
            first = line;
    }
    if (hasName)
        return "without a text";
    first = own.empty() ? first : own;
    first = first.empty() ? warning : first;
    return first.empty() ? "no reason is given" : first;
}

std::string TCErrorLines::Describe() const {
    const std::string name = ErrorName();
    return Printable(name.empty() ? Reason() : name + ": " + Reason());
}

void ReportAborts() {
    std::signal(SIGABRT, OnAbort);
}

} // namespace MavixControl

// In the place of the platform's function, which it calls.
extern "C" __attribute__((visibility("default"), format(printf, 4, 5))) int
__dlog_print(int logId, int priority, const char* tag, const char* format, ...) {
    using namespace MavixControl;
    char line[longestLine];
    va_list arguments;
    va_start(arguments, format);
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    const char* text = line;
    std::vector<char> longer;
    if (length >= static_cast<int>(sizeof line)) {
        longer.resize(static_cast<std::size_t>(length) + 1);
        std::vsnprintf(longer.data(), longer.size(), format, again);
        text = longer.data();
    }
    va_end(again);
    if (priority >= warningPriority)
        Keep(priority, text);
    const PrintFunction print = PlatformPrint();
    return print != nullptr ? print(logId, priority, tag, "%s", text) : 0;
}
