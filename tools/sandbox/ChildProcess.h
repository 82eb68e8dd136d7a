#ifndef MAVIX_TOOLS_CHILD_PROCESS_H
#define MAVIX_TOOLS_CHILD_PROCESS_H

#include "Descriptor.h"

#include <chrono>
#include <csignal>
#include <optional>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace MavixTools {

struct ChildOptions {
    // The program, looked up in PATH when it has no slash, and its arguments.
    std::string program;
    std::vector<std::string> arguments;
    // argv[0]; the program when empty.
    std::string name;
    std::vector<std::pair<std::string, std::string>> environment; // added to ours
    // The process group to be in. A new one keeps the terminal's signals away.
    static constexpr pid_t newGroup = 0;
    static constexpr pid_t parentsGroup = -1;
    pid_t group = newGroup;
    bool discardOutput = false;
    // The child finds this descriptor as number 3; negative for none.
    int descriptor = -1;
    // The child's signal mask; empty unless set.
    std::optional<sigset_t> signalMask;
};

// One child process, killed by the kernel when the thread that started it ends. Owner: who started it; the
// destructor ends the process. One thread.
class TCChildProcess final {
public:
    // The number under which a child finds ChildOptions::descriptor.
    static constexpr int PassedDescriptor = 3;

    TCChildProcess() = default;
    // Starts the program. Throws std::system_error, with the reason of a failed exec too.
    explicit TCChildProcess(const ChildOptions& options);
    TCChildProcess(TCChildProcess&& other) noexcept;
    TCChildProcess& operator=(TCChildProcess&& other) noexcept;
    ~TCChildProcess();

    // 0 when there is no process, or its end has been collected.
    pid_t Pid() const { return m_pid; }
    // Readable when the process has ended.
    int PollDescriptor() const { return m_pidDescriptor.Get(); }
    // False when there is no process, or one of another user.
    bool Signal(int signal) const;
    // The status as of waitpid, or none when the process runs on. Without a limit, waits for the end.
    std::optional<int> Wait(std::optional<std::chrono::milliseconds> limit = std::nullopt);
    // SIGTERM, and SIGKILL after `grace`. A process that we may not end goes on.
    void End(std::chrono::milliseconds grace = std::chrono::milliseconds(2000));

private:
    void m_Start(const ChildOptions& options);

    pid_t m_pid = 0;
    TCDescriptor m_pidDescriptor;
    std::optional<int> m_status;
};

// What a shell reports for a status as of waitpid: the exit code, or 128 and the signal.
int ShellStatus(int waitStatus);

} // namespace MavixTools

#endif
