#include "RawClient.h"

#include <cerrno>
#include <cstring>
#include <ctime>

namespace MavixTest {

using MavixSim::Check;
using MavixSim::MessageHandle;
using MavixSim::SlotHandle;

namespace {

template <class T>
void AppendRaw(Bytes& bytes, T value) {
    const auto* raw = reinterpret_cast<const std::uint8_t*>(&value);
    bytes.insert(bytes.end(), raw, raw + sizeof value);
}

void AppendInt(sd_bus_message* message, std::int32_t value) {
    Check(sd_bus_message_append_basic(message, 'i', &value), "append");
}

void AppendBytes(sd_bus_message* message, const Bytes& bytes) {
    Check(sd_bus_message_append_array(message, 'y', bytes.data(), bytes.size()), "append");
}

void AppendLayout(sd_bus_message* message, const RawCall& call) {
    AppendInt(message, static_cast<std::int32_t>(call.header));
    AppendInt(message, call.size.value_or(static_cast<std::int32_t>(call.payload.size())));
    AppendInt(message, call.pid);
    if (call.programName)
        Check(sd_bus_message_append_basic(message, 's', call.programName->c_str()), "append");
    if (!call.payload.empty() || call.emptyPayloadArray)
        AppendBytes(message, call.payload);
    if (call.aux) {
        AppendInt(message, call.auxLength.value_or(static_cast<std::int32_t>(call.aux->size())));
        AppendBytes(message, *call.aux);
    }
    if (call.trailingText)
        Check(sd_bus_message_append_basic(message, 's', "trailing"), "append");
}

Bytes ReadBytes(sd_bus_message* message) {
    const void* bytes = nullptr;
    std::size_t size = 0;
    Check(sd_bus_message_read_array(message, 'y', &bytes, &size), "read bytes");
    const auto* first = static_cast<const std::uint8_t*>(bytes);
    return {first, first + size};
}

std::string Text(const char* text) {
    return text != nullptr ? text : "";
}

} // namespace

Bytes IntBytes(std::int32_t value) {
    Bytes bytes;
    AppendRaw(bytes, value);
    return bytes;
}

Bytes TextBytes(const std::string& text) {
    return {text.begin(), text.end()};
}

std::uint32_t Header(int code, unsigned flags) {
    return flags << 16 | static_cast<std::uint32_t>(code);
}

RawCall TestCall(MavixSim::Behaviour behaviour, const Bytes& payload) {
    RawCall call;
    call.interface = MavixSim::testInterface;
    call.header = Header(static_cast<int>(behaviour));
    call.payload = payload;
    return call;
}

Bytes AuxRecord(std::uint32_t tag, const Bytes& value) {
    Bytes record;
    AppendRaw(record, tag);
    AppendRaw(record, static_cast<std::uint32_t>(value.size()));
    record.insert(record.end(), value.begin(), value.end());
    return record;
}

Bytes AuxTimestamp(std::uint32_t tag, std::uint64_t milliseconds) {
    Bytes value;
    AppendRaw(value, milliseconds);
    return AuxRecord(tag, value);
}

std::uint64_t NowMs() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000 + static_cast<std::uint64_t>(now.tv_nsec) / 1000000;
}

std::string RawReply::Signature() const {
    return Text(sd_bus_message_get_signature(message.get(), 1));
}

std::uint8_t RawReply::TakeByte() const {
    std::uint8_t value = 0;
    Check(sd_bus_message_read_basic(message.get(), 'y', &value), "read a byte");
    return value;
}

std::int32_t RawReply::TakeInt() const {
    std::int32_t value = 0;
    Check(sd_bus_message_read_basic(message.get(), 'i', &value), "read an int32");
    return value;
}

Bytes RawReply::TakeBytes() const {
    return ReadBytes(message.get());
}

TCRawClient::TCRawClient(const std::string& address) {
    sd_bus* created = nullptr;
    Check(sd_bus_new(&created), "new connection");
    m_bus.reset(created);
    Check(sd_bus_set_address(created, address.c_str()), "set the address");
    Check(sd_bus_set_bus_client(created, 1), "be a client");
    Check(sd_bus_start(created), "connect");
}

std::string TCRawClient::UniqueName() const {
    const char* name = nullptr;
    Check(sd_bus_get_unique_name(m_bus.get(), &name), "ask for the unique name");
    return name;
}

MessageHandle TCRawClient::MakeCall(const RawCall& call) const {
    sd_bus_message* created = nullptr;
    Check(sd_bus_message_new_method_call(m_bus.get(), &created, call.destination.c_str(), call.path.c_str(),
                                         call.interface ? call.interface->c_str() : nullptr,
                                         call.member.c_str()),
          "new call");
    MessageHandle message(created);
    Check(sd_bus_message_set_expect_reply(created, call.noReply ? 0 : 1), "set the no-reply flag");
    if (call.body)
        call.body(created);
    else
        AppendLayout(created, call);
    return message;
}

