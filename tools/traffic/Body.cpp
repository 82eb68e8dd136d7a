#include "Body.h"

#include "Hex.h"
#include "JsonNumber.h"

#include <cstring>
#include <stdexcept>
#include <system_error>

namespace MavixTraffic {

using MavixSim::Check;
using Json = nlohmann::json;

namespace {

// What the bus allows: arrays in arrays and structures in structures of one signature, its length, and values
// in each other.
constexpr int deepestTypes = 32;
constexpr std::size_t longestSignature = 255;
constexpr int deepest = 64;

template <class Number>
Json ReadNumber(sd_bus_message* message, char type) {
    Number value{};
    Check(sd_bus_message_read_basic(message, type, &value), "read a number");
    return value;
}

Json ReadText(sd_bus_message* message, char type) {
    const char* text = nullptr;
    Check(sd_bus_message_read_basic(message, type, &text), "read a text");
    return text;
}

Json ReadBytes(sd_bus_message* message) {
    const void* bytes = nullptr;
    std::size_t size = 0;
    Check(sd_bus_message_read_array(message, 'y', &bytes, &size), "read bytes");
    return ToHex(static_cast<const std::uint8_t*>(bytes), size);
}

Json ReadValue(sd_bus_message* message, char type, const char* contents);

// All values up to the end of the container.
Json ReadValues(sd_bus_message* message) {
    Json values = Json::array();
    char type = 0;
    const char* contents = nullptr;
    while (Check(sd_bus_message_peek_type(message, &type, &contents), "peek") != 0)
        values.push_back(ReadValue(message, type, contents));
    return values;
}

Json ReadContainer(sd_bus_message* message, char type, const char* contents) {
    const std::string inside = contents;
    if (type == 'a' && inside == "y")
        return ReadBytes(message);
    Check(sd_bus_message_enter_container(message, type, contents), "enter a container");
    Json values = ReadValues(message);
    Check(sd_bus_message_exit_container(message), "leave a container");
    if (type == 'v')
        return Json{{"signature", inside}, {"value", values.at(0)}};
    return values;
}

Json ReadValue(sd_bus_message* message, char type, const char* contents) {
    switch (type) {
    case 'y':
        return ReadNumber<std::uint8_t>(message, type);
    case 'b':
        return ReadNumber<int>(message, type).get<int>() != 0;
    case 'n':
        return ReadNumber<std::int16_t>(message, type);
    case 'q':
        return ReadNumber<std::uint16_t>(message, type);
    case 'i':
        return ReadNumber<std::int32_t>(message, type);
    case 'u':
        return ReadNumber<std::uint32_t>(message, type);
    case 'x':
        return ReadNumber<std::int64_t>(message, type);
    case 't':
    case 'd':
        // A double's bits, so that it comes back as it was.
        return ReadNumber<std::uint64_t>(message, type);
    case 's':
    case 'o':
    case 'g':
        return ReadText(message, type);
    case 'h':
        throw std::invalid_argument("it holds a descriptor");
    default:
        return ReadContainer(message, type, contents);
    }
}

bool IsBasic(char type) {
    return std::strchr("ybnqiuxtdsog", type) != nullptr && type != '\0';
}

// Passes over one complete type; false when there is none that can be written.
bool PassType(const std::string& signature, std::size_t& at, int arrays = 0, int structures = 0) {
    const char type = at < signature.size() ? signature[at++] : '\0';
    if (IsBasic(type) || type == 'v')
        return true;
    if (arrays + (type == 'a' ? 1 : 0) > deepestTypes)
        return false;
    if (type == 'a' && (at >= signature.size() || signature[at] != '{'))
        return PassType(signature, at, arrays + 1, structures);
    if (structures + 1 > deepestTypes)
        return false;
    if (type == 'a') {
        ++at;
        return at < signature.size() && IsBasic(signature[at++]) &&
               PassType(signature, at, arrays + 1, structures + 1) && at < signature.size() &&
               signature[at++] == '}';
    }
    if (type != '(')
        return false;
    do {
        if (!PassType(signature, at, arrays, structures + 1))
            return false;
    } while (at < signature.size() && signature[at] != ')');
    return at++ < signature.size();
}

bool IsSignature(const std::string& signature) {
    if (signature.size() > longestSignature)
        return false;
    std::size_t at = 0;
    while (at < signature.size())
        if (!PassType(signature, at))
            return false;
    return true;
}

// Walks over a signature and the values for it; checks the values, and appends them where there is a message.
class TCBodyWriter final {
public:
    TCBodyWriter(sd_bus_message* message, const std::string& signature)
        : m_message(message), m_signature(signature) {
        if (!IsSignature(signature))
            throw std::invalid_argument("'" + signature + "' is no signature that can be replayed");
    }

    void WriteAll(const Json& arguments) {
        if (!arguments.is_array())
            throw std::invalid_argument("the arguments are not an array");
        for (std::size_t i = 0; i < arguments.size(); ++i) {
            m_argument = i;
            if (m_at == m_signature.size())
                m_Fail("the signature '" + m_signature + "' has no more types");
            m_WriteOne(arguments[i], 0);
        }
        if (m_at != m_signature.size()) {
            m_argument = arguments.size();
            m_Fail("absent");
        }
    }

private:
    [[noreturn]] void m_Fail(const std::string& what) const {
        throw std::invalid_argument("argument " + std::to_string(m_argument) + ": " + what);
    }

