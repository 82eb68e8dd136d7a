#include "Payload.h"

#include "Hex.h"
#include "Numbers.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <limits>
#include <memory>
#include <unistd.h>

namespace MavixControl {

namespace {

using MavixApiLite::TCMessageBuffer;

// Widths in bytes; 0 for what is no number.
unsigned int WidthOf(std::string_view type) {
    if (type == "c")
        return 1;
    if (type == "s")
        return 2;
    if (type == "i")
        return 4;
    return type == "l" ? 8 : 0;
}

[[noreturn]] void Complain(const std::string& argumentName, const std::string& text) {
    throw CLI::ValidationError(argumentName, text);
}

void CheckSize(const std::string& argumentName, std::size_t size) {
    if (size > largestPayload)
        Complain(argumentName, fmt::format("the payload is larger than the {} bytes that a call can carry",
                                           largestPayload));
}

void PushBytes(TCMessageBuffer& payload, const std::string& argumentName, std::string_view bytes) {
    // Before the bytes are kept: files may have no end.
    CheckSize(argumentName, payload.PayloadSize() + bytes.size());
    payload.PushConcatenated(bytes.size(), bytes.data());
}

void PushNumber(TCMessageBuffer& payload, const std::string& argumentName, const std::string& value,
                unsigned int width) {
    const unsigned int bits = width * 8;
    const std::optional<std::uint64_t> number =
        MavixTraffic::ParseField(std::string_view(value).substr(2), bits);
    if (!number)
        Complain(argumentName, fmt::format("'{}' is not a whole number of {} bits, from {} to {}", value,
                                           bits, std::numeric_limits<std::int64_t>::min() >> (64U - bits),
                                           ~std::uint64_t{0} >> (64U - bits)));
    // Little endian or big, the number's low bytes are where a number of that width has them.
    switch (width) {
    case 1:
        payload.PushChar(static_cast<char>(*number));
        break;
    case 2:
        payload.PushShort(static_cast<short>(*number));
        break;
    case 4:
        payload.PushInt(static_cast<int>(*number));
        break;
    default:
        payload.PushLongLong(static_cast<long long>(*number));
    }
}

void PushHex(TCMessageBuffer& payload, const std::string& argumentName, const std::string& value) {
    const auto bytes = MavixTraffic::FromTypedHex(std::string_view(value).substr(std::strlen("hex:")));
    if (!bytes)
        Complain(argumentName, fmt::format("'{}' is not made of two hexadecimal digits a byte", value));
    PushBytes(payload, argumentName, {reinterpret_cast<const char*>(bytes->data()), bytes->size()});
}

void PushFile(TCMessageBuffer& payload, const std::string& argumentName, const std::string& value) {
    const bool isInput = value == "-";
    const int file = isInput ? ::dup(STDIN_FILENO) : ::open(value.c_str() + 1, O_RDONLY | O_CLOEXEC);
    const auto close = [](const int* open) { ::close(*open); };
    const std::unique_ptr<const int, decltype(close)> owned(&file, close);
    std::vector<char> chunk(1U << 16U);
    ssize_t count = file;
    while (count >= 0 && (count = ::read(file, chunk.data(), chunk.size())) > 0)
        PushBytes(payload, argumentName, {chunk.data(), static_cast<std::size_t>(count)});
    if (count < 0)
        Complain(argumentName, fmt::format("'{}' cannot be read: {}", value, std::strerror(errno)));
}

template <class T>
std::int64_t NumberIn(std::string_view bytes) {
    T number{};
    std::memcpy(&number, bytes.data(), sizeof number);
    return number;
}

Json ReadNumber(std::string_view bytes) {
    switch (bytes.size()) {
    case 1:
        return NumberIn<std::int8_t>(bytes);
    case 2:
        return NumberIn<std::int16_t>(bytes);
    case 4:
        return NumberIn<std::int32_t>(bytes);
    default:
        return NumberIn<std::int64_t>(bytes);
    }
}

const std::uint8_t* Bytes(std::string_view text) {
    return reinterpret_cast<const std::uint8_t*>(text.data());
}

} // namespace

void AppendValue(TCMessageBuffer& payload, const std::string& argumentName, const std::string& value) {
    const std::string type = value.substr(0, value.find(':'));
    const bool hasType = type.size() < value.size();
    const std::string text = hasType ? value.substr(type.size() + 1) : "";
    const unsigned int width = hasType ? WidthOf(type) : 0;
    if (value == "-" || value[0] == '@') {
        PushFile(payload, argumentName, value);
    } else if (width != 0) {
        PushNumber(payload, argumentName, value, width);
    } else if (hasType && type == "str") {
        payload.PushInt(static_cast<int>(text.size()));
        PushBytes(payload, argumentName, text);
    } else if (hasType && type == "strz") {
        PushBytes(payload, argumentName, {text.c_str(), text.size() + 1});
    } else if (hasType && type == "hex") {
        PushHex(payload, argumentName, value);
    } else {
        Complain(argumentName,
                 fmt::format("'{}' is none of c:, s:, i:, l: and a number, str:, strz: and a text, hex: and "
                             "digits, @file, -",
                             value));
    }
}

TCMessageBuffer BuildPayload(const std::string& argumentName, const std::vector<std::string>& values) {
    TCMessageBuffer payload;
    for (const std::string& value : values)
        AppendValue(payload, argumentName, value);
    CheckSize(argumentName, payload.PayloadSize());
    return payload;
}

std::string_view BytesOf(const TCMessageBuffer& payload) {
    return {payload.GetAsCStr(0) == nullptr ? "" : payload.GetAsCStr(0), payload.PayloadSize()};
}

std::string HexText(std::string_view bytes) {
    return MavixTraffic::ToHex(Bytes(bytes), bytes.size());
}

void TCPayloadView::AddOptions(CLI::App& command) {
    CLI::Option* decode = command.add_option_function<std::string>(
        "--decode", [this](const std::string& text) { m_fields = Parse(text); },
        "The values in the payload, such as i,i,str: c, s, i, l, str, strz, hex:N, and hex for the rest");
    decode->type_name("TYPES");
    command.add_flag("--hex", m_inHex, "The payload as hexadecimal digits in one line")->excludes(decode);
}

std::vector<TCPayloadView::Field> TCPayloadView::Parse(const std::string& text) {
    constexpr std::string_view hexOfSize = "hex:";
    std::vector<Field> fields;
    for (const std::string& name : CLI::detail::split(text, ',')) {
        const bool hasSize = name.substr(0, hexOfSize.size()) == hexOfSize;
        const auto size = hasSize ? MavixTraffic::ParseNumber(std::string_view(name).substr(hexOfSize.size()),
                                                              0, std::int64_t{largestPayload} * 2)
                                  : std::optional<std::int64_t>(0);
        const bool isKnown =
            WidthOf(name) != 0 || name == "str" || name == "strz" || name == "hex" || (hasSize && size);
        if (!isKnown)
            Complain("--decode", fmt::format("'{}' is none of c, s, i, l, str, strz, hex, hex:N", name));
        fields.push_back({hasSize ? "hex:N" : name, static_cast<std::size_t>(*size)});
    }
    return fields;
}

TCPayloadView::Decoded TCPayloadView::Decode(std::string_view payload) const {
    Decoded decoded;
    decoded.rest = payload;
    for (const Field& field : m_fields) {
        std::string_view& rest = decoded.rest;
        // How many bytes the value takes, and how many of them come before it and behind it.
        std::size_t size = WidthOf(field.name);
        std::size_t before = 0;
        std::size_t behind = 0;
        if (field.name == "str") {
            before = sizeof(std::int32_t);
            size = rest.size() < before ? 0 : static_cast<std::uint32_t>(NumberIn<std::int32_t>(rest));
        } else if (field.name == "strz") {
            behind = 1;
            size = std::min(rest.find('\0'), rest.size());
        } else if (field.name == "hex") {
            size = rest.size();
        } else if (field.name == "hex:N") {
            size = field.size;
        }
        if (rest.size() < before || rest.size() - before < size || rest.size() - before - size < behind) {
            decoded.complaint = fmt::format("the payload ends within value {} ({}), {} bytes before its end",
                                            decoded.values.size() + 1, field.name, rest.size());
            return decoded;
        }
        const std::string_view value = rest.substr(before, size);
        if (WidthOf(field.name) != 0)
            decoded.values.push_back(ReadNumber(value));
        else
            decoded.values.push_back(field.name[0] == 'h' ? HexText(value) : std::string(value));
        rest.remove_prefix(before + size + behind);
    }
    return decoded;
}

bool TCPayloadView::Print(std::string_view payload, std::string_view indent) const {
    if (m_fields.empty()) {
        std::string text;
        if (m_inHex)
            text = fmt::format("{}{}\n", indent, HexText(payload));
        else
            MavixTraffic::AppendDump(text, Bytes(payload), payload.size(), indent, Faint);
        if (!text.empty())
            PrintLine(std::string_view(text).substr(0, text.size() - 1));
        return true;
    }
    const Decoded decoded = Decode(payload);
    for (std::size_t i = 0; i < decoded.values.size(); ++i) {
        const Json& value = decoded.values[i];
        const bool isText = m_fields[i].name[0] == 's' && m_fields[i].name != "s";
        const std::string shown = !value.is_string() ? value.dump()
                                  : isText           ? '"' + Printable(value.get<std::string>()) + '"'
                                                     : value.get<std::string>();
        PrintLine(fmt::format("{}{:<4}  {}", indent, m_fields[i].name, shown));
    }
    if (!decoded.complaint.empty())
        PrintError(decoded.complaint);
    else if (!decoded.rest.empty())
        PrintLine(fmt::format("{}rest  {}", indent, HexText(decoded.rest)));
    return decoded.complaint.empty();
}

bool TCPayloadView::AddTo(Json& object, std::string_view payload) const {
    object["size"] = payload.size();
    object["payload"] = HexText(payload);
    if (m_fields.empty())
        return true;
    const Decoded decoded = Decode(payload);
    object["values"] = decoded.values;
    object["rest"] = HexText(decoded.rest);
    if (!decoded.complaint.empty()) {
        object["complaint"] = decoded.complaint;
        PrintError(decoded.complaint);
    }
    return decoded.complaint.empty();
}

} // namespace MavixControl
