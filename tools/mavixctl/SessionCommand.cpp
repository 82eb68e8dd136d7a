#include "BusLink.h"
#include "Commands.h"
#include "LibraryLog.h"
#include "Output.h"
#include "Service.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fmt/format.h>
#include <limits>
#include <mavix-api/Handles.h>
#include <mavix-api/IPCConnection_C.h>
#include <mavix-api/SessionControl_C.h>
#include <memory>
#include <poll.h>
#include <sstream>
#include <sys/signalfd.h>

namespace MavixControl {

namespace {

struct SessionOptions {
    double waitSeconds = 0;
    double holdSeconds = -1; // without limit
    std::int64_t traceId = 0;
    std::string info;
    std::int32_t parameter = 0;
};

// Holds back what interrupts a program, so that what it opened is closed first. Made before the library
// starts threads, which then hold it back, too.
class TCInterrupts final {
public:
    TCInterrupts() {
        sigset_t signals;
        sigemptyset(&signals);
        for (const int signal : {SIGINT, SIGTERM, SIGHUP})
            sigaddset(&signals, signal);
        ::sigprocmask(SIG_BLOCK, &signals, nullptr);
        m_file = MavixApiLite::TCFileDescriptor(::signalfd(-1, &signals, SFD_CLOEXEC));
    }

    // Readable when there was one.
    int Descriptor() const { return m_file.Get(); }

private:
    MavixApiLite::TCFileDescriptor m_file;
};

// Of a failed operation. The library logs each open and close as an error line of its own, also where it
// succeeds. Where there is no other one, the service has answered -1 itself.
std::string ReasonOf(const TCErrorLines& lines) {
    const std::string reason = lines.Describe();
    const bool isAnswer = !lines.HasLines() || reason.rfind("Open Session, ", 0) == 0 ||
                          reason.rfind("Close Session, ", 0) == 0;
    return isAnswer ? "the service answered -1" : reason;
}

// A result of the library's: 0 is success.
EExitCode Report(const TSSettings& settings, const TCBusLink& link, const char* operation, int result,
                 const TCErrorLines& lines, const Json& more = Json::object()) {
    if (settings.json) {
        Json object{{"operation", operation}, {"result", result}, {"ok", result == 0}};
        object.update(more);
        PrintJson(object);
    } else if (result == 0 && more.empty()) {
        PrintLine(fmt::format("{}: {}", operation, Paint(EColour::Good, "done")));
    }
    if (result == -1)
        PrintError(fmt::format("{} failed: {}", operation, ReasonOf(lines)));
    else if (result != 0)
        PrintError(fmt::format("{} failed: the service answered {}", operation, result));
    // Whoever waits for it reads along.
    FlushOutput();
    if (result == -1 && lines.ErrorName().empty())
        link.RequireStill(MavixApiLite::MavixLiteInterfaceName);
    return result == 0 ? Done : Refused;
}

// Returns after the time, without limit when it is negative, or at an interrupt.
void Hold(const TCBusLink& link, const TCInterrupts& interrupts, double seconds) {
    using Clock = std::chrono::steady_clock;
    const auto end =
        Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    while (link.IsAlive()) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
        if (seconds >= 0 && left <= 0)
            return;
        pollfd wanted[] = {{link.Descriptor(), POLLIN, 0}, {interrupts.Descriptor(), POLLIN, 0}};
        ::poll(wanted, 2, seconds < 0 ? -1 : static_cast<int>(left));
        if (wanted[1].revents != 0)
            return;
    }
    throw TCFailure(NoService, busHasGone);
}

EExitCode Open(const TSSettings& settings, const SessionOptions& options, const TCBusLink& link) {
    const TCInterrupts interrupts;
    {
        const TCErrorLines lines;
        const EExitCode opened = Report(settings, link, "open", SessionControl__Open(), lines);
        if (opened != Done)
            return opened;
    }
    Hold(link, interrupts, options.holdSeconds);
    const TCErrorLines lines;
    return Report(settings, link, "close", SessionControl__Close(), lines);
}

// The library itself closes no session that it has not opened, so this asks the service directly.
EExitCode Close(const TSSettings& settings, const TCBusLink& link) {
    constexpr short closeCode = 1;
    const TCErrorLines lines;
    void* reply = nullptr;
    unsigned int size = 0;
    std::int32_t result = -1;
    if (IPCConnection__Call("com.norvale.ISessionControl", closeCode, nullptr, 0, &reply, &size)) {
        // As the library takes an answer that is too short.
        result = 0;
        if (size >= sizeof result)
            std::memcpy(&result, reply, sizeof result);
    }
    IPCConnection__CallDisposeOutputBuffer(reply);
    return Report(settings, link, "close", result, lines);
}

EExitCode Dump(const TSSettings& settings, const TCBusLink& link) {
    const TCErrorLines lines;
    char* text = nullptr;
    const int result = SessionControl__GetSessionsDebugInfo(&text);
    const std::unique_ptr<char, decltype(&std::free)> owned(text, &std::free);
    if (result != 0)
        return Report(settings, link, "dump", result, lines);
    if (settings.json)
        return Report(settings, link, "dump", result, lines, {{"text", text}});
    std::istringstream textLines(text);
    for (std::string line; std::getline(textLines, line);)
        PrintLine(Printable(line));
    return Done;
}

EExitCode Terminated(const TSSettings& settings, const TCBusLink& link) {
    const TCErrorLines lines;
    int isTerminated = 0;
    const int result = SessionControl__IsMavixTerminated(&isTerminated);
    if (result != 0)
        return Report(settings, link, "terminated", result, lines);
    if (settings.json)
        return Report(settings, link, "terminated", result, lines, {{"terminated", isTerminated != 0}});
    PrintLine(isTerminated != 0 ? Paint(EColour::Bad, "terminated") : "not terminated");
    return Done;
}

EExitCode Trace(const TSSettings& settings, const SessionOptions& options, const TCBusLink& link) {
    const TCInterrupts interrupts;
    SessionControlDebugInfo info{};
    info.structSize = sizeof info;
    info.callerInfo = options.info.c_str();
    info.traceParam = options.parameter;
    {
        const TCErrorLines lines;
        const EExitCode opened = Report(settings, link, "open trace",
                                        SessionControl__OpenDebugTrace(options.traceId, &info), lines);
        if (opened != Done)
            return opened;
    }
    Hold(link, interrupts, options.holdSeconds);
    const TCErrorLines lines;
    return Report(settings, link, "close trace", SessionControl__CloseDebugTrace(options.traceId), lines);
}

template <class Body>
CLI::App* AddOperation(CLI::App& session, TSSettings& settings, int& exitCode,
                       const std::shared_ptr<SessionOptions>& options, const std::string& name,
                       const std::string& description, const std::string& arguments, const Body& body) {
    CLI::App* command =
        AddCommand(session, settings, name, description, "mavixctl session " + name + arguments);
    command
        ->add_option("--wait", options->waitSeconds, "Wait so long for the service to appear; 0 unless given")
        ->type_name("SECONDS")
        ->check(Seconds());
    command->callback([options, body, &exitCode] {
        const TCBusLink link;
        link.RequireOwner(MavixApiLite::MavixLiteInterfaceName, options->waitSeconds);
        exitCode = body(link);
    });
    return command;
}

void AddHold(CLI::App& command, SessionOptions& options, const char* description) {
    command.add_option("--hold", options.holdSeconds, description)->type_name("SECONDS")->check(Seconds());
}

} // namespace

