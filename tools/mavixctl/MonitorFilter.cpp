#include "MonitorFilter.h"

#include "Service.h"

#include <algorithm>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <limits>

namespace MavixControl {

using MavixTraffic::Message;

namespace {

const std::vector<std::string> kinds{"call", "reply", "error", "event", "owner", "timeout"};

CLI::Validator Type() {
    return CLI::Validator(
        [](std::string& text) {
            if (std::find(kinds.begin(), kinds.end(), text) != kinds.end())
                return std::string();
            const std::optional<int> type = FindEventType(text);
            if (!type)
                return fmt::format("'{}' is none of {}, nor a type of event by name or number", text,
                                   fmt::join(kinds, ", "));
            text = eventNames[static_cast<std::size_t>(*type)];
            return std::string();
        },
        "");
}

} // namespace

void TCMonitorFilter::AddOptions(CLI::App& command) {
    using Limits = std::numeric_limits<std::int16_t>;
    command.add_option("--interface", m_interface, "Only calls of this interface, and what answers them")
        ->type_name("NAME")
        ->check(InterfaceName());
    command.add_option("--code", m_code, "Only calls of this function code, and what answers them")
        ->type_name("N")
        ->transform(Number(Limits::min(), Limits::max()));
    command
        .add_option("--process", m_process,
                    "Only what this process sends, by name or process id, and what answers it")
        ->type_name("NAME|PID");
    command
        .add_option("--type", m_types,
                    "Only call, reply, error, event, owner or timeout, or one type of event; may be repeated")
        ->type_name("TYPE")
        ->transform(Type());
}

bool TCMonitorFilter::m_TakesProcess(const TSProcess& process) const {
    return m_process.empty() || m_process == process.name ||
           (process.pid != 0 && m_process == std::to_string(process.pid));
}

bool TCMonitorFilter::TakesCall(const Message& call, const TSProcess& caller) const {
    return (m_interface.empty() || m_interface == call.interface) &&
           (!m_code || (call.call.header && *m_code == call.call.Code())) && m_TakesProcess(caller);
}

bool TCMonitorFilter::TakesEvent(const Message& event, const TSProcess& emitter) const {
    return (m_interface.empty() || m_interface == event.interface) && !m_code && m_TakesProcess(emitter);
}

bool TCMonitorFilter::TakesOwner(const TSProcess& oldOwner, const TSProcess& newOwner) const {
    return m_interface.empty() && !m_code && (m_TakesProcess(oldOwner) || m_TakesProcess(newOwner));
}

bool TCMonitorFilter::TakesType(const char* kind, const Message* event) const {
    return m_types.empty() || std::any_of(m_types.begin(), m_types.end(), [&](const std::string& type) {
               return type == kind ||
                      (event != nullptr && event->event.type != nullptr && type == event->event.type->member);
           });
}

} // namespace MavixControl
