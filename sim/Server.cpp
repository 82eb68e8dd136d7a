#include "Server.h"

#include "CallDecoder.h"
#include "Clock.h"
#include "Trampoline.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <set>

namespace MavixSim {

namespace {

// Also for the signals that the loop is to handle.
EventHandle MakeEventLoop() {
    sigset_t handled;
    ::sigemptyset(&handled);
    ::sigaddset(&handled, SIGTERM);
    ::sigaddset(&handled, SIGINT);
    ::sigprocmask(SIG_BLOCK, &handled, nullptr);

    sd_event* event = nullptr;
    Check(sd_event_new(&event), "new event loop");
    return EventHandle(event);
}

BusHandle OpenBus(sd_event* event) {
    sd_bus* opened = nullptr;
    Check(sd_bus_open_system(&opened), "cannot connect to the system bus");
    BusHandle bus(opened);
    Check(sd_bus_set_exit_on_disconnect(opened, 1), "watch the connection");
    // The end of the loop need not be the end of serving.
    Check(sd_bus_set_close_on_exit(opened, 0), "keep the connection");
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

constexpr std::uint64_t longestRestMs = 1000;
constexpr int mostSilentRounds = 100;

// Whether anybody but the service is connected.
bool OthersAreOn(sd_bus* bus) {
    std::set<std::string> service;
    for (const Role& role : Roles()) {
        sd_bus_creds* asked = nullptr;
        const char* owner = nullptr;
        if (sd_bus_get_name_creds(bus, role.controlName, SD_BUS_CREDS_UNIQUE_NAME, &asked) < 0)
            continue;
        const CredsHandle creds(asked);
        if (sd_bus_creds_get_unique_name(asked, &owner) >= 0)
            service.insert(owner);
    }
    char** names = nullptr;
    if (sd_bus_list_names(bus, &names, nullptr) < 0)
        return false;
    bool found = false;
    for (char** name = names; *name != nullptr; ++name) {
        found = found || ((*name)[0] == ':' && service.count(*name) == 0);
        std::free(*name);
    }
    std::free(names);
    return found;
}

} // namespace

TCServer::TCServer(const Role& role, bool keepRecords, const Playback* playback, const Replayed* replayed)
    : m_role(role), m_keepRecords(keepRecords), m_event(MakeEventLoop()), m_bus(OpenBus(m_event.get())),
      m_timers(m_event.get()), m_names(m_bus.get(), m_timers), m_pids(m_bus.get()), m_sessions(m_bus.get()),
      m_recorder(role.processName), m_emitter(m_event.get(), m_bus.get()),
      m_responder(m_event.get(), m_timers, m_names, m_sessions),
      m_control(
          {m_event.get(), m_bus.get(), m_names, m_responder, m_recorder, m_emitter, m_timers, m_sessions}) {
    for (const int signal : {SIGTERM, SIGINT}) {
        sd_event_source* source = nullptr;
        Check(sd_event_add_signal(m_event.get(), &source, signal, m_OnSignal, this), "watch a signal");
        m_signals.emplace_back(source);
        // Before the calls of the same turn: one that hangs would wait for a signal that has been taken up.
        Check(sd_event_source_set_priority(source, SD_EVENT_PRIORITY_IMPORTANT), "set a priority");
    }
    if (playback != nullptr) {
        m_player.emplace(*playback,
                         TCPlayer::Parts{role, m_event.get(), m_bus.get(), m_names, m_emitter, m_timers});
        m_responder.SetPlans([this](const Call& call) { return m_player->PlanFor(call); });
    }
    if (replayed != nullptr)
        m_replay.emplace(*replayed, m_bus.get(), m_emitter, m_timers);
    sd_bus_slot* slot = nullptr;
    Check(sd_bus_add_filter(m_bus.get(), &slot, m_OnMessage, this), "add a filter");
    m_filter.reset(slot);
}

void TCServer::TakeNames(bool isFirstTime) {
    if (m_player) {
        m_player->TakeNames(isFirstTime);
        m_player->Start();
        return;
    }
    m_names.TakeServiceNames(m_role);
    m_names.TakeControlName(m_role);
    if (m_replay && &m_role == &Roles().front())
        m_replay->Start();
}

int TCServer::Run() {
    const int exitCode = sd_event_loop(m_event.get());
    m_hasEnded = true;
    if ((m_player || m_replay) && m_wasAskedToEnd)
        m_ServeTheRest();
    return exitCode;
}

int TCServer::m_OnSignal(sd_event_source* source, const signalfd_siginfo*, void* self) {
    static_cast<TCServer*>(self)->m_wasAskedToEnd = true;
    return sd_event_exit(sd_event_source_get_event(source), 0);
}

// What others had sent before they left, or before they fell silent, counts: the bus takes it from them piece
// by piece, and an answer of the bus comes behind all that it has passed on before.
void TCServer::m_ServeTheRest() {
    const std::uint64_t end = MonotonicMs() + longestRestMs;
    for (int silent = 0; silent < mostSilentRounds && MonotonicMs() < end;) {
        const bool isAlone = !OthersAreOn(m_bus.get());
        const std::uint64_t before = m_calls;
        while (sd_bus_process(m_bus.get(), nullptr) > 0) {
        }
        silent = m_calls == before ? silent + 1 : 0;
        if (isAlone)
            return;
    }
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
        // Whose process id it was is none of what makes a call a recorded one.
        const auto pidOf = [this](const std::string& sender) {
            return m_replay ? std::nullopt : m_pids.PidOf(sender);
        };
        DecodeCall(message, m_role, pidOf, call);
        if (call.interface == sessionInterface && !m_replay)
            CheckSessionCall(call);
    } catch (const Refusal& refusal) {
        reason = refusal.what();
    }
    // Recorded before the answer, so that whoever has it finds the record.
    if (m_keepRecords)
        m_recorder.Add(call, reason);
    ++m_calls;
    if (m_player)
        m_player->Count(call, reason);
    // Nothing is played any more, a process that hangs least of all.
    if (m_player && m_hasEnded)
        return;
    if (m_replay)
        m_replay->Respond(message, call, reason);
    else if (reason.empty())
        m_responder.Respond(message, call);
    else
        m_responder.Refuse(message, call, reason);
}

} // namespace MavixSim
