#include "Sockets.h"

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <endian.h>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>

namespace {

[[noreturn]] void ThrowErrno(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

int BindSocket(const std::string& path, int type) {
    const int descriptor = ::socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    std::size_t length = sizeof(address);
    if (path[0] == '@') {
        address.sun_path[0] = '\0';
        length = offsetof(sockaddr_un, sun_path) + path.size();
    }
    if (::bind(descriptor, reinterpret_cast<sockaddr*>(&address), static_cast<socklen_t>(length)) != 0) {
        ThrowErrno("bind " + path);
    }
    return descriptor;
}

} // namespace

TestFolder::TestFolder() {
    char name[] = "/tmp/mavix-platform-XXXXXX";
    if (::mkdtemp(name) == nullptr) {
        ThrowErrno("mkdtemp");
    }
    m_path = name;
}

TestFolder::~TestFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

void WriteFile(const std::string& path, const std::string& text) {
    std::ofstream(path) << text;
}

DatagramService::DatagramService(const std::string& path) : m_socket(BindSocket(path, SOCK_DGRAM)) {}

DatagramService::~DatagramService() {
    ::close(m_socket);
}

std::optional<std::string> DatagramService::Receive(std::chrono::milliseconds limit) {
    pollfd readable{m_socket, POLLIN, 0};
    if (::poll(&readable, 1, static_cast<int>(limit.count())) != 1) {
        return std::nullopt;
    }
    std::string datagram(256 * 1024, '\0');
    const ssize_t length = ::recv(m_socket, datagram.data(), datagram.size(), 0);
    if (length < 0) {
        ThrowErrno("recv");
    }
    datagram.resize(static_cast<std::size_t>(length));
    return datagram;
}

JournalFields ParseJournalEntry(const std::string& datagram) {
    JournalFields fields;
    std::size_t at = 0;
    while (at < datagram.size()) {
        const std::size_t nameEnd = datagram.find_first_of("=\n", at);
        if (nameEnd == std::string::npos) {
            throw std::runtime_error("a field without value");
        }
        std::size_t valueBegin = nameEnd + 1;
        std::size_t valueEnd = datagram.find('\n', valueBegin);
        if (datagram[nameEnd] == '\n') {
            std::uint64_t length = 0;
            if (datagram.size() - valueBegin < sizeof(length)) {
                throw std::runtime_error("a field without length");
            }
            std::memcpy(&length, datagram.data() + valueBegin, sizeof(length));
            valueBegin += sizeof(length);
            valueEnd = valueBegin + static_cast<std::size_t>(le64toh(length));
        }
        if (valueEnd >= datagram.size() || datagram[valueEnd] != '\n') {
            throw std::runtime_error("a field without end");
        }
        const bool isNew = fields
                               .emplace(datagram.substr(at, nameEnd - at),
                                        datagram.substr(valueBegin, valueEnd - valueBegin))
                               .second;
        if (!isNew) {
            throw std::runtime_error("a field that comes twice");
        }
        at = valueEnd + 1;
    }
    return fields;
}

BusSocket::BusSocket(const std::string& path) : m_socket(BindSocket(path, SOCK_STREAM)) {}

BusSocket::~BusSocket() {
    ::close(m_socket);
}

void BusSocket::Listen() {
    if (::listen(m_socket, 16) != 0) {
        ThrowErrno("listen");
    }
}
