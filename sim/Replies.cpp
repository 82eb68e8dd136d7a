#include "Replies.h"

#include "AuxBlock.h"
#include "CallDecoder.h"
#include "Clock.h"

#include "Hex.h"

#include <algorithm>
#include <cstring>

namespace MavixSim {

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::uint8_t wellFormed = 1;
constexpr int lengthLie = 1000;
// A bus disconnects who sends a message of more than 32 MiB.
constexpr std::int32_t largestBigReply = 24 * 1024 * 1024;

// Appends the arguments of a reply in their order.
class TCReplyWriter final {
public:
    explicit TCReplyWriter(sd_bus_message* request) {
        sd_bus_message* message = nullptr;
        Check(sd_bus_message_new_method_return(request, &message), "new reply");
        m_reply.reset(message);
    }

    TCReplyWriter& Byte(std::uint8_t value) { return m_Basic('y', &value); }
    TCReplyWriter& Int(std::int32_t value) { return m_Basic('i', &value); }
    TCReplyWriter& Text(const char* value) { return m_Basic('s', value); }
    TCReplyWriter& Array(const std::uint8_t* data, std::size_t size) {
        Check(sd_bus_message_append_array(m_reply.get(), 'y', data, size), "append bytes");
        return *this;
    }
    TCReplyWriter& LengthAndArray(const std::uint8_t* data, std::size_t size) {
        return Int(static_cast<std::int32_t>(size)).Array(data, size);
    }
    template <class... Values>
    TCReplyWriter& Other(const char* types, Values... values) {
        Check(sd_bus_message_append(m_reply.get(), types, values...), "append");
        return *this;
    }
    MessageHandle Finish() { return std::move(m_reply); }

private:
    TCReplyWriter& m_Basic(char type, const void* value) {
        Check(sd_bus_message_append_basic(m_reply.get(), type, value), "append");
        return *this;
    }

