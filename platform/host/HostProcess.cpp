#include "HostProcess.h"

#include "HostSupport.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <string_view>

namespace MavixPlatformHost {

namespace {

constexpr std::size_t MaxNameLength = 15;
constexpr std::size_t MaxKnown = 16;
constexpr std::chrono::seconds AbsenceBelieved(1);

struct CloseDirectory {
    void operator()(DIR* directory) const { ::closedir(directory); }
};

template <class Visit>
void ForEachNumberIn(const char* path, Visit&& visit) {
    const std::unique_ptr<DIR, CloseDirectory> directory(::opendir(path));
    if (!directory) {
        return;
    }
    while (const dirent* entry = ::readdir(directory.get())) {
        char* end = nullptr;
        const long number = std::strtol(entry->d_name, &end, 10);
        if (number > 0 && *end == '\0') {
            visit(static_cast<pid_t>(number));
        }
    }
}

struct ProcessStatus {
    char text[1024];
    std::string_view name;
    unsigned long long startTicks = 0;
};

// Reads what the kernel says about a process; false when it is gone or dead. The name stands in parentheses
// and may hold any character; the state is the first field behind it and the start time the twentieth.
bool ReadStatus(pid_t pid, ProcessStatus& status) {
    constexpr int fieldsToStartTime = 19;
    char path[32];
    std::snprintf(path, sizeof(path), "/proc/%d/stat", pid);
    if (!ReadProcFile(path, status.text, sizeof(status.text))) {
        return false;
    }
    const char* open = std::strchr(status.text, '(');
    const char* close = std::strrchr(status.text, ')');
    if (open == nullptr || close == nullptr || close < open || close[1] == '\0') {
        return false;
    }
    const char* field = close + 2;
    if (*field == 'Z' || *field == 'X') {
        return false;
    }
    for (int skipped = 0; skipped < fieldsToStartTime && field != nullptr; ++skipped) {
        field = std::strchr(field + 1, ' ');
    }
    if (field == nullptr) {
        return false;
    }
    status.name = {open + 1, static_cast<std::size_t>(close - open - 1)};
    status.startTicks = std::strtoull(field, nullptr, 10);
    return true;
}

ProcessId FindOldest(std::string_view name) {
    ProcessId oldest;
    ForEachNumberIn("/proc", [&oldest, name](pid_t pid) {
        ProcessStatus status;
        if (ReadStatus(pid, status) && status.name == name &&
            (oldest.IsNone() || status.startTicks < oldest.startTicks)) {
            oldest = {pid, status.startTicks};
        }
    });
    return oldest;
}

bool RunsUnder(std::string_view name, const ProcessId& process) {
    ProcessStatus status;
    return ReadStatus(process.pid, status) && status.startTicks == process.startTicks && status.name == name;
}

} // namespace

bool IsRunning(const ProcessId& process) {
    ProcessStatus status;
    return ReadStatus(process.pid, status) && status.startTicks == process.startTicks;
}

bool ReadProcFile(const char* path, char* text, std::size_t size) {
    const TCDescriptor file(::open(path, O_RDONLY | O_CLOEXEC));
    const ssize_t length = file ? ::read(file.Get(), text, size - 1) : -1;
    text[std::max<ssize_t>(length, 0)] = '\0';
    return length > 0;
}

std::vector<pid_t> ThreadsOf(pid_t process) {
    std::vector<pid_t> threads;
    char path[32];
    std::snprintf(path, sizeof(path), "/proc/%d/task", process);
    ForEachNumberIn(path, [&threads](pid_t thread) { threads.push_back(thread); });
    return threads;
}

ProcessId TCProcessFinder::Find(const std::string& name) {
    const std::string_view kernelName = std::string_view(name).substr(0, MaxNameLength);
    const TimePoint now = std::chrono::steady_clock::now();
    auto known = std::find_if(m_known.begin(), m_known.end(),
                              [&name](const Known& candidate) { return candidate.name == name; });
    if (known == m_known.end()) {
        if (m_known.size() == MaxKnown) {
            m_known.clear();
        }
        known = m_known.insert(m_known.end(), Known{name, {}, TimePoint::min()});
    } else if (known->process.IsNone()) {
        if (now < known->lookedUp + AbsenceBelieved) {
            return {};
        }
    } else if (RunsUnder(kernelName, known->process)) {
        return known->process;
    }
    known->process = FindOldest(kernelName);
    known->lookedUp = now;
    return known->process;
}

} // namespace MavixPlatformHost
