#include "ChildProcess.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>

extern char** environ;

namespace MavixTools {

namespace {

std::vector<char*> Pointers(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string& text : texts)
        pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

std::vector<std::string> Environment(const ChildOptions& options) {
    std::vector<std::string> texts;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        const std::string key = text.substr(0, text.find('='));
        bool replaced = false;
        for (const auto& [name, value] : options.environment)
            replaced = replaced || name == key;
        if (!replaced)
            texts.push_back(text);
    }
    for (const auto& [name, value] : options.environment) {
        std::string& text = texts.emplace_back(name);
        text.append("=").append(value);
    }
    return texts;
}

// Everything that the child needs, made before the fork: afterwards only async-signal-safe calls are allowed.
struct Prepared {
    const char* program;
    char* const* arguments;
    char* const* environment;
    const ChildOptions* options;
    sigset_t mask;
    pid_t parent;
    int report;
};

// Moves the passed descriptor to its number, and the report pipe out of the way of it.
bool PlaceDescriptors(Prepared& prepared) {
    if (prepared.options->descriptor < 0)
        return true;
    if (prepared.report == TCChildProcess::PassedDescriptor)
        prepared.report = ::fcntl(prepared.report, F_DUPFD_CLOEXEC, TCChildProcess::PassedDescriptor + 1);
    if (prepared.options->descriptor == TCChildProcess::PassedDescriptor)
        return ::fcntl(TCChildProcess::PassedDescriptor, F_SETFD, 0) == 0;
    return ::dup2(prepared.options->descriptor, TCChildProcess::PassedDescriptor) >= 0;
}

bool DiscardOutput() {
    const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    return null >= 0 && ::dup2(null, STDIN_FILENO) >= 0 && ::dup2(null, STDOUT_FILENO) >= 0 &&
           ::dup2(null, STDERR_FILENO) >= 0;
}

[[noreturn]] void RunChild(Prepared prepared) {
    if (prepared.options->group != ChildOptions::parentsGroup)
        ::setpgid(0, prepared.options->group);
    // The second test closes the gap in which the parent has died before the request.
    bool ready = ::prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 && ::getppid() == prepared.parent;
    ready = ready && PlaceDescriptors(prepared);
    ready = ready && (!prepared.options->discardOutput || DiscardOutput());
    if (ready) {
        ::sigprocmask(SIG_SETMASK, &prepared.mask, nullptr);
        ::execvpe(prepared.program, prepared.arguments, prepared.environment);
    }
    const int error = errno;
    const ssize_t written = ::write(prepared.report, &error, sizeof error);
    ::_exit(written == sizeof error ? 127 : 126);
}

} // namespace

TCChildProcess::TCChildProcess(const ChildOptions& options) {
    m_Start(options);
}

TCChildProcess::TCChildProcess(TCChildProcess&& other) noexcept
    : m_pid(std::exchange(other.m_pid, 0)), m_pidDescriptor(std::move(other.m_pidDescriptor)),
      m_status(std::exchange(other.m_status, std::nullopt)) {}

TCChildProcess& TCChildProcess::operator=(TCChildProcess&& other) noexcept {
    if (this != &other) {
        End();
        m_pid = std::exchange(other.m_pid, 0);
        m_pidDescriptor = std::move(other.m_pidDescriptor);
        m_status = std::exchange(other.m_status, std::nullopt);
    }
    return *this;
}

TCChildProcess::~TCChildProcess() {
    End();
}

void TCChildProcess::m_Start(const ChildOptions& options) {
    std::vector<std::string> arguments{options.name.empty() ? options.program : options.name};
    arguments.insert(arguments.end(), options.arguments.begin(), options.arguments.end());
    std::vector<std::string> environment = Environment(options);
    const std::vector<char*> argumentPointers = Pointers(arguments);
    const std::vector<char*> environmentPointers = Pointers(environment);
    Pipe report = MakePipe();

    Prepared prepared{options.program.c_str(),
                      argumentPointers.data(),
                      environmentPointers.data(),
                      &options,
                      {},
                      ::getpid(),
                      report.writer.Get()};
    if (options.signalMask)
        prepared.mask = *options.signalMask;
    else
        ::sigemptyset(&prepared.mask);

    const pid_t pid = ::fork();
    if (pid < 0)
        throw std::system_error(errno, std::generic_category(), "cannot fork");
    if (pid == 0)
        RunChild(prepared);
    m_pid = pid;
    m_pidDescriptor = TCDescriptor(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
    report.writer.Close();

    int error = 0;
    ssize_t count = 0;
    do
        count = ::read(report.reader.Get(), &error, sizeof error);
    while (count < 0 && errno == EINTR);
    if (count == sizeof error) {
        Wait();
        throw std::system_error(error, std::generic_category(), "cannot run " + options.program);
    }
    if (!m_pidDescriptor) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
        m_pid = 0;
        throw std::system_error(errno, std::generic_category(), "cannot watch " + options.program);
    }
}

bool TCChildProcess::Signal(int signal) const {
    return m_pid > 0 && ::kill(m_pid, signal) == 0;
}

std::optional<int> TCChildProcess::Wait(std::optional<std::chrono::milliseconds> limit) {
    if (m_pid <= 0)
        return m_status;
    if (limit) {
        pollfd ended{m_pidDescriptor.Get(), POLLIN, 0};
        int ready = 0;
        do
            ready = ::poll(&ended, 1, static_cast<int>(limit->count()));
        while (ready < 0 && errno == EINTR);
        if (ready <= 0)
            return std::nullopt;
    }
    int status = 0;
    pid_t collected = 0;
    do
        collected = ::waitpid(m_pid, &status, 0);
    while (collected < 0 && errno == EINTR);
    m_pid = 0;
    m_pidDescriptor.Close();
    m_status = status;
    return m_status;
}

void TCChildProcess::End(std::chrono::milliseconds grace) {
    if (m_pid <= 0)
        return;
    Signal(SIGTERM);
    if (!Wait(grace) && Signal(SIGKILL))
        Wait();
}

int ShellStatus(int waitStatus) {
    return WIFSIGNALED(waitStatus) ? 128 + WTERMSIG(waitStatus) : WEXITSTATUS(waitStatus);
}

} // namespace MavixTools
