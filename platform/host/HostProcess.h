#ifndef MAVIX_HOST_PROCESS_H
#define MAVIX_HOST_PROCESS_H

#include "HostWorker.h"

#include <cstddef>
#include <string>
#include <sys/types.h>
#include <vector>

namespace MavixPlatformHost {

// A process that is told from a later one with the same number by its start time.
struct ProcessId {
    pid_t pid = 0;
    unsigned long long startTicks = 0;

    bool IsNone() const { return pid == 0; }
};

// Whether this very process still runs, under whatever name.
bool IsRunning(const ProcessId& process);

// Finds running processes by name (the kernel's name: 15 characters at most count). The answer is kept and
// checked again on each use; that there is none is believed for a second. Owner: the inheritance state, whose
// lock guards it.
class TCProcessFinder final {
public:
    // Of several processes with the name the oldest; none when there is no such process.
    ProcessId Find(const std::string& name);

private:
    struct Known {
        std::string name;
        ProcessId process;
        TimePoint lookedUp;
    };

    std::vector<Known> m_known;
};

// The threads of a process; empty when it is gone.
std::vector<pid_t> ThreadsOf(pid_t process);

// Reads a small file of /proc into `text`, ended by a zero. False: no such file, which means no such process.
bool ReadProcFile(const char* path, char* text, std::size_t size);

} // namespace MavixPlatformHost

#endif