    // The end of the complete type that starts there.
    std::size_t m_EndOfType(std::size_t start) const {
        // The braces of a dictionary entry stand in an array only, so no type starts with them.
        const bool isEntry = m_signature[start] == '{';
        std::size_t at = isEntry ? start - 1 : start;
        PassType(m_signature, at);
        return at;
    }

    void m_Append(char type, const void* value) {
        if (m_message != nullptr)
            Check(sd_bus_message_append_basic(m_message, type, value), "append");
    }

    template <class Number>
    void m_WriteNumber(char type, const Json& value) {
        if (!IsNumber<Number>(value))
            m_Fail("not a number that fits");
        const auto number = value.get<Number>();
        m_Append(type, &number);
    }

    void m_WriteText(char type, const Json& value) {
        if (!value.is_string())
            m_Fail("not a text");
        const auto& text = value.get_ref<const std::string&>();
        if (text.find('\0') != std::string::npos)
            m_Fail("a text with a zero character");
        if (type == 'g' && !IsSignature(text))
            m_Fail("not a signature");
        if (type == 'o' && sd_bus_object_path_is_valid(text.c_str()) == 0)
            m_Fail("not an object path");
        m_Append(type, text.c_str());
    }

    void m_WriteBytes(const Json& value) {
        const auto bytes = value.is_string() ? FromHex(value.get_ref<const std::string&>()) : std::nullopt;
        if (!bytes)
            m_Fail("not bytes in hexadecimal");
        if (m_message != nullptr)
            Check(sd_bus_message_append_array(m_message, 'y', bytes->data(), bytes->size()), "append bytes");
    }

    void m_Open(char type, const std::string& contents) {
        if (m_message != nullptr)
            Check(sd_bus_message_open_container(m_message, type, contents.c_str()), "open a container");
    }

    void m_Close() {
        if (m_message != nullptr)
            Check(sd_bus_message_close_container(m_message), "close a container");
    }

    void m_WriteArray(const Json& value, std::size_t end, int depth) {
        const std::string contents = m_signature.substr(m_at, end - m_at);
        if (!value.is_array())
            m_Fail("not an array");
        const std::size_t start = m_at;
        m_Open('a', contents);
        for (const Json& element : value) {
            m_at = start;
            m_WriteOne(element, depth + 1);
        }
        m_at = end;
        m_Close();
    }

    void m_WriteStruct(char type, const Json& value, std::size_t end, int depth) {
        if (!value.is_array())
            m_Fail("not an array");
        m_Open(type == '(' ? 'r' : 'e', m_signature.substr(m_at, end - 1 - m_at));
        for (const Json& field : value) {
            if (m_at + 1 >= end)
                m_Fail("too many fields");
            m_WriteOne(field, depth + 1);
        }
        if (m_at + 1 != end)
            m_Fail("too few fields");
        m_at = end;
        m_Close();
    }

    void m_WriteVariant(const Json& value, int depth) {
        if (!value.is_object() || value.size() != 2 || !value.contains("signature") ||
            !value.contains("value") || !value["signature"].is_string())
            m_Fail("not an object of signature and value");
        const auto& contents = value["signature"].get_ref<const std::string&>();
        std::size_t at = 0;
        if (!PassType(contents, at) || at != contents.size())
            m_Fail("a variant of signature '" + contents + "'");
        m_Open('v', contents);
        TCBodyWriter inside(m_message, contents);
        inside.m_argument = m_argument;
        inside.m_WriteOne(value["value"], depth + 1);
        m_Close();
    }

    void m_WriteOne(const Json& value, int depth) {
        if (depth > deepest)
            m_Fail("too deep");
        const std::size_t end = m_EndOfType(m_at);
        const char type = m_signature[m_at++];
        switch (type) {
        case 'y':
            return m_WriteNumber<std::uint8_t>(type, value);
        case 'b': {
            if (!value.is_boolean())
                m_Fail("not true or false");
            const int truth = value.get<bool>() ? 1 : 0;
            return m_Append(type, &truth);
        }
        case 'n':
            return m_WriteNumber<std::int16_t>(type, value);
        case 'q':
            return m_WriteNumber<std::uint16_t>(type, value);
        case 'i':
            return m_WriteNumber<std::int32_t>(type, value);
        case 'u':
            return m_WriteNumber<std::uint32_t>(type, value);
        case 'x':
            return m_WriteNumber<std::int64_t>(type, value);
        case 't':
        case 'd':
            return m_WriteNumber<std::uint64_t>(type, value);
        case 's':
        case 'o':
        case 'g':
            return m_WriteText(type, value);
        case 'v':
            return m_WriteVariant(value, depth);
        case 'a':
            if (m_signature[m_at] == 'y') {
                m_at = end;
                return m_WriteBytes(value);
            }
            return m_WriteArray(value, end, depth);
        default: // a structure or the entry of a dictionary
            return m_WriteStruct(type, value, end, depth);
        }
    }

    sd_bus_message* m_message;
    const std::string m_signature;
    std::size_t m_at = 0;
    std::size_t m_argument = 0;
};

} // namespace

Json ReadBody(sd_bus_message* message) {
    try {
        Json arguments = ReadValues(message);
        Check(sd_bus_message_rewind(message, 1), "rewind a message");
        return arguments;
    } catch (const std::system_error& error) {
        throw std::invalid_argument(std::string("cannot ") + error.what());
    }
}

void AppendBody(sd_bus_message* message, const std::string& signature, const Json& arguments) {
    TCBodyWriter(message, signature).WriteAll(arguments);
}

void CheckBody(const std::string& signature, const Json& arguments) {
    TCBodyWriter(nullptr, signature).WriteAll(arguments);
}

} // namespace MavixTraffic