    MessageHandle m_reply;
};

Bytes AuxBlockOf(AuxVariant variant, std::uint64_t receivedMs) {
    Bytes block;
    if (variant == AuxVariant::UnknownTag)
        AppendAuxRecord(block, 64, {1, 2, 3});
    if (variant == AuxVariant::ShortValue)
        AppendAuxRecord(block, tagTimestampReceived, {1, 2, 3, 4});
    else if (variant != AuxVariant::SentOnly)
        AppendAuxTimestamp(block, tagTimestampReceived, receivedMs);
    if (variant == AuxVariant::EmptyValue)
        AppendAuxRecord(block, tagTimestampSent, {});
    else if (variant != AuxVariant::ReceivedOnly)
        AppendAuxTimestamp(block, tagTimestampSent, MonotonicMs());
    if (variant == AuxVariant::Truncated)
        block.resize(block.size() - 3);
    return block;
}

std::uint8_t AuxReplyByte(AuxVariant variant) {
    unsigned value = wellFormed;
    if (variant != AuxVariant::SentOnly)
        value |= tagTimestampReceived;
    if (variant != AuxVariant::ReceivedOnly)
        value |= tagTimestampSent;
    return static_cast<std::uint8_t>(value);
}

MessageHandle MakeAuxReply(TCReplyWriter writer, const Parameter& parameter, const Parameter& echoed,
                           std::uint64_t receivedMs) {
    const auto variant = static_cast<AuxVariant>(parameter.Variant());
    const Bytes block = AuxBlockOf(variant, receivedMs);
    writer.Byte(AuxReplyByte(variant)).LengthAndArray(echoed.data, echoed.size);
    if (variant == AuxVariant::WrongType)
        writer.Int(4).Text("text");
    else
        writer.LengthAndArray(block.data(), block.size());
    return writer.Finish();
}

MessageHandle MakeBrokenByteReply(TCReplyWriter writer, const Parameter& parameter,
                                  std::uint64_t receivedMs) {
    if (parameter.Variant() == 0)
        return writer.Byte(0).Finish();
    const Bytes block = AuxBlockOf(AuxVariant::Both, receivedMs);
    return writer.Byte(tagTimestampReceived | tagTimestampSent)
        .LengthAndArray(block.data(), block.size())
        .Finish();
}

MessageHandle MakeWrongTypesReply(TCReplyWriter writer, const Parameter& parameter, const Parameter& echoed) {
    switch (static_cast<WrongTypesVariant>(parameter.Variant())) {
    case WrongTypesVariant::TextForByte:
        return writer.Text("1").LengthAndArray(echoed.data, echoed.size).Finish();
    case WrongTypesVariant::IntForByte:
        return writer.Int(1).LengthAndArray(echoed.data, echoed.size).Finish();
    case WrongTypesVariant::ByteOnly:
        return writer.Byte(1).Finish();
    case WrongTypesVariant::NoPayload:
        return writer.Byte(1).Int(0).Finish();
    case WrongTypesVariant::TextPayload:
        return writer.Byte(1).Int(3).Text("one").Finish();
    case WrongTypesVariant::TextsPayload:
        return writer.Byte(1).Int(2).Other("as", 2, "one", "two").Finish();
    case WrongTypesVariant::IntsPayload:
        return writer.Byte(1).Int(8).Other("ai", 2, 0x01020304, 0x05060708).Finish();
    case WrongTypesVariant::VariantPayload:
        return writer.Byte(1).Int(4).Other("v", "i", 1).Finish();
    case WrongTypesVariant::PayloadForLength:
        return writer.Byte(1).Array(echoed.data, echoed.size).Finish();
    case WrongTypesVariant::TextForLength:
        return writer.Byte(1).Text("length").Array(echoed.data, echoed.size).Finish();
    case WrongTypesVariant::MoreArguments:
        return writer.Byte(1).LengthAndArray(echoed.data, echoed.size).Text("more").Finish();
    }
    throw Refusal("no variant " + std::to_string(parameter.Variant()));
}

MessageHandle MakeBigReply(TCReplyWriter writer, const Parameter& parameter) {
    const std::int32_t size = parameter.Number();
    if (size < 0 || size > largestBigReply)
        throw Refusal("a reply of " + std::to_string(size) + " bytes");
    Bytes payload(static_cast<std::size_t>(size));
    for (std::size_t i = 0; i < payload.size(); ++i)
        payload[i] = static_cast<std::uint8_t>(i);
    return writer.Byte(wellFormed).LengthAndArray(payload.data(), payload.size()).Finish();
}

// What is no text for a bus, as one.
std::string Printable(const std::string& bytes) {
    return MavixTraffic::ToPrintable(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
}

MessageHandle MakeErrorReply(sd_bus_message* request, Behaviour behaviour, const Parameter& parameter) {
    const std::string wanted = parameter.Text();
    const std::string given = wanted.empty() ? "com.norvale.Error.Refused\nRefused on request." : wanted;
    const std::size_t nameEnd = std::min(given.find('\n'), given.size());
    const std::string name = given.substr(0, nameEnd);
    if (sd_bus_interface_name_is_valid(name.c_str()) == 0)
        throw Refusal("'" + Printable(name) + "' cannot be the name of an error");
    MessageHandle error = NewError(request, name);
    const std::string text = nameEnd < given.size() ? &given[nameEnd + 1] : "";
    if (behaviour == Behaviour::ErrorIntText)
        Check(sd_bus_message_append(error.get(), "i", 7), "append");
    else if (behaviour == Behaviour::Error && sd_bus_message_append(error.get(), "s", text.c_str()) < 0)
        throw Refusal("'" + Printable(text) + "' cannot be the text of an error");
    return error;
}

} // namespace

std::int32_t Parameter::Number() const {
    std::int32_t value = 0;
    if (size >= sizeof value)
        std::memcpy(&value, data, sizeof value);
    return value;
}

std::uint8_t Parameter::Variant() const {
    return size > 0 ? data[0] : std::uint8_t{0};
}

std::string Parameter::Text() const {
    return size > 0 ? std::string(reinterpret_cast<const char*>(data), size) : std::string();
}

MessageHandle MakeReply(sd_bus_message* request, Behaviour behaviour, const Parameter& parameter,
                        const Parameter& echoed, std::uint64_t receivedMs) {
    TCReplyWriter writer(request);
    switch (behaviour) {
    case Behaviour::Echo:
    case Behaviour::Delay:
    case Behaviour::DropName:
        return writer.Byte(wellFormed).LengthAndArray(echoed.data, echoed.size).Finish();
    case Behaviour::Error:
    case Behaviour::ErrorNoText:
    case Behaviour::ErrorIntText:
        return MakeErrorReply(request, behaviour, parameter);
    case Behaviour::BrokenByte:
        return MakeBrokenByteReply(std::move(writer), parameter, receivedMs);
    case Behaviour::Aux:
        return MakeAuxReply(std::move(writer), parameter, echoed, receivedMs);
    case Behaviour::AuxAbsent:
        return writer.Byte(wellFormed | tagTimestampSent).LengthAndArray(echoed.data, echoed.size).Finish();
    case Behaviour::WrongTypes:
        return MakeWrongTypesReply(std::move(writer), parameter, echoed);
    case Behaviour::BigReply:
        return MakeBigReply(std::move(writer), parameter);
    case Behaviour::LengthLies:
        return writer.Byte(wellFormed)
            .Int(static_cast<std::int32_t>(echoed.size) + lengthLie)
            .Array(echoed.data, echoed.size)
            .Finish();
    case Behaviour::EmptyReturn:
        return writer.Finish();
    case Behaviour::Never:
    case Behaviour::Exit:
        return nullptr;
    }
    throw Refusal("no behaviour " + std::to_string(static_cast<int>(behaviour)));
}

MessageHandle NewError(sd_bus_message* request, const std::string& name) {
    // The function that makes errors insists on a text, so the error's own one is left out by hand.
    const sd_bus_error error = SD_BUS_ERROR_MAKE_CONST(name.c_str(), nullptr);
    sd_bus_message* message = nullptr;
    Check(sd_bus_message_new_method_error(request, &message, &error), "new error");
    return MessageHandle(message);
}

void SendReply(MessageHandle reply) {
    Check(sd_bus_send(nullptr, reply.get(), nullptr), "send a reply");
}

void SendError(sd_bus_message* request, const std::string& name, const std::string& text) {
    const sd_bus_error error = SD_BUS_ERROR_MAKE_CONST(name.c_str(), text.c_str());
    Check(sd_bus_reply_method_error(request, &error), "send an error");
}

} // namespace MavixSim
