#include "ProcessInfo.h"

#include <cstdlib>
#include <ctime>
#include <fstream>
#include <memory>
#include <sstream>
#include <systemd/sd-login.h>
#include <unistd.h>

namespace MavixControl {

namespace {

std::string ProcFile(pid_t pid, const char* name) {
    return "/proc/" + std::to_string(pid) + "/" + name;
}

std::string UnitOf(pid_t pid) {
    char* unit = nullptr;
    if (sd_pid_get_unit(pid, &unit) < 0 && sd_pid_get_user_unit(pid, &unit) < 0)
        return "";
    const std::unique_ptr<char, void (*)(void*)> held(unit, std::free);
    return unit;
}

// What follows the process's name, which may hold blanks and parentheses, in its line of numbers.
std::optional<std::uint64_t> StartTicks(const std::string& line) {
    constexpr int fieldsBefore = 19;
    std::istringstream fields(line.substr(std::min(line.rfind(')') + 1, line.size())));
    std::string skipped;
    for (int i = 0; i < fieldsBefore; ++i)
        fields >> skipped;
    std::uint64_t ticks = 0;
    return fields >> ticks ? std::optional(ticks) : std::nullopt;
}

} // namespace

TSProcess LookAtProcess(pid_t pid) {
    TSProcess process;
    process.pid = pid;
    std::ifstream comm(ProcFile(pid, "comm"));
    std::getline(comm, process.name);
    process.unit = UnitOf(pid);
    return process;
}

std::optional<std::int64_t> StartTime(pid_t pid) {
    std::ifstream stat(ProcFile(pid, "stat"));
    std::string line;
    std::getline(stat, line);
    const std::optional<std::uint64_t> ticks = StartTicks(line);
    if (!ticks)
        return std::nullopt;
    // The kernel counts from the start of the machine, times of suspension included.
    timespec sinceBoot{};
    ::clock_gettime(CLOCK_BOOTTIME, &sinceBoot);
    const auto ticksASecond = static_cast<std::uint64_t>(::sysconf(_SC_CLK_TCK));
    const auto age = sinceBoot.tv_sec - static_cast<std::int64_t>(*ticks / ticksASecond);
    return std::time(nullptr) - age;
}

} // namespace MavixControl
