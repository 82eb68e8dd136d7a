#include "Server.h"

#include "CallDecoder.h"
#include "Trampoline.h"

#include <csignal>
#include <cstring>

namespace MavixSim {

namespace {

EventHandle MakeEventLoop() {
    sigset_t handled;
    ::sigemptyset(&handled);
    ::sigaddset(&handled, SIGTERM);
    ::sigaddset(&handled, SIGINT);
    ::sigprocmask(SIG_BLOCK, &handled, nullptr);

    sd_event* event = nullptr;
    Check(sd_event_new(&event), "new event loop");
    EventHandle loop(event);
    // Without a handler, the signal ends the loop with exit code 0.
    for (const int signal : {SIGTERM, SIGINT})
        Check(sd_event_add_signal(event, nullptr, signal, nullptr, nullptr), "watch a signal");
    return loop;
}

BusHandle OpenBus(sd_event* event) {
    sd_bus* opened = nullptr;
    Check(sd_bus_open_system(&opened), "cannot connect to the system bus");
    BusHandle bus(opened);
    Check(sd_bus_set_exit_on_disconnect(opened, 1), "watch the connection");
    Check(sd_bus_attach_event(opened, event, SD_EVENT_PRIORITY_NORMAL), "attach to the event loop");
    return bus;
}

bool StartsWith(const char* text, const char* prefix) {
    return text != nullptr && std::strncmp(text, prefix, std::strlen(prefix)) == 0;
}

// Whether the message is for the bus library or the control interface, not a call to the service.
bool IsHousekeeping(sd_bus_message* message) {
    const char* path = sd_bus_message_get_path(message);
    return (path != nullptr && std::strcmp(path, controlPath) == 0) ||
           StartsWith(sd_bus_message_get_interface(message), "org.freedesktop.DBus.");
}

} // namespace

TCServer::TCServer(const Role& role, bool keepRecords)
    : m_role(role), m_keepRecords(keepRecords), m_event(MakeEventLoop()), m_bus(OpenBus(m_event.get())),
      m_timers(m_event.get()), m_names(m_bus.get(), m_timers), m_pids(m_bus.get()), m_sessions(m_bus.get()),
      m_recorder(role.processName), m_emitter(m_event.get(), m_bus.get()),
      m_responder(m_event.get(), m_timers, m_names, m_sessions),
      m_control(
          {m_event.get(), m_bus.get(), m_names, m_responder, m_recorder, m_emitter, m_timers, m_sessions}) {
    sd_bus_slot* slot = nullptr;
    Check(sd_bus_add_filter(m_bus.get(), &slot, m_OnMessage, this), "add a filter");
    m_filter.reset(slot);
}

int TCServer::Run() {
    return sd_event_loop(m_event.get());
}

int TCServer::m_OnMessage(sd_bus_message* message, void* self, sd_bus_error*) {
    std::uint8_t type = 0;
    if (sd_bus_message_get_type(message, &type) < 0 || type != SD_BUS_MESSAGE_METHOD_CALL ||
        IsHousekeeping(message))
        return 0;
    Guarded([&] { static_cast<TCServer*>(self)->m_HandleCall(message); });
    return 1;
}

void TCServer::m_HandleCall(sd_bus_message* message) {
    Call call;
    std::string reason;
    try {
        DecodeCall(
            message, m_role, [this](const std::string& sender) { return m_pids.PidOf(sender); }, call);
        if (call.interface == sessionInterface)
            CheckSessionCall(call);
    } catch (const Refusal& refusal) {
        reason = refusal.what();
    }
    // Recorded before the answer, so that whoever has it finds the record.
    if (m_keepRecords)
        m_recorder.Add(call, reason);
    if (reason.empty())
        m_responder.Respond(message, call);
    else
        m_responder.Refuse(message, call, reason);
}

} // namespace MavixSim