void AddSessionCommand(CLI::App& application, TSSettings& settings, int& exitCode) {
    using Limits64 = std::numeric_limits<std::int64_t>;
    using Limits32 = std::numeric_limits<std::int32_t>;
    CLI::App* session = application.add_subcommand("session", "Sessions with the service");
    session->require_subcommand(1);
    const auto options = std::make_shared<SessionOptions>();
    const auto add = [&](const char* name, const char* description, const char* arguments, const auto& body) {
        return AddOperation(*session, settings, exitCode, options, name, description, arguments, body);
    };
    CLI::App* open =
        add("open", "Open a session, keep it, and close it", " --hold 60",
            [&settings, options](const TCBusLink& link) { return Open(settings, *options, link); });
    AddHold(*open, *options, "Keep the session so long; until interrupted unless given");
    add("close", "Ask the service to close a session that was not opened", "",
        [&settings](const TCBusLink& link) { return Close(settings, link); });
    add("dump", "Print the service's text about its sessions", "",
        [&settings](const TCBusLink& link) { return Dump(settings, link); });
    add("terminated", "Ask whether the service has been terminated", "",
        [&settings](const TCBusLink& link) { return Terminated(settings, link); });
    CLI::App* trace =
        add("trace", "Open a debug trace, keep it, and close it", " 7 --info \"my test\" --param 3",
            [&settings, options](const TCBusLink& link) { return Trace(settings, *options, link); });
    trace->add_option("ID", options->traceId, "The trace's number")
        ->required()
        ->type_name("")
        ->transform(Number(Limits64::min() + 1, Limits64::max()));
    trace->add_option("--info", options->info, "A text about the caller")->type_name("TEXT");
    trace->add_option("--param", options->parameter, "A number for the service")
        ->type_name("N")
        ->transform(Number(Limits32::min(), Limits32::max()));
    AddHold(*trace, *options, "Keep the trace so long; until interrupted unless given");
}

} // namespace MavixControl
