#include "IPCUtility.h"
#include "RecordingPlatform.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <string>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

using namespace MavixTest;
using MavixApiLite::TCIPCUtility;

namespace {

bool readFails = false;

// A process that waits for the end of its standard input, started with these arguments.
class Waiter final {
public:
    explicit Waiter(std::vector<std::string> words) {
        int input[2];
        int started[2];
        if (pipe2(input, O_CLOEXEC) != 0 || pipe2(started, O_CLOEXEC) != 0) {
            std::abort();
        }
        std::vector<char*> pointers;
        for (std::string& word : words) {
            pointers.push_back(word.data());
        }
        pointers.push_back(nullptr);
        m_pid = fork();
        if (m_pid == 0) {
            dup2(input[0], STDIN_FILENO);
            execv("/bin/cat", pointers.data());
            _exit(127);
        }
        close(input[0]);
        close(started[1]);
        // Ends when the program has replaced the copy of this one.
        char byte = 0;
        static_cast<void>(!::read(started[0], &byte, 1));
        close(started[0]);
        m_input = input[1];
    }
    ~Waiter() {
        kill(m_pid, SIGKILL);
        close(m_input);
        waitpid(m_pid, nullptr, 0);
    }
    Waiter(const Waiter&) = delete;
    Waiter& operator=(const Waiter&) = delete;

    pid_t Pid() const { return m_pid; }

private:
    pid_t m_pid = -1;
    int m_input = -1;
};

LogLine OnlyLine() {
    const std::vector<LogLine> lines = TCRecordingPlatform::Get().Lines();
    EXPECT_EQ(1u, lines.size());
    return lines.empty() ? LogLine() : lines.front();
}

} // namespace

extern "C" ssize_t read(int file, void* buffer, size_t size) {
    if (readFails) {
        errno = EIO;
        return -1;
    }
    return syscall(SYS_read, file, buffer, size);
}

TEST(ProcessName, IsTheFirstArgumentOfTheProcess) {
    const Waiter process({"/some/where/a program", "-", "more"});
    EXPECT_EQ("/some/where/a program", TCIPCUtility::GetProcessName(process.Pid()));
    EXPECT_TRUE(TCRecordingPlatform::Get().Lines().empty());
}

TEST(ProcessName, IsCutAt4095Characters) {
    const Waiter process({std::string(5000, 'n'), "-"});
    EXPECT_EQ(std::string(4095, 'n'), TCIPCUtility::GetProcessName(process.Pid()));
}

TEST(ProcessName, OfAProcessThatDoesNotExistIsEmptyAndLogged) {
    const pid_t gone = fork();
    if (gone == 0) {
        _exit(0);
    }
    ASSERT_EQ(gone, waitpid(gone, nullptr, 0));
    EXPECT_EQ("", TCIPCUtility::GetProcessName(gone));
    const std::string pid = std::to_string(gone);
    EXPECT_EQ("Failed to open /proc/" + pid + "/cmdline[pid : " + pid + "]", OnlyLine().text);
    EXPECT_EQ(6, OnlyLine().priority);
    EXPECT_EQ("MAVIX_API", OnlyLine().tag);
    EXPECT_EQ("IPCUtility", OnlyLine().source);
    EXPECT_EQ("GetProcessName", OnlyLine().function);
}

TEST(ProcessName, OfANegativeProcessIdIsEmptyAndLogged) {
    EXPECT_EQ("", TCIPCUtility::GetProcessName(-1));
    EXPECT_EQ("Failed to open /proc/-1/cmdline[pid : -1]", OnlyLine().text);
}

TEST(ProcessName, OfAProcessWithoutCommandLineIsEmptyAndLogged) {
    // A process that has ended and was not yet waited for has none.
    const pid_t ended = fork();
    if (ended == 0) {
        _exit(0);
    }
    siginfo_t info{};
    ASSERT_EQ(0, waitid(P_PID, static_cast<id_t>(ended), &info, WEXITED | WNOWAIT));
    EXPECT_EQ("", TCIPCUtility::GetProcessName(ended));
    const std::string pid = std::to_string(ended);
    EXPECT_EQ("Failed to read /proc/" + pid + "/cmdline[pid : " + pid + "]", OnlyLine().text);
    EXPECT_EQ(6, OnlyLine().priority);
    EXPECT_EQ("MAVIX_API", OnlyLine().tag);
    waitpid(ended, nullptr, 0);
}

TEST(ProcessName, IsThePathWhenReadingFails) {
    readFails = true;
    const std::string name = TCIPCUtility::GetProcessName(getpid());
    readFails = false;
    EXPECT_EQ("/proc/" + std::to_string(getpid()) + "/cmdline", name);
    EXPECT_TRUE(TCRecordingPlatform::Get().Lines().empty());
}

TEST(ProcessName, LeavesNoFileOpen) {
    const int before = open("/dev/null", O_RDONLY | O_CLOEXEC);
    close(before);
    TCIPCUtility::GetProcessName(getpid());
    TCIPCUtility::GetProcessName(-1);
    readFails = true;
    TCIPCUtility::GetProcessName(getpid());
    readFails = false;
    const int after = open("/dev/null", O_RDONLY | O_CLOEXEC);
    close(after);
    EXPECT_EQ(before, after);
}

TEST(ProcessName, OfTheCurrentProcessIsTheNameItWasInvokedUnder) {
    EXPECT_EQ(program_invocation_name, get_current_process_name());
    char* const invoked = program_invocation_name;
    char other[] = "../bin/other name";
    program_invocation_name = other;
    EXPECT_EQ("../bin/other name", get_current_process_name());
    program_invocation_name = invoked;
}
