#include "HostBusAddress.h"

#include "HostSupport.h"

#include <cstddef>
#include <cstdlib>
#include <optional>

namespace MavixPlatformHost {

namespace {

constexpr const char* DefaultAddress = "unix:path=/run/dbus/system_bus_socket";

// Takes the part up to `separator` off the front of `rest`.
std::string_view TakePart(std::string_view& rest, char separator) {
    const std::size_t end = rest.find(separator);
    const std::string_view part = rest.substr(0, end);
    rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
    return part;
}

std::optional<char> HexDigit(char digit) {
    if (digit >= '0' && digit <= '9') {
        return static_cast<char>(digit - '0');
    }
    const char lower = static_cast<char>(digit | 0x20);
    return lower >= 'a' && lower <= 'f' ? std::optional<char>(static_cast<char>(lower - 'a' + 10))
                                        : std::nullopt;
}

// Resolves %xx; nothing if an escape is broken.
std::optional<std::string> Unescape(std::string_view value) {
    std::string plain;
    for (std::size_t at = 0; at < value.size(); ++at) {
        if (value[at] != '%') {
            plain += value[at];
            continue;
        }
        if (value.size() - at < 3) {
            return std::nullopt;
        }
        const std::optional<char> high = HexDigit(value[at + 1]);
        const std::optional<char> low = HexDigit(value[at + 2]);
        if (!high || !low) {
            return std::nullopt;
        }
        plain += static_cast<char>(*high * 16 + *low);
        at += 2;
    }
    return plain;
}

std::optional<TCBusAddress> ParseSocket(std::string_view keys) {
    while (!keys.empty()) {
        std::string_view value = TakePart(keys, ',');
        const std::string_view key = TakePart(value, '=');
        const bool isAbstract = key == "abstract";
        if (!isAbstract && key != "path") {
            continue;
        }
        const std::optional<std::string> name = Unescape(value);
        if (name && !name->empty() && name->size() < sizeof(sockaddr_un::sun_path)) {
            return TCBusAddress::OfSocket(*name, isAbstract);
        }
    }
    return std::nullopt;
}

} // namespace

TCBusAddress TCBusAddress::OfSocket(std::string_view name, bool isAbstract) {
    TCBusAddress address;
    address.m_socket.sun_family = AF_UNIX;
    name.copy(address.m_socket.sun_path + (isAbstract ? 1 : 0), sizeof(sockaddr_un::sun_path) - 1);
    // One byte more than the name in both cases: the leading zero, or the closing one.
    address.m_length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size() + 1);
    return address;
}

bool TCBusAddress::Accepts() const {
    if (m_length == 0) {
        return true;
    }
    const TCDescriptor probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un socket = m_socket;
    return probe && ::connect(probe.Get(), reinterpret_cast<sockaddr*>(&socket), m_length) == 0;
}

std::string_view TCBusAddress::Path() const {
    return m_socket.sun_path;
}

std::vector<TCBusAddress> ParseBusAddresses(std::string_view addresses) {
    std::vector<TCBusAddress> parsed;
    while (!addresses.empty()) {
        std::string_view keys = TakePart(addresses, ';');
        const std::string_view transport = TakePart(keys, ':');
        if (transport.empty()) {
            continue;
        }
        if (transport != "unix") {
            parsed.push_back(TCBusAddress::OfOtherTransport());
        } else if (const std::optional<TCBusAddress> socket = ParseSocket(keys)) {
            parsed.push_back(*socket);
        }
    }
    return parsed;
}

std::vector<TCBusAddress> SystemBusAddresses() {
    const char* wanted = ::secure_getenv("DBUS_SYSTEM_BUS_ADDRESS");
    return ParseBusAddresses(wanted != nullptr && *wanted != '\0' ? wanted : DefaultAddress);
}

} // namespace MavixPlatformHost
