#include "Sandbox.h"

#include "Orphans.h"
#include "Shell.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <poll.h>
#include <stdexcept>
#include <sys/signalfd.h>
#include <system_error>

namespace MavixTools {

namespace {

constexpr std::chrono::seconds commandGrace{5};
constexpr std::chrono::seconds judgementLimit{20};
// What asks the sandbox for its end.
constexpr int endingSignals[] = {SIGINT, SIGQUIT, SIGTERM, SIGHUP};

// What the stand-in service says of its scenario; false when it says nothing.
bool PrintReport(const std::string& path) {
    std::ifstream file(path);
    const std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    if (!text.empty())
        std::fprintf(stderr, "mavix-sandbox: %s", text.c_str());
    return !text.empty();
}

std::filesystem::path OwnFolder() {
    return std::filesystem::read_symlink("/proc/self/exe").parent_path();
}

// One that asks for the end and came before there was a command to hand it to; 0 for none.
int EarlySignal() {
    sigset_t pending;
    ::sigpending(&pending);
    for (const int signal : endingSignals)
        if (::sigismember(&pending, signal) == 1)
            return signal;
    return 0;
}

// Beside ourselves, else whatever PATH gives.
std::string FindSim() {
    const std::filesystem::path beside = OwnFolder() / "mavix-sim";
    return std::filesystem::exists(beside) ? beside.string() : "mavix-sim";
}

// In the data folder beside our own folder, else where the installation's data folder is, as seen from ours.
std::string FindPolicy() {
    for (const char* data : {"../share", MAVIX_DATA_FROM_BIN}) {
        const std::filesystem::path path = OwnFolder() / data / "dbus-1/system.d/com.norvale.Mavix.conf";
        if (std::filesystem::exists(path))
            return path.lexically_normal().string();
    }
    throw std::runtime_error("com.norvale.Mavix.conf not found near " + OwnFolder().string());
}

} // namespace

TCSandbox::TCSandbox(const SandboxOptions& options, Kept& kept) : m_options(options), m_kept(kept) {
    sigset_t handled;
    ::sigemptyset(&handled);
    ::sigaddset(&handled, SIGCHLD);
    for (const int signal : endingSignals)
        ::sigaddset(&handled, signal);
    m_signals = TCDescriptor(::signalfd(-1, &handled, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!m_signals)
        throw std::system_error(errno, std::generic_category(), "cannot watch signals");
}

TCSandbox::~TCSandbox() {
    EndOrphans(m_ServicePids());
}

int TCSandbox::Run() {
    m_StartServices();
    if (m_kept.IsAbandoned())
        return sandboxFailed;
    const int signal = EarlySignal();
    return signal != 0 ? ShellStatus(signal) : m_JudgeScenario(m_RunCommand());
}

int TCSandbox::m_JudgeScenario(int status) {
    if (!m_sim || (m_options.scenario.empty() && m_options.replay.empty()))
        return status;
    m_sim->Process().End(judgementLimit);
    const int judgement = ShellStatus(m_sim->Process().Wait().value_or(-1));
    if (judgement == 0)
        return status;
    PrintReport(m_ReportPath());
    const bool isJudged = judgement == scenarioNotMet || judgement == callNotRecorded;
    if (!isJudged)
        std::fprintf(stderr, "mavix-sandbox: mavix-sim has ended with status %d\n", judgement);
    if (status != 0)
        return status;
    return isJudged ? judgement : sandboxFailed;
}

void TCSandbox::m_StartServices() {
    m_bus = std::make_unique<TCBusDaemon>(m_folder.Path(), FindPolicy(), !m_options.showDaemons);
    m_bus->Start();
    if (!m_options.startService)
        return;
    std::vector<std::string> simOptions = m_options.simOptions;
    if (!m_options.scenario.empty())
        simOptions.insert(simOptions.end(),
                          {"--scenario=" + m_options.scenario, "--report=" + m_ReportPath()});
    if (!m_options.replay.empty())
        simOptions.insert(simOptions.end(),
                          {"--replay=" + m_options.replay, "--report=" + m_ReportPath(),
                           m_options.isReplayFast ? "--replay-speed=fast" : "--replay-speed=recorded"});
    try {
        m_sim =
            std::make_unique<TCSimService>(FindSim(), simOptions, m_bus->Address(), !m_options.showDaemons);
    } catch (const std::system_error&) {
        throw;
    } catch (const std::runtime_error& error) {
        if (PrintReport(m_ReportPath()) || m_options.showDaemons)
            throw;
        throw std::runtime_error(std::string(error.what()) + "; --verbose shows what it says");
    }
}

ChildOptions TCSandbox::m_CommandOptions() const {
    ChildOptions options;
    if (m_options.shell) {
        options = InteractiveShell(m_folder.Path());
    } else {
        options.program = m_options.command.front();
        options.arguments.assign(m_options.command.begin() + 1, m_options.command.end());
    }
    options.environment.emplace_back("DBUS_SYSTEM_BUS_ADDRESS", m_bus->Address());
    options.group = m_kept.group;
    options.signalMask = m_kept.originalMask;
    return options;
}

int TCSandbox::m_RunCommand() {
    if (m_options.shell)
        std::fprintf(
            stderr,
            "mavix-sandbox: a shell on a bus of its own, with%s the stand-in service; `exit` ends it\n",
            m_options.startService ? "" : "out");
    try {
        TCChildProcess command(m_CommandOptions());
        m_kept.TellThatCommandRuns();
        return m_WaitForCommand(command);
    } catch (const std::system_error& error) {
        std::fprintf(stderr, "mavix-sandbox: %s\n", error.what());
        return error.code() == std::errc::no_such_file_or_directory ? 127 : 126;
    }
}

int TCSandbox::m_WaitForCommand(TCChildProcess& command) {
    for (;;) {
        std::array<pollfd, 3> wanted{pollfd{m_kept.lifeline.Get(), POLLIN, 0},
                                     pollfd{command.PollDescriptor(), POLLIN, 0},
                                     pollfd{m_signals.Get(), POLLIN, 0}};
        int limit = -1;
        if (m_killTime) {
            const auto left = *m_killTime - std::chrono::steady_clock::now();
            limit = static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(left).count());
            limit = limit < 0 ? 0 : limit;
        }
        const int ready = ::poll(wanted.data(), wanted.size(), limit);
        if (ready < 0 && errno != EINTR)
            throw std::system_error(errno, std::generic_category(), "cannot wait for the command");
        const bool isTimeUp = ready == 0 || wanted[0].revents != 0;
        if (isTimeUp && !command.Signal(SIGKILL))
            return ShellStatus(SIGKILL);
        if (isTimeUp || wanted[1].revents != 0)
            return ShellStatus(*command.Wait());
        if (wanted[2].revents != 0)
            m_HandleSignal(command);
    }
}

void TCSandbox::m_HandleSignal(TCChildProcess& command) {
    signalfd_siginfo info{};
    if (::read(m_signals.Get(), &info, sizeof info) != sizeof info)
        return;
    const int signal = static_cast<int>(info.ssi_signo);
    if (signal == SIGCHLD) {
        m_CheckServices();
        std::vector<pid_t> known = m_ServicePids();
        known.push_back(command.Pid());
        CollectOrphans(known);
        return;
    }
    command.Signal(signal);
    // The terminal's interrupt does not end a command that goes on.
    const bool isInterrupt = info.ssi_code == SI_QUEUE;
    if (!isInterrupt && !m_killTime)
        m_killTime = std::chrono::steady_clock::now() + commandGrace;
}

std::vector<pid_t> TCSandbox::m_ServicePids() const {
    std::vector<pid_t> pids;
    if (m_bus)
        pids.push_back(m_bus->Process().Pid());
    if (m_sim)
        pids.push_back(m_sim->Process().Pid());
    return pids;
}

void TCSandbox::m_CheckServices() {
    // A service that ends is the command's to notice; here it is only told.
    constexpr std::chrono::milliseconds now{0};
    if (m_bus->Process().Pid() != 0 && m_bus->Process().Wait(now))
        std::fputs("mavix-sandbox: the bus has ended\n", stderr);
    if (m_sim && m_sim->Process().Pid() != 0 && m_sim->Process().Wait(now))
        std::fputs("mavix-sandbox: the stand-in service has ended\n", stderr);
}

} // namespace MavixTools