RawReply TCRawClient::Call(const RawCall& call, std::chrono::milliseconds limit) {
    return CallMessage(MakeCall(call), limit);
}

RawReply TCRawClient::CallMessage(const MessageHandle& message, std::chrono::milliseconds limit) {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    const auto limitUs = static_cast<std::uint64_t>(std::chrono::microseconds(limit).count());
    RawReply result;
    if (sd_bus_call(m_bus.get(), message.get(), limitUs, &error, &reply) < 0) {
        result.errorName = Text(error.name);
        result.errorText = Text(error.message);
    }
    result.message.reset(reply);
    sd_bus_error_free(&error);
    return result;
}

void TCRawClient::Send(const RawCall& call) {
    Check(sd_bus_send(m_bus.get(), MakeCall(call).get(), nullptr), "send");
    Check(sd_bus_flush(m_bus.get()), "flush");
}

void TCRawClient::Emit(const RawSignal& signal) {
    sd_bus_message* created = nullptr;
    Check(sd_bus_message_new_signal(m_bus.get(), &created, signal.path.c_str(), signal.interface.c_str(),
                                    signal.member.c_str()),
          "new signal");
    const MessageHandle message(created);
    if (!signal.destination.empty())
        Check(sd_bus_message_set_destination(created, signal.destination.c_str()), "set a destination");
    for (const std::string& text : signal.texts)
        Check(sd_bus_message_append_basic(created, 's', text.c_str()), "append");
    if (!signal.payload.empty())
        AppendBytes(created, signal.payload);
    Check(sd_bus_send(m_bus.get(), created, nullptr), "send");

    // The bus handles a connection's messages in their order.
    RawCall ask;
    ask.destination = ask.interface.emplace("org.freedesktop.DBus");
    ask.path = "/org/freedesktop/DBus";
    ask.member = "GetId";
    ask.body = [](sd_bus_message*) {};
    Call(ask);
}

void TCRawClient::Subscribe(const std::string& rule) {
    sd_bus_slot* slot = nullptr;
    Check(sd_bus_add_match(m_bus.get(), &slot, rule.c_str(), m_OnSignal, this), "add a match");
    m_slots.emplace_back(slot);
}

void TCRawClient::KeepUnicast() {
    sd_bus_slot* slot = nullptr;
    const auto filter = [](sd_bus_message* message, void* self, sd_bus_error* error) {
        return sd_bus_message_get_destination(message) != nullptr &&
                       sd_bus_message_is_signal(message, nullptr, nullptr)
                   ? m_OnSignal(message, self, error)
                   : 0;
    };
    Check(sd_bus_add_filter(m_bus.get(), &slot, filter, this), "add a filter");
    m_slots.emplace_back(slot);
}

int TCRawClient::m_OnSignal(sd_bus_message* message, void* self, sd_bus_error*) {
    RawEvent event;
    event.path = Text(sd_bus_message_get_path(message));
    event.interface = Text(sd_bus_message_get_interface(message));
    event.member = Text(sd_bus_message_get_member(message));
    event.signature = Text(sd_bus_message_get_signature(message, 1));
    const char* text = nullptr;
    while (sd_bus_message_peek_type(message, nullptr, nullptr) > 0 &&
           sd_bus_message_read_basic(message, 's', &text) > 0)
        event.texts.emplace_back(text);
    if (sd_bus_message_verify_type(message, 'a', "y") > 0)
        event.payload = ReadBytes(message);
    static_cast<TCRawClient*>(self)->m_events.push_back(std::move(event));
    return 0;
}

std::optional<RawEvent> TCRawClient::NextEvent(std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (m_nextEvent == m_events.size()) {
        const int processed = Check(sd_bus_process(m_bus.get(), nullptr), "process");
        if (processed > 0)
            continue;
        const auto left =
            std::chrono::duration_cast<std::chrono::microseconds>(end - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            return std::nullopt;
        Check(sd_bus_wait(m_bus.get(), static_cast<std::uint64_t>(left.count())), "wait");
    }
    RawEvent event = std::move(m_events[m_nextEvent++]);
    if (m_nextEvent == m_events.size()) {
        m_events.clear();
        m_nextEvent = 0;
    }
    return event;
}

int TCRawClient::RequestName(const std::string& name) {
    return std::min(sd_bus_request_name(m_bus.get(), name.c_str(), 0), 0);
}

} // namespace MavixTest
