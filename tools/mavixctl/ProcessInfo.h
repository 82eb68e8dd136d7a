#ifndef MAVIX_CONTROL_PROCESS_INFO_H
#define MAVIX_CONTROL_PROCESS_INFO_H

#include <cstdint>
#include <optional>
#include <string>
#include <sys/types.h>

namespace MavixControl {

// A process as the kernel and the service manager know it; what they do not tell is empty.
struct TSProcess {
    pid_t pid = 0;
    std::string name; // as /proc/PID/comm has it
    std::string unit; // of systemd
};

TSProcess LookAtProcess(pid_t pid);

// When it was started, in seconds of the calendar's clock; none when it has gone.
std::optional<std::int64_t> StartTime(pid_t pid);

} // namespace MavixControl

#endif
