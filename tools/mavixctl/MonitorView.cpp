#include "MonitorView.h"

#include "Hex.h"

#include <algorithm>
#include <charconv>
#include <ctime>
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <fmt/ranges.h>

namespace MavixControl {

using MavixTraffic::Kind;
using MavixTraffic::Message;
using MavixTraffic::TimeSplit;
using MavixTraffic::WaitingCall;

namespace {

constexpr std::size_t bytesShown = 64;
constexpr std::int64_t microsecondsASecond = 1'000'000;

std::int64_t OffsetUs() {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<std::int64_t>(now.tv_sec) * microsecondsASecond + now.tv_nsec / 1000 -
           static_cast<std::int64_t>(MavixTraffic::MonotonicUs());
}

template <class T>
Json OrNull(const std::optional<T>& value) {
    return value ? Json(*value) : Json(nullptr);
}

Json OrNull(const std::string& text) {
    return text.empty() ? Json(nullptr) : Json(text);
}

std::vector<std::string> FlagNames(unsigned int flags) {
    std::vector<std::string> names;
    unsigned int known = 0;
    for (const auto& [bit, name] : {std::pair{1U, "no-reply"}, {2U, "first-call"}, {4U, "timestamp-sent"}}) {
        known |= bit;
        if ((flags & bit) != 0)
            names.emplace_back(name);
    }
    if ((flags & ~known) != 0)
        names.push_back(fmt::format("{:#x}", flags & ~known));
    return names;
}

// As clients understand it: a number with whatever behind it; none when there is no number that fits.
std::optional<std::int32_t> IdOf(const std::string& text) {
    const char* first = text.data();
    const char* last = first + text.size();
    while (first != last && std::isspace(static_cast<unsigned char>(*first)) != 0)
        ++first;
    if (last - first > 1 && *first == '+' && first[1] != '-')
        ++first;
    std::int32_t id = 0;
    return std::from_chars(first, last, id).ec == std::errc() ? std::optional(id) : std::nullopt;
}

std::string ProcessText(const TSProcess& process) {
    if (process.pid == 0)
        return "";
    std::string text = fmt::format(" {}[{}]", Printable(process.name), process.pid);
    if (!process.unit.empty())
        text += fmt::format(" ({})", Printable(process.unit));
    return text;
}

std::string Milliseconds(std::uint64_t microseconds) {
    return fmt::format("{}.{:03}", microseconds / 1000, microseconds % 1000);
}

Json ProcessObject(const TSProcess& process) {
    if (process.pid == 0)
        return nullptr;
    return {{"pid", process.pid}, {"name", OrNull(process.name)}, {"unit", OrNull(process.unit)}};
}

std::string CodeText(const std::optional<std::int16_t>& code) {
    return code ? std::to_string(*code) : "?";
}

void AddSplit(Json& object, const TimeSplit& split) {
    object["totalUs"] = split.totalUs;
    object["startsAt"] = split.startsAtClient ? "client" : "monitor";
    object["wayOutUs"] = OrNull(split.wayOutUs);
    object["serviceUs"] = OrNull(split.serviceUs);
    object["wayBackUs"] = OrNull(split.wayBackUs);
}

std::string SplitText(const TimeSplit& split) {
    std::string text = Milliseconds(split.totalUs) + " ms";
    if (split.serviceUs)
        text += fmt::format(": way out {}, service {}, way back {}", Milliseconds(*split.wayOutUs),
                            Milliseconds(*split.serviceUs), Milliseconds(*split.wayBackUs));
    return text;
}

} // namespace

TCMonitorView::TCMonitorView(bool asJson, bool wholePayloads)
    : m_asJson(asJson), m_wholePayloads(wholePayloads), m_offsetUs(OffsetUs()) {}

std::string TCMonitorView::m_Time(std::uint64_t atUs) {
    const std::int64_t us = static_cast<std::int64_t>(atUs) + m_offsetUs;
    const std::int64_t second = us / microsecondsASecond;
    if (second != m_second) {
        m_second = second;
        m_secondText = m_asJson ? fmt::format("{:%FT%T}", fmt::gmtime(second))
                                : fmt::format("{:%T}", fmt::localtime(second));
    }
    return fmt::format("{}.{:06}{}", m_secondText, us % microsecondsASecond, m_asJson ? "Z" : "");
}

Json TCMonitorView::m_NewObject(const char* kind, std::uint64_t atUs, const Context& context) {
    Json object{{"number", context.number}, {"time", m_Time(atUs)}, {"atUs", atUs}, {"kind", kind}};
    if (context.sender != nullptr)
        object["process"] = ProcessObject(*context.sender);
    return object;
}

void TCMonitorView::m_AddMessage(Json& object, const Message& message) const {
    object["sender"] = OrNull(message.sender);
    object["destination"] = OrNull(message.destination);
    object["serial"] = message.serial;
    object["signature"] = message.signature;
    object["deviation"] = OrNull(message.deviation);
}

void TCMonitorView::m_AddPayload(Json& object, const Message& message) const {
    const std::size_t shown =
        m_wholePayloads ? message.payloadSize : std::min(message.payloadSize, bytesShown);
    object["size"] = message.payloadSize;
    object["payload"] = MavixTraffic::ToHex(message.payload, shown);
    object["text"] = MavixTraffic::ToPrintable(message.payload, shown);
    object["cut"] = shown < message.payloadSize;
}

std::string TCMonitorView::m_Head(const char* kind, std::uint64_t atUs, const Context& context) {
    return fmt::format("{} #{} {}", Paint(EColour::Faint, m_Time(atUs)), context.number,
                       Paint(EColour::Name, kind));
}

void TCMonitorView::m_AppendEnd(std::string& text, const Message& message) const {
    if (!message.deviation.empty())
        text += "\n    " + Paint(EColour::Bad, "deviates") + ": " + Printable(message.deviation);
    if (message.payload != nullptr || message.payloadSize > 0) {
        const std::size_t shown =
            m_wholePayloads ? message.payloadSize : std::min(message.payloadSize, bytesShown);
        text += fmt::format("\n    payload, {} bytes{}\n", message.payloadSize,
                            shown < message.payloadSize ? fmt::format(", of which {} are shown", shown) : "");
        MavixTraffic::AppendDump(text, message.payload, shown, "      ", Faint);
        text.pop_back();
    }
    PrintLine(text);
}

void TCMonitorView::PrintCall(const Message& message, const Context& context) {
    const MavixSim::Call& call = message.call;
    if (m_asJson) {
        Json object = m_NewObject("call", message.atUs, context);
        m_AddMessage(object, message);
        object["path"] = OrNull(message.path);
        object["interface"] = OrNull(message.interface);
        object["member"] = OrNull(message.member);
        object["header"] = call.header ? Json(static_cast<std::uint32_t>(*call.header)) : Json(nullptr);
        object["code"] = call.header ? Json(call.Code()) : Json(nullptr);
        object["flags"] = call.FlagsKnown() ? Json(call.Flags()) : Json(nullptr);
        object["flagNames"] = call.FlagsKnown() ? Json(FlagNames(call.Flags())) : Json(nullptr);
        object["noReply"] = call.noReply;
        object["pid"] = OrNull(call.pid);
        object["programName"] = OrNull(call.programName);
        object["timestampSent"] = OrNull(call.timestampSent);
        m_AddPayload(object, message);
        PrintJson(object);
        return;
    }
    const auto code = call.header ? std::optional(call.Code()) : std::nullopt;
    std::string text =
        fmt::format("{} {} {} to {}", m_Head("call", message.atUs, context), Printable(message.interface),
                    CodeText(code), Printable(message.destination));
    text += fmt::format("\n    from {}{}, serial {}", message.sender, ProcessText(*context.sender),
                        message.serial);
    if (call.header)
        text += fmt::format("\n    header {:#010x}", static_cast<std::uint32_t>(*call.header));
    if (call.FlagsKnown())
        text += fmt::format(", flags {:#x}", call.Flags());
    if (call.FlagsKnown() && call.Flags() != 0)
        text += fmt::format(" {}", fmt::join(FlagNames(call.Flags()), "|"));
    if (call.noReply)
        text += ", wants no reply";
    if (call.pid)
        text += fmt::format(", process id {}", *call.pid);
    if (call.programName)
        text += fmt::format(", program {}", Printable(*call.programName));
    if (call.timestampSent)
        text += fmt::format("\n    sent at {} ms", *call.timestampSent);
    m_AppendEnd(text, message);
}

void TCMonitorView::PrintReply(const Message& message, const WaitingCall& call, const Context& context) {
    const bool isError = message.kind == Kind::Error;
    const MavixTraffic::ReplyPart& reply = message.reply;
    const TimeSplit split = MavixTraffic::SplitTime(call, message);
    if (m_asJson) {
        Json object = m_NewObject(MavixTraffic::KindName(message.kind), message.atUs, context);
        m_AddMessage(object, message);
        object["call"] = call.number;
        object["interface"] = OrNull(call.interface);
        object["code"] = OrNull(call.code);
        if (isError) {
            object["name"] = reply.errorName;
            object["errorText"] = OrNull(reply.errorText);
        } else {
            object["value"] = OrNull(reply.value);
            object["length"] = OrNull(reply.length);
            object["timestampReceived"] = OrNull(reply.timestampReceived);
            object["timestampSent"] = OrNull(reply.timestampSent);
            m_AddPayload(object, message);
        }
        AddSplit(object, split);
        PrintJson(object);
        return;
    }
    std::string text = fmt::format(
        "{} to #{} {} {} in {}", m_Head(MavixTraffic::KindName(message.kind), message.atUs, context),
        call.number, Printable(call.interface), CodeText(call.code), SplitText(split));
    text += fmt::format("\n    from {}{}", message.sender, ProcessText(*context.sender));
    if (isError)
        text += fmt::format("\n    {}: {}", Paint(EColour::Bad, Printable(reply.errorName)),
                            reply.errorText ? Printable(*reply.errorText) : "(without a text)");
    if (reply.value)
        text += fmt::format(", reply byte {:#04x}", *reply.value);
    if (reply.timestampReceived)
        text += fmt::format(", received at {} ms", *reply.timestampReceived);
    if (reply.timestampSent)
        text += fmt::format(", sent at {} ms", *reply.timestampSent);
    m_AppendEnd(text, message);
}

void TCMonitorView::PrintEvent(const Message& message, const Context& context) {
    const MavixTraffic::EventPart& event = message.event;
    const std::optional<std::int32_t> id = IdOf(event.idText);
    if (m_asJson) {
        Json object = m_NewObject("event", message.atUs, context);
        m_AddMessage(object, message);
        object["path"] = message.path;
        object["interface"] = message.interface;
        object["type"] = message.member;
        object["typeNumber"] =
            event.type != nullptr ? Json(event.type - MavixSim::eventTypes.data()) : Json(nullptr);
        object["id"] = OrNull(id);
        object["idText"] = event.idText;
        object["furtherText"] = OrNull(event.furtherText);
        object["handleText"] = OrNull(event.handleText);
        m_AddPayload(object, message);
        PrintJson(object);
        return;
    }
    std::string text = fmt::format("{} {} id {}", m_Head("event", message.atUs, context),
                                   Printable(message.member), id ? std::to_string(*id) : "?");
    if (!id || std::to_string(*id) != event.idText)
        text += fmt::format(" '{}'", Printable(event.idText));
    if (event.handleText)
        text += fmt::format(", handle {}", Printable(*event.handleText));
    if (event.furtherText)
        text += fmt::format(", further {}", Printable(*event.furtherText));
    text += fmt::format("\n    from {}{}", message.sender, ProcessText(*context.sender));
    if (!message.destination.empty())
        text += fmt::format(" to {} alone", message.destination);
    m_AppendEnd(text, message);
}

void TCMonitorView::PrintOwner(const Message& message, const Context& context) {
    const MavixTraffic::OwnerPart& owner = message.owner;
    if (m_asJson) {
        Json object = m_NewObject("owner", message.atUs, context);
        object["name"] = owner.name;
        object["oldOwner"] = OrNull(owner.oldOwner);
        object["newOwner"] = OrNull(owner.newOwner);
        PrintJson(object);
        return;
    }
    const std::string head = m_Head("owner", message.atUs, context);
    PrintLine(owner.newOwner.empty() ? fmt::format("{} {} has none, was {}", head, owner.name, owner.oldOwner)
                                     : fmt::format("{} {} is {}{}", head, owner.name, owner.newOwner,
                                                   ProcessText(*context.sender)));
}

void TCMonitorView::PrintTimeOut(const WaitingCall& call, std::uint64_t nowUs, const Context& context) {
    const std::uint64_t waitedUs = nowUs > call.atUs ? nowUs - call.atUs : 0;
    if (m_asJson) {
        Json object = m_NewObject("timeout", nowUs, context);
        object["call"] = call.number;
        object["sender"] = call.sender;
        object["destination"] = call.destination;
        object["interface"] = OrNull(call.interface);
        object["code"] = OrNull(call.code);
        object["waitedUs"] = waitedUs;
        PrintJson(object);
        return;
    }
    PrintLine(fmt::format("{} #{} {} {} has no reply after {} ms", m_Head("timeout", nowUs, context),
                          call.number, Printable(call.interface), CodeText(call.code),
                          Milliseconds(waitedUs)));
}

} // namespace MavixControl
