#include "BusLink.h"
#include "Commands.h"
#include "LibraryLog.h"
#include "Numbers.h"
#include "Output.h"
#include "Payload.h"
#include "Service.h"

#include <chrono>
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <glib-unix.h>
#include <limits>
#include <mavix-api/GdbusConnection.h>
#include <mavix-api/IpcClient.h>
#include <set>

namespace MavixControl {

namespace {

using MavixApiLite::MAVIXHandle;
using MavixApiLite::TCGdbusConnection;
using MavixApiLite::TCIpcClient;

struct MainLoopDeleter {
    void operator()(GMainLoop* loop) const { g_main_loop_unref(loop); }
};

// One run of the command. Everything happens on the main thread, which iterates the default context: there
// the client calls back. A client of our own, because rules for all ids or handles go past the C interface.
class TCListenCommand final {
public:
    explicit TCListenCommand(const TSSettings& settings) : m_settings(settings) {}

    void AddOptions(CLI::App& command);
    EExitCode Run();

private:
    template <int Type>
    static void m_OnEvent(int id, const char* data, int length) {
        s_running->m_TakeEvent(
            Type, id, std::string_view(data == nullptr ? "" : data, static_cast<std::size_t>(length)));
    }
    template <int... Types>
    void m_SetCallbacks(TCIpcClient& client, std::integer_sequence<int, Types...>);

    void m_Subscribe(TCIpcClient& client, TCGdbusConnection& connection) const;
    void m_TakeEvent(int type, int id, std::string_view payload);
    void m_End(EExitCode exitCode);

    // Callbacks get no pointer of ours.
    static TCListenCommand* s_running;

