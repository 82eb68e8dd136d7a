#ifndef MAVIX_HOST_BUS_ADDRESS_H
#define MAVIX_HOST_BUS_ADDRESS_H

#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <vector>

namespace MavixPlatformHost {

// One way to reach a bus. A plain value.
class TCBusAddress final {
public:
    // Of a socket of the file system, or of the abstract name space.
    static TCBusAddress OfSocket(std::string_view name, bool isAbstract);

    // Of a transport that cannot be tried without side effects (tcp, a program to start): counts as
    // accepting, so that the real connection attempt gives the answer.
    static TCBusAddress OfOtherTransport() { return TCBusAddress(); }

    // Whether a connection is accepted right now. Never waits.
    bool Accepts() const;

    // The socket's path; empty if it has none.
    std::string_view Path() const;

private:
    sockaddr_un m_socket{};
    socklen_t m_length = 0;
};

// Reads a list of D-Bus addresses; entries that nobody could connect to are left out.
std::vector<TCBusAddress> ParseBusAddresses(std::string_view addresses);

// The system bus, as the environment or the default names it.
std::vector<TCBusAddress> SystemBusAddresses();

} // namespace MavixPlatformHost

#endif
