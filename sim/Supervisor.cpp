#include "Supervisor.h"

#include "Complaint.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <sys/mman.h>
#include <system_error>
#include <vector>

namespace MavixSim {

using MavixTools::TCChildProcess;
using MavixTools::TCDescriptor;

namespace {

// A process that ends before it was ready, for want of a bus perhaps, is not started again at once.
constexpr std::chrono::milliseconds pauseAfterFailure{50};

// Out of the way of the number under which a program finds the descriptor passed to it.
constexpr int leastInherited = TCChildProcess::PassedDescriptor + 1;

// A file in memory that programs which this one runs inherit.
TCDescriptor InheritedFile(const char* name) {
    const TCDescriptor made(::memfd_create(name, MFD_CLOEXEC));
    TCDescriptor inherited(::fcntl(made.Get(), F_DUPFD, leastInherited));
    if (!inherited)
        throw std::system_error(errno, std::generic_category(), "cannot make a file in memory");
    return inherited;
}

void WriteAll(int descriptor, const std::string& text) {
    for (std::size_t at = 0; at < text.size();) {
        const ssize_t written = ::write(descriptor, text.data() + at, text.size() - at);
        if (written < 0)
            throw std::system_error(errno, std::generic_category(), "cannot keep what is played");
        at += static_cast<std::size_t>(written);
    }
}

} // namespace

SupervisedScenario::SupervisedScenario(const Scenario& scenario, const std::string& fileText,
                                       const char* optionName)
    : option(optionName), text(InheritedFile("mavix-scenario")), shared(InheritedFile("mavix-progress")),
      progress(scenario, shared.Get()) {
    WriteAll(text.Get(), fileText);
}

TCSupervisor::TCSupervisor(const SimOptions& options, SupervisedScenario* scenario)
    : m_options(options), m_scenario(scenario) {
    m_signals = MavixTools::WatchEndingSignals();
    if (m_options.readyDescriptor >= 0)
        ::fcntl(m_options.readyDescriptor, F_SETFD, FD_CLOEXEC);
    for (std::size_t i = 0; i < m_children.size(); ++i)
        m_children[i].role = &Roles()[i];
}

int TCSupervisor::Run() {
    const int exitCode = m_Watch();
    for (Child& child : m_children)
        child.process.Signal(SIGTERM);
    for (Child& child : m_children)
        child.process.End();
    return exitCode;
}

int TCSupervisor::m_Watch() {
    for (;;) {
        m_StartDue();
        std::vector<pollfd> wanted{pollfd{m_signals.Get(), POLLIN, 0}};
        for (const Child& child : m_children) {
            wanted.push_back({child.ready ? child.ready.Get() : -1, POLLIN, 0});
            wanted.push_back({child.process.PollDescriptor(), POLLIN, 0});
        }
        if (::poll(wanted.data(), wanted.size(), m_PollLimit()) < 0 && errno != EINTR)
            throw std::system_error(errno, std::generic_category(), "cannot wait");
        if (wanted[0].revents != 0)
            return 0;
        for (std::size_t i = 0; i < m_children.size(); ++i) {
            if (wanted[1 + 2 * i].revents != 0)
                m_HandleReady(m_children[i]);
            if (wanted[2 + 2 * i].revents != 0)
                if (const std::optional<int> exitCode = m_HandleEnd(m_children[i]))
                    return *exitCode;
        }
    }
}

void TCSupervisor::m_StartDue() {
    for (Child& child : m_children)
        if (child.process.Pid() == 0 && child.startTime <= Clock::now())
            m_Start(child);
}

void TCSupervisor::m_Start(Child& child) {
    MavixTools::Pipe ready = MavixTools::MakePipe();
    MavixTools::ChildOptions options;
    options.program = std::filesystem::read_symlink("/proc/self/exe");
    options.name = child.role->processName;
    options.arguments = {std::string("--serve=") + child.role->option,
                         "--ready-fd=" + std::to_string(TCChildProcess::PassedDescriptor)};
    if (!m_options.keepRecords)
        options.arguments.emplace_back("--no-records");
    if (m_scenario != nullptr) {
        options.arguments.push_back("--" + m_scenario->option + "=/proc/self/fd/" +
                                    std::to_string(m_scenario->text.Get()));
        options.arguments.push_back("--progress-fd=" + std::to_string(m_scenario->shared.Get()));
    }
    if (m_options.isReplayFast)
        options.arguments.emplace_back("--replay-speed=fast");
    options.group = MavixTools::ChildOptions::parentsGroup;
    options.descriptor = ready.writer.Get();
    child.process = TCChildProcess(options);
    child.ready = std::move(ready.reader);
    child.isReady = false;
}

int TCSupervisor::m_PollLimit() const {
    Clock::time_point next = Clock::time_point::max();
    for (const Child& child : m_children)
        if (child.process.Pid() == 0)
            next = std::min(next, child.startTime);
    if (next == Clock::time_point::max())
        return -1;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(next - Clock::now());
    return static_cast<int>(std::max<long>(left.count() + 1, 0));
}

void TCSupervisor::m_HandleReady(Child& child) {
    char byte = 0;
    child.isReady = ::read(child.ready.Get(), &byte, 1) == 1;
    child.ready.Close();
    if (std::all_of(m_children.begin(), m_children.end(), [](const Child& each) { return each.isReady; }))
        m_TellReady();
}

std::optional<int> TCSupervisor::m_HandleEnd(Child& child) {
    const int status = MavixTools::ShellStatus(*child.process.Wait());
    if (!m_options.respawn) {
        Complain(std::string(child.role->processName) + " has ended with status " + std::to_string(status));
        return status != 0 ? status : 1;
    }
    auto least = child.isReady ? std::chrono::milliseconds(0) : pauseAfterFailure;
    if (m_scenario != nullptr)
        least =
            std::max(least, std::chrono::milliseconds(m_scenario->progress.AwayMs(*child.role).exchange(0)));
    child.startTime = Clock::now() + std::max(m_options.respawnDelay, least);
    child.isReady = false;
    child.ready.Close();
    return std::nullopt;
}

void TCSupervisor::m_TellReady() const {
    std::string line = "ready";
    for (const Child& child : m_children)
        line += std::string(" ") + child.role->processName + "=" + std::to_string(child.process.Pid());
    line += "\n";
    const int descriptor = m_options.readyDescriptor >= 0 ? m_options.readyDescriptor : STDOUT_FILENO;
    // Nobody has to read all of it; a full pipe must not stop the service.
    pollfd writable{descriptor, POLLOUT, 0};
    if (::poll(&writable, 1, 0) == 1) [[maybe_unused]]
        const ssize_t written = ::write(descriptor, line.data(), line.size());
}

} // namespace MavixSim
