#include "RandomBody.h"

#include <cstdint>
#include <unistd.h>

namespace MavixTest {

using MavixSim::Check;

namespace {

constexpr int deepest = 4;
// The last one, a descriptor, stands outside of containers only: the bus allows few in a message.
const std::string basicTypes = "ybnqiuxtdsogybnqiuxtdsogh";

// Where the first complete type of a signature ends.
std::size_t EndOfType(const std::string& types, std::size_t at) {
    if (types[at] == 'a') {
        return EndOfType(types, at + 1);
    }
    const char open = types[at];
    if (open != '(' && open != '{') {
        return at + 1;
    }
    ++at;
    while (types[at] != ')' && types[at] != '}') {
        at = EndOfType(types, at);
    }
    return at + 1;
}

} // namespace

void TCRandomBody::AppendTo(sd_bus_message* message) {
    for (unsigned int left = Below(7); left != 0; --left) {
        m_Append(message, m_Type(deepest), deepest);
    }
}

std::string TCRandomBody::m_Type(int depth) {
    const unsigned int kind = depth > 0 ? Below(10) : 0;
    if (kind == 9) {
        return "v";
    }
    if (kind == 8) {
        std::string types;
        for (unsigned int left = 1 + Below(3); left != 0; --left) {
            types += m_Type(depth - 1);
        }
        return "(" + types + ")";
    }
    if (kind == 7) {
        return std::string("a{") + basicTypes[Below(12)] + m_Type(depth - 1) + "}";
    }
    if (kind >= 5) {
        return "a" + m_Type(depth - 1);
    }
    return std::string(1, basicTypes[Below(depth == deepest ? 25 : 24)]);
}

void TCRandomBody::m_Append(sd_bus_message* message, const std::string& type, int depth) {
    switch (type[0]) {
    case 'v': {
        const std::string contents = m_Type(depth - 1);
        Check(sd_bus_message_open_container(message, 'v', contents.c_str()), "open a variant");
        m_Append(message, contents, depth - 1);
        Check(sd_bus_message_close_container(message), "close");
        break;
    }
    case '(': {
        const std::string contents = type.substr(1, type.size() - 2);
        Check(sd_bus_message_open_container(message, 'r', contents.c_str()), "open a structure");
        m_AppendAll(message, contents, depth - 1);
        Check(sd_bus_message_close_container(message), "close");
        break;
    }
    case 'a':
        m_AppendArray(message, type.substr(1), depth - 1);
        break;
    default:
        m_AppendBasic(message, type[0]);
        break;
    }
}

void TCRandomBody::m_AppendAll(sd_bus_message* message, const std::string& types, int depth) {
    for (std::size_t at = 0; at < types.size();) {
        const std::size_t end = EndOfType(types, at);
        m_Append(message, types.substr(at, end - at), depth);
        at = end;
    }
}

void TCRandomBody::m_AppendArray(sd_bus_message* message, const std::string& type, int depth) {
    Check(sd_bus_message_open_container(message, 'a', type.c_str()), "open an array");
    for (unsigned int left = Below(4); left != 0; --left) {
        if (type[0] != '{') {
            m_Append(message, type, depth);
            continue;
        }
        const std::string contents = type.substr(1, type.size() - 2);
        Check(sd_bus_message_open_container(message, 'e', contents.c_str()), "open an entry");
        m_AppendAll(message, contents, depth);
        Check(sd_bus_message_close_container(message), "close");
    }
    Check(sd_bus_message_close_container(message), "close");
}

void TCRandomBody::m_AppendBasic(sd_bus_message* message, char type) {
    const auto append = [message, type](const void* value) {
        Check(sd_bus_message_append_basic(message, type, value), "append");
    };
    const std::uint64_t number = m_random() * std::uint64_t{0x100000001};
    const int truth = static_cast<int>(Below(2));
    const int descriptor = STDERR_FILENO;
    static const char* const texts[] = {"", "text", "\xc3\xbc", "17", "-1"};
    static const char* const paths[] = {"/", "/a", "/org/freedesktop/DBus"};
    static const char* const signatures[] = {"", "i", "a{sv}(ii)"};
    switch (type) {
    case 'b':
        return append(&truth);
    case 's':
        return append(texts[Below(5)]);
    case 'o':
        return append(paths[Below(3)]);
    case 'g':
        return append(signatures[Below(3)]);
    case 'h':
        return append(&descriptor);
    default:
        return append(&number);
    }
}

} // namespace MavixTest
