#ifndef MAVIX_TESTS_PLATFORM_SOCKETS_H
#define MAVIX_TESTS_PLATFORM_SOCKETS_H

#include <chrono>
#include <map>
#include <optional>
#include <string>

// A folder of its own for each test; gone with all its files at the end.
class TestFolder final {
public:
    TestFolder();
    TestFolder(const TestFolder&) = delete;
    TestFolder& operator=(const TestFolder&) = delete;
    ~TestFolder();

    std::string operator/(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

void WriteFile(const std::string& path, const std::string& text);

// Plays a service that reads datagrams: the journal, or systemd's notification socket.
class DatagramService final {
public:
    explicit DatagramService(const std::string& path);
    DatagramService(const DatagramService&) = delete;
    DatagramService& operator=(const DatagramService&) = delete;
    ~DatagramService();

    // The next datagram, or nothing when none came in that time.
    std::optional<std::string> Receive(std::chrono::milliseconds limit);

private:
    int m_socket;
};

// The fields of one entry in the journal's native form. Throws on any deviation from it.
using JournalFields = std::map<std::string, std::string>;
JournalFields ParseJournalEntry(const std::string& datagram);

// Plays a bus: a stream socket that exists once bound and accepts connections once it listens.
class BusSocket final {
public:
    // An abstract name when it begins with '@'.
    explicit BusSocket(const std::string& path);
    BusSocket(const BusSocket&) = delete;
    BusSocket& operator=(const BusSocket&) = delete;
    ~BusSocket();

    void Listen();

private:
    int m_socket;
};

#endif
