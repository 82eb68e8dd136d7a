#include "Event.h"

#include <cerrno>
#include <map>
#include <stdexcept>

namespace MavixSim {

namespace {

MessageHandle MakeSignal(sd_bus* bus, const std::string& interface, const std::string& member,
                         const std::string& destination) {
    sd_bus_message* message = nullptr;
    Check(sd_bus_message_new_signal(bus, &message, signalPath, interface.c_str(), member.c_str()),
          "new signal");
    MessageHandle signal(message);
    if (!destination.empty())
        Check(sd_bus_message_set_destination(message, destination.c_str()), "set a destination");
    return signal;
}

void AppendText(sd_bus_message* message, const std::string& text) {
    Check(sd_bus_message_append_basic(message, 's', text.c_str()), "append a text");
}

void AppendBytes(sd_bus_message* message, const std::vector<std::uint8_t>& bytes) {
    Check(sd_bus_message_append_array(message, 'y', bytes.data(), bytes.size()), "append bytes");
}

void AppendHead(sd_bus_message* message, const Event& event) {
    AppendText(message, event.idText);
    // The bus compares a client's rule with argument 1, so the further argument repeats the handle.
    if (event.type->hasFurther)
        AppendText(message, HandleText(event));
    AppendText(message, HandleText(event));
}

using Body = void (*)(sd_bus_message*, const Event&);

struct RawKind {
    std::string interface = signalInterface;
    std::string member; // the type's when empty
    Body append;
};

void AppendNothing(sd_bus_message*, const Event&) {}

void AppendId(sd_bus_message* message, const Event& event) {
    AppendText(message, event.idText);
}

void AppendIntId(sd_bus_message* message, const Event& event) {
    Check(sd_bus_message_append(message, "i", 7), "append");
    AppendText(message, HandleText(event));
    AppendBytes(message, event.payload);
}

void AppendAll(sd_bus_message* message, const Event& event) {
    AppendHead(message, event);
    AppendBytes(message, event.payload);
}

void AppendTextPayload(sd_bus_message* message, const Event& event) {
    AppendHead(message, event);
    AppendText(message, "not bytes");
}

void AppendIntsPayload(sd_bus_message* message, const Event& event) {
    AppendHead(message, event);
    Check(sd_bus_message_append(message, "ai", 2, 0x01020304, 0x05060708), "append");
}

void AppendTextsPayload(sd_bus_message* message, const Event& event) {
    AppendHead(message, event);
    Check(sd_bus_message_append(message, "as", 2, "one", "two"), "append");
}

void AppendVariantPayload(sd_bus_message* message, const Event& event) {
    AppendHead(message, event);
    Check(sd_bus_message_append(message, "v", "i", 1), "append");
}

void AppendAllAndMore(sd_bus_message* message, const Event& event) {
    AppendAll(message, event);
    Check(sd_bus_message_append(message, "sa{sv}", "more", 0), "append");
}

const std::map<std::string, RawKind>& Kinds() {
    static const std::map<std::string, RawKind> kinds{
        {"text-id", {signalInterface, "", AppendAll}},
        {"no-arguments", {signalInterface, "", AppendNothing}},
        {"id-only", {signalInterface, "", AppendId}},
        {"int-id", {signalInterface, "", AppendIntId}},
        {"no-payload", {signalInterface, "", AppendHead}},
        {"text-payload", {signalInterface, "", AppendTextPayload}},
        {"ints-payload", {signalInterface, "", AppendIntsPayload}},
        {"texts-payload", {signalInterface, "", AppendTextsPayload}},
        {"variant-payload", {signalInterface, "", AppendVariantPayload}},
        {"more-arguments", {signalInterface, "", AppendAllAndMore}},
        {"unknown-member", {signalInterface, "NoSuchEvent", AppendAll}},
        {"other-interface", {"com.norvale.Mavix.OtherIFace", "", AppendAll}},
    };
    return kinds;
}

} // namespace

std::string HandleText(const Event& event) {
    return std::to_string((event.handleHigh << 16) | event.handleLow);
}

MessageHandle MakeEvent(sd_bus* bus, const Event& event) {
    MessageHandle signal = MakeSignal(bus, signalInterface, event.type->member, event.destination);
    AppendAll(signal.get(), event);
    return signal;
}

MessageHandle MakeRawEvent(sd_bus* bus, const std::string& kind, const Event& event) {
    const auto found = Kinds().find(kind);
    if (found == Kinds().end())
        throw std::invalid_argument("unknown kind of event '" + kind + "'");
    const RawKind& raw = found->second;
    MessageHandle signal = MakeSignal(
        bus, raw.interface, raw.member.empty() ? event.type->member : raw.member, event.destination);
    raw.append(signal.get(), event);
    return signal;
}

const std::vector<std::string>& RawEventKinds() {
    static const std::vector<std::string> names = [] {
        std::vector<std::string> all;
        for (const auto& [name, kind] : Kinds())
            all.push_back(name);
        return all;
    }();
    return names;
}

} // namespace MavixSim
