#include "Control.h"

#include "ArgumentReader.h"

#include <nlohmann/json.hpp>
#include <unistd.h>

namespace MavixSim {

namespace {

void ReplyEmpty(sd_bus_message* message) {
    Check(sd_bus_reply_method_return(message, ""), "reply");
}

void ReplyText(sd_bus_message* message, const std::string& text) {
    Check(sd_bus_reply_method_return(message, "s", text.c_str()), "reply");
}

const EventType* KnownType(const std::string& text) {
    const EventType* type = FindEventType(text);
    if (type == nullptr)
        throw std::invalid_argument("unknown type of event '" + text + "'");
    return type;
}

} // namespace

TCControl::TCControl(const Parts& parts) : m_parts(parts) {
    sd_bus_slot* slot = nullptr;
    Check(sd_bus_add_object_vtable(parts.bus, &slot, controlPath, controlInterface, m_Methods(), this),
          "add the control interface");
    m_slot.reset(slot);
}

template <void (TCControl::*Method)(sd_bus_message*)>
int TCControl::m_Handle(sd_bus_message* message, void* self, sd_bus_error* error) {
    try {
        (static_cast<TCControl*>(self)->*Method)(message);
        return 1;
    } catch (const std::exception& failure) {
        return sd_bus_error_set(error, "com.norvale.Sim.Error.Failed", failure.what());
    }
}

const sd_bus_vtable* TCControl::m_Methods() {
#define MAVIX_SIM_METHOD(name, in, inNames, out, outNames)                                                   \
    SD_BUS_METHOD_WITH_NAMES(#name, in, inNames, out, outNames, m_Handle<&TCControl::m_##name>,              \
                             SD_BUS_VTABLE_UNPRIVILEGED)
    static const sd_bus_vtable methods[] = {
        SD_BUS_VTABLE_START(0),
        MAVIX_SIM_METHOD(Emit, "siuuays",
                         SD_BUS_PARAM(type) SD_BUS_PARAM(id) SD_BUS_PARAM(handleHigh) SD_BUS_PARAM(handleLow)
                             SD_BUS_PARAM(payload) SD_BUS_PARAM(destination),
                         "", ""),
        MAVIX_SIM_METHOD(EmitBurst, "siuuuuus",
                         SD_BUS_PARAM(type) SD_BUS_PARAM(id) SD_BUS_PARAM(handleHigh) SD_BUS_PARAM(handleLow)
                             SD_BUS_PARAM(start) SD_BUS_PARAM(count) SD_BUS_PARAM(size)
                                 SD_BUS_PARAM(destination),
                         "", ""),
        MAVIX_SIM_METHOD(EmitRaw, "sssuuays",
                         SD_BUS_PARAM(kind) SD_BUS_PARAM(type) SD_BUS_PARAM(idText) SD_BUS_PARAM(handleHigh)
                             SD_BUS_PARAM(handleLow) SD_BUS_PARAM(payload) SD_BUS_PARAM(destination),
                         "", ""),
        MAVIX_SIM_METHOD(RawKinds, "", "", "as", SD_BUS_PARAM(kinds)),
        MAVIX_SIM_METHOD(Records, "", "", "s", SD_BUS_PARAM(lines)),
        MAVIX_SIM_METHOD(RecordsFrom, "t", SD_BUS_PARAM(first), "s", SD_BUS_PARAM(lines)),
        MAVIX_SIM_METHOD(ClearRecords, "", "", "", ""),
        MAVIX_SIM_METHOD(Stats, "", "", "s", SD_BUS_PARAM(json)),
        MAVIX_SIM_METHOD(DropName, "s", SD_BUS_PARAM(name), "", ""),
        MAVIX_SIM_METHOD(TakeName, "s", SD_BUS_PARAM(name), "", ""),
        MAVIX_SIM_METHOD(SetDelay, "u", SD_BUS_PARAM(milliseconds), "", ""),
        MAVIX_SIM_METHOD(SetReply, "snnay",
                         SD_BUS_PARAM(interface) SD_BUS_PARAM(code) SD_BUS_PARAM(behaviour)
                             SD_BUS_PARAM(parameter),
                         "", ""),
        MAVIX_SIM_METHOD(ClearReplies, "", "", "", ""),
        MAVIX_SIM_METHOD(Exit, "i", SD_BUS_PARAM(code), "", ""),
        SD_BUS_VTABLE_END,
    };
#undef MAVIX_SIM_METHOD
    return methods;
}

void TCControl::m_Emit(sd_bus_message* message) {
    TCArgumentReader arguments(message);
    Event event;
    event.type = KnownType(arguments.Text());
    event.idText = std::to_string(arguments.Number<std::int32_t>());
    event.handleHigh = arguments.Number<std::uint32_t>();
    event.handleLow = arguments.Number<std::uint32_t>();
    event.payload = arguments.Bytes();
    event.destination = arguments.Text();
    m_parts.emitter.EmitOne(MakeEvent(m_parts.bus, event).get());
    ReplyEmpty(message);
}

void TCControl::m_EmitBurst(sd_bus_message* message) {
    TCArgumentReader arguments(message);
    Event event;
    event.type = KnownType(arguments.Text());
    event.idText = std::to_string(arguments.Number<std::int32_t>());
    event.handleHigh = arguments.Number<std::uint32_t>();
    event.handleLow = arguments.Number<std::uint32_t>();
    const auto start = arguments.Number<std::uint32_t>();
    const auto count = arguments.Number<std::uint32_t>();
    event.payload.resize(arguments.Number<std::uint32_t>());
    event.destination = arguments.Text();
    const std::shared_ptr<sd_bus_message> held(sd_bus_message_ref(message), sd_bus_message_unref);
    m_parts.emitter.Start(event, start, count, [held] { ReplyEmpty(held.get()); });
}

void TCControl::m_EmitRaw(sd_bus_message* message) {
    TCArgumentReader arguments(message);
    const std::string kind = arguments.Text();
    Event event;
    event.type = KnownType(arguments.Text());
    event.idText = arguments.Text();
    event.handleHigh = arguments.Number<std::uint32_t>();
    event.handleLow = arguments.Number<std::uint32_t>();
    event.payload = arguments.Bytes();
    event.destination = arguments.Text();
    m_parts.emitter.EmitOne(MakeRawEvent(m_parts.bus, kind, event).get());
    ReplyEmpty(message);
}

void TCControl::m_RawKinds(sd_bus_message* message) {
    sd_bus_message* created = nullptr;
    Check(sd_bus_message_new_method_return(message, &created), "new reply");
    const MessageHandle reply(created);
    Check(sd_bus_message_open_container(created, 'a', "s"), "append");
    for (const std::string& kind : RawEventKinds())
        Check(sd_bus_message_append_basic(created, 's', kind.c_str()), "append");
    Check(sd_bus_message_close_container(created), "append");
    Check(sd_bus_send(nullptr, created, nullptr), "reply");
}

void TCControl::m_Records(sd_bus_message* message) {
    ReplyText(message, m_parts.recorder.Lines(0));
}

void TCControl::m_RecordsFrom(sd_bus_message* message) {
    ReplyText(message, m_parts.recorder.Lines(TCArgumentReader(message).Number<std::uint64_t>()));
}

void TCControl::m_ClearRecords(sd_bus_message* message) {
    m_parts.recorder.Clear();
    m_parts.sessions.ClearCounters();
    ReplyEmpty(message);
}

void TCControl::m_Stats(sd_bus_message* message) {
    nlohmann::json stats = m_parts.recorder.Counters();
    stats["pid"] = ::getpid();
    stats["names"] = m_parts.names.Owned();
    stats["waiting"] = m_parts.timers.Waiting();
    stats["eventsEmitted"] = m_parts.emitter.Emitted();
    stats["sessions"] = m_parts.sessions.Counters();
    ReplyText(message, stats.dump());
}

void TCControl::m_DropName(sd_bus_message* message) {
    m_parts.names.Drop(TCArgumentReader(message).Text());
    ReplyEmpty(message);
}

void TCControl::m_TakeName(sd_bus_message* message) {
    m_parts.names.Take(TCArgumentReader(message).Text());
    ReplyEmpty(message);
}

void TCControl::m_SetDelay(sd_bus_message* message) {
    m_parts.responder.SetDelay(TCArgumentReader(message).Number<std::uint32_t>());
    ReplyEmpty(message);
}

void TCControl::m_SetReply(sd_bus_message* message) {
    TCArgumentReader arguments(message);
    const std::string interface = arguments.Text();
    const auto code = arguments.Number<std::int16_t>();
    const auto behaviour = arguments.Number<std::int16_t>();
    if (behaviour < 0 || behaviour >= behaviourCount)
        throw std::invalid_argument("no behaviour " + std::to_string(behaviour));
    m_parts.responder.SetReply(interface, code, static_cast<Behaviour>(behaviour), arguments.Bytes());
    ReplyEmpty(message);
}

void TCControl::m_ClearReplies(sd_bus_message* message) {
    m_parts.responder.ClearReplies();
    ReplyEmpty(message);
}

void TCControl::m_Exit(sd_bus_message* message) {
    const auto code = TCArgumentReader(message).Number<std::int32_t>();
    ReplyEmpty(message);
    Check(sd_event_exit(m_parts.event, code), "exit");
}

} // namespace MavixSim