    const TSSettings& m_settings;
    std::vector<std::string> m_typeNames;
    std::set<int> m_types;
    std::optional<int> m_id;
    std::optional<MAVIXHandle> m_handle;
    TCPayloadView m_view;
    unsigned long m_count = 0;
    std::optional<double> m_timeoutSeconds;
    std::unique_ptr<GMainLoop, MainLoopDeleter> m_loop;
    std::unique_ptr<TCBusLink> m_link;
    unsigned long m_taken = 0;
    bool m_isDecoded = true;
    EExitCode m_exitCode = Done;
};

TCListenCommand* TCListenCommand::s_running = nullptr;

CLI::Validator EventType() {
    return CLI::Validator(
        [](std::string& text) {
            return text == "all" || FindEventType(text)
                       ? std::string()
                       : fmt::format("'{}' is no type of event: all, a number from 0 to {}, or one of {}",
                                     text, eventNames.size() - 1, fmt::join(eventNames, ", "));
        },
        "");
}

MAVIXHandle ParseHandle(const std::string& text) {
    constexpr std::int64_t most = std::numeric_limits<std::uint32_t>::max();
    const std::size_t comma = std::min(text.find(','), text.size());
    const auto high = MavixTraffic::ParseNumber(std::string_view(text).substr(0, comma), 0, most);
    const auto low =
        MavixTraffic::ParseNumber(std::string_view(text).substr(std::min(comma + 1, text.size())), 0, most);
    if (!high || !low)
        throw CLI::ValidationError(
            "--handle", fmt::format("'{}' is not two whole numbers from 0 to {} with a comma", text, most));
    return {static_cast<std::uint32_t>(*high), static_cast<std::uint32_t>(*low)};
}

void TCListenCommand::AddOptions(CLI::App& command) {
    constexpr std::int64_t most = std::numeric_limits<std::int32_t>::max();
    CLI::Option* types = command.add_option("TYPE", m_typeNames, "Types of events by name or number, or all");
    types->required()->type_name("")->check(EventType());
    std::vector<std::string> choices(eventNames.begin(), eventNames.end());
    choices.emplace_back("all");
    OfferChoices(types, choices);
    command.add_option("--id", m_id, "Only events with this id")
        ->type_name("N")
        ->transform(Number(std::numeric_limits<std::int32_t>::min(), most));
    command
        .add_option_function<std::string>(
            "--handle", [this](const std::string& text) { m_handle = ParseHandle(text); },
            "Only events about this handle")
        ->type_name("HIGH,LOW");
    m_view.AddOptions(command);
    command.add_option("--count", m_count, "End after so many events")
        ->type_name("N")
        ->transform(Number(1, most));
    command
        .add_option("--timeout", m_timeoutSeconds, "End after this time; with --count it is then a failure")
        ->type_name("SECONDS")
        ->check(Seconds());
}

template <int... Types>
void TCListenCommand::m_SetCallbacks(TCIpcClient& client, std::integer_sequence<int, Types...>) {
    const auto set = [&](int type, void (*callback)(int, const char*, int)) {
        if (m_types.count(type) > 0)
            client.SetCallbackFunction(static_cast<EIPCMessageType>(type), callback);
    };
    (set(Types, m_OnEvent<Types>), ...);
}

void TCListenCommand::m_Subscribe(TCIpcClient& client, TCGdbusConnection& connection) const {
    for (const int type : m_types) {
        if (m_id && m_handle) {
            client.AddMatchRule(static_cast<EIPCMessageType>(type), *m_id, *m_handle);
            continue;
        }
        std::string rule =
            fmt::format("path='{}', type='signal', interface='{}', member='{}'", eventObjectName,
                        eventInterfaceName, eventNames[static_cast<std::size_t>(type)]);
        if (m_id)
            rule += fmt::format(", arg0='{}'", *m_id);
        if (m_handle)
            rule += fmt::format(", arg1='{}'", (m_handle->high << 16U) | m_handle->low);
        connection.AddMatch(rule.c_str());
    }
    // The rules are in force when a later request has been answered.
    bool hasOwner = false;
    connection.BusHasOwner(ServiceConfiguration().MethodBusName("", 0), -1, hasOwner);
    PrintError(hasOwner ? "listening" : "listening; the service does not run");
}

EExitCode TCListenCommand::Run() {
    for (const std::string& name : m_typeNames) {
        if (const auto type = FindEventType(name))
            m_types.insert(*type);
        for (int type = 0; name == "all" && type < IPC_MESSAGE_MAX; ++type)
            m_types.insert(type);
    }
    m_link = std::make_unique<TCBusLink>();
    m_loop.reset(g_main_loop_new(nullptr, FALSE));
    s_running = this;
    auto connection = std::make_unique<TCGdbusConnection>();
    TCGdbusConnection& wire = *connection;
    auto configuration =
        std::make_unique<MavixApiLite::IpcConfigurationMavix>(eventInterfaceName, eventObjectName);
    TCIpcClient client(std::move(configuration), nullptr, std::move(connection));
    m_SetCallbacks(client, std::make_integer_sequence<int, IPC_MESSAGE_MAX>());
    m_Subscribe(client, wire);

    const auto onBus = [](gint, GIOCondition, gpointer self) -> gboolean {
        auto& command = *static_cast<TCListenCommand*>(self);
        if (command.m_link->IsAlive())
            return G_SOURCE_CONTINUE;
        command.m_End(NoService);
        return G_SOURCE_REMOVE;
    };
    g_unix_fd_add(m_link->Descriptor(), static_cast<GIOCondition>(G_IO_IN | G_IO_HUP | G_IO_ERR), onBus,
                  this);
    if (m_timeoutSeconds) {
        const auto onTime = [](gpointer self) -> gboolean {
            auto& command = *static_cast<TCListenCommand*>(self);
            command.m_End(command.m_count == 0 ? Done : Refused);
            return G_SOURCE_REMOVE;
        };
        g_timeout_add(static_cast<guint>(*m_timeoutSeconds * 1000), onTime, this);
    }
    g_main_loop_run(m_loop.get());
    if (m_exitCode == NoService)
        throw TCFailure(NoService, busHasGone);
    if (m_count != 0 && m_exitCode == Refused)
        PrintError(fmt::format("{} of {} events came in {} s", m_taken, m_count, *m_timeoutSeconds));
    return m_exitCode == Done && !m_isDecoded ? Refused : m_exitCode;
}

void TCListenCommand::m_End(EExitCode exitCode) {
    m_exitCode = exitCode;
    g_main_loop_quit(m_loop.get());
}

void TCListenCommand::m_TakeEvent(int type, int id, std::string_view payload) {
    // Others may be waiting when the last one has come.
    if (m_count != 0 && m_taken == m_count)
        return;
    ++m_taken;
    const char* name = eventNames[static_cast<std::size_t>(type)];
    const auto now = std::chrono::floor<std::chrono::milliseconds>(std::chrono::system_clock::now());
    const auto milliseconds = now.time_since_epoch().count() % 1000;
    if (m_settings.json) {
        const std::string time = fmt::format(
            "{:%FT%T}.{:03}Z", fmt::gmtime(std::chrono::system_clock::to_time_t(now)), milliseconds);
        Json event{{"time", time}, {"type", name}, {"number", type}, {"id", id}};
        m_isDecoded = m_view.AddTo(event, payload) && m_isDecoded;
        PrintJson(event);
    } else {
        const std::string time = fmt::format(
            "{:%T}.{:03}", fmt::localtime(std::chrono::system_clock::to_time_t(now)), milliseconds);
        PrintLine(fmt::format("{} {} id {}, {} bytes", Paint(EColour::Faint, time),
                              Paint(EColour::Name, name), id, payload.size()));
        m_isDecoded = m_view.Print(payload, "  ") && m_isDecoded;
    }
    // Whoever reads along gets each event when it comes.
    if (!FlushOutput() || m_taken == m_count)
        m_End(Done);
}

} // namespace

void AddListenCommand(CLI::App& application, TSSettings& settings, int& exitCode) {
    CLI::App* command = AddCommand(application, settings, "listen", "Print the service's events as they come",
                                   "mavixctl listen Data Section --id 7 --count 10 --timeout 60");
    const auto listen = std::make_shared<TCListenCommand>(settings);
    listen->AddOptions(*command);
    command->callback([listen, &exitCode] { exitCode = listen->Run(); });
}

} // namespace MavixControl
