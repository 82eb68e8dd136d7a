#include "BusLink.h"
#include "Commands.h"
#include "LibraryLog.h"
#include "Output.h"
#include "Payload.h"
#include "Service.h"

#include <chrono>
#include <fmt/format.h>
#include <mavix-api/IpcClientInstance.h>

namespace MavixControl {

namespace {

using MavixApiLite::TCIpcClientInstance;
using MavixApiLite::TCMessageBuffer;
using Milliseconds = std::chrono::duration<double, std::milli>;

// One run of the command.
class TCCallCommand final {
public:
    explicit TCCallCommand(const TSSettings& settings) : m_settings(settings) {}

    void AddOptions(CLI::App& command);
    EExitCode Run();

private:
    bool m_CallOnce(TCMessageBuffer& request, const TCBusLink& link);
    bool m_Report(const TCMessageBuffer& reply, Milliseconds time) const;
    void m_ReportFailure(const TCErrorLines& lines) const;
    Json m_Head(bool succeeded) const;

    const TSSettings& m_settings;
    std::string m_interface;
    std::int16_t m_code = 0;
    std::vector<std::string> m_arguments;
    TCPayloadView m_view;
    bool m_async = false;
    unsigned int m_repeat = 1;
    double m_waitSeconds = 0;
    std::string m_bus;
};

void TCCallCommand::AddOptions(CLI::App& command) {
    constexpr std::int64_t mostCalls = 1'000'000'000;
    AddInterface(command, m_interface);
    AddCode(command, m_code)->required();
    command
        .add_option("ARGUMENT", m_arguments,
                    "Values, one behind the other: c:, s:, i:, l: and a number of 8, 16, 32, 64 bits; str: a "
                    "text behind its 32-bit length; strz: a text and its terminator; hex: bytes; @FILE a "
                    "file's bytes; - those of standard input")
        ->type_name("");
    m_view.AddOptions(command);
    command.add_flag("--async", m_async, "Do not wait for a reply");
    command.add_option("--repeat", m_repeat, "Call so often, one call after the other")
        ->type_name("N")
        ->transform(Number(1, mostCalls));
    command.add_option("--wait", m_waitSeconds, "Wait so long for the service to appear; 0 unless given")
        ->type_name("SECONDS")
        ->check(Seconds());
}

EExitCode TCCallCommand::Run() {
    TCMessageBuffer request = BuildPayload("ARGUMENT", m_arguments);
    m_bus = ServiceConfiguration().MethodBusName(m_interface, m_code);
    const TCBusLink link;
    link.RequireOwner(m_bus, m_waitSeconds);
    bool succeeded = true;
    for (unsigned int call = 0; call < m_repeat && std::ferror(stdout) == 0; ++call)
        succeeded = m_CallOnce(request, link) && succeeded;
    return succeeded ? Done : Refused;
}

bool TCCallCommand::m_CallOnce(TCMessageBuffer& request, const TCBusLink& link) {
    const auto client = TCIpcClientInstance::GetInstance();
    const TCErrorLines lines;
    TCMessageBuffer reply;
    const auto start = std::chrono::steady_clock::now();
    const bool succeeded = m_async ? client->CallAsync(m_interface, m_code, request)
                                   : client->Call(m_interface, m_code, request, reply);
    const Milliseconds time = std::chrono::steady_clock::now() - start;
    if (succeeded)
        return m_Report(reply, time);
    m_ReportFailure(lines);
    // An error with a name is an answer.
    if (lines.ErrorName().empty())
        link.RequireStill(m_bus);
    return false;
}

Json TCCallCommand::m_Head(bool succeeded) const {
    return {{"interface", m_interface}, {"code", m_code}, {"bus", m_bus}, {"ok", succeeded}};
}

bool TCCallCommand::m_Report(const TCMessageBuffer& reply, Milliseconds time) const {
    const std::string_view payload = BytesOf(reply);
    if (m_settings.json) {
        Json object = m_Head(true);
        object["async"] = m_async;
        if (m_async) {
            PrintJson(object);
            return true;
        }
        object["milliseconds"] = time.count();
        const bool isDecoded = m_view.AddTo(object, payload);
        PrintJson(object);
        return isDecoded;
    }
    if (m_async) {
        PrintLine(fmt::format("sent to {}", m_bus));
        return true;
    }
    PrintLine(fmt::format("{} in {:.3f} ms from {}",
                          Paint(EColour::Good, fmt::format("{} bytes", payload.size())), time.count(),
                          m_bus));
    return m_view.Print(payload);
}

void TCCallCommand::m_ReportFailure(const TCErrorLines& lines) const {
    PrintError(fmt::format("{} {} failed: {}", m_interface, m_code, lines.Describe()));
    if (!m_settings.json)
        return;
    Json object = m_Head(false);
    object["async"] = m_async;
    const std::string name = lines.ErrorName();
    object["error"] = {{"name", name.empty() ? Json() : Json(name)}, {"text", lines.Reason()}};
    PrintJson(object);
}

} // namespace

void AddCallCommand(CLI::App& application, TSSettings& settings, int& exitCode) {
    CLI::App* command = AddCommand(application, settings, "call", "Call a function of the service",
                                   "mavixctl call com.norvale.IAVControl 1 i:5 str:hello --decode i,str");
    const auto call = std::make_shared<TCCallCommand>(settings);
    call->AddOptions(*command);
    command->callback([call, &exitCode] { exitCode = call->Run(); });
}

} // namespace MavixControl
