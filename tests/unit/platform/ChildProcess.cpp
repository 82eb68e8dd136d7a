#include "ChildProcess.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr int ThrewException = 99;
constexpr int PatienceMs = 30000;

} // namespace

ChildProcess::ChildProcess(const Environment& environment, const std::function<int()>& body)
    : m_standardError(::memfd_create("standard-error", MFD_CLOEXEC)) {
    std::fflush(nullptr);
    const pid_t parent = ::getpid();
    m_pid = ::fork();
    if (m_pid != 0) {
        return;
    }
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) {
        ::_exit(1);
    }
    ::dup2(m_standardError, STDERR_FILENO);
    for (const auto& [name, value] : environment) {
        if (value.empty()) {
            ::unsetenv(name.c_str());
        } else {
            ::setenv(name.c_str(), value.c_str(), 1);
        }
    }
    int result = 0;
    try {
        result = body();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "child: %s\n", error.what());
        ::_exit(ThrewException);
    }
    std::exit(result);
}

ChildProcess::~ChildProcess() {
    if (m_pid > 0) {
        ::kill(m_pid, SIGKILL);
        Wait();
    }
    ::close(m_standardError);
}

ChildResult ChildProcess::Wait() {
    ChildResult result;
    int status = 0;
    while (m_pid > 0 && ::waitpid(m_pid, &status, 0) < 0 && errno == EINTR) {
    }
    m_pid = -1;
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    char text[4096];
    off_t at = 0;
    for (ssize_t length = 0; (length = ::pread(m_standardError, text, sizeof(text), at)) > 0; at += length) {
        result.standardError.append(text, static_cast<std::size_t>(length));
    }
    return result;
}

ChildResult RunChild(const Environment& environment, const std::function<int()>& body) {
    return ChildProcess(environment, body).Wait();
}

Signal::Signal() {
    if (::pipe2(m_ends, O_CLOEXEC) != 0) {
        throw std::runtime_error("no pipe");
    }
}

Signal::~Signal() {
    ::close(m_ends[0]);
    ::close(m_ends[1]);
}

void Signal::Give(int value) {
    if (::write(m_ends[1], &value, sizeof(value)) != sizeof(value)) {
        throw std::runtime_error("cannot give a signal");
    }
}

int Signal::Await() {
    int value = 0;
    pollfd readable{m_ends[0], POLLIN, 0};
    if (::poll(&readable, 1, PatienceMs) != 1 || ::read(m_ends[0], &value, sizeof(value)) != sizeof(value)) {
        throw std::runtime_error("the signal did not come");
    }
    return value;
}
