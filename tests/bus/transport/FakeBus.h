#ifndef MAVIX_TEST_FAKE_BUS_H
#define MAVIX_TEST_FAKE_BUS_H

#include "Descriptor.h"
#include "TempFolder.h"
#include "sim/Handles.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace MavixTest {

// A socket that plays a bus badly, served by a thread of its own; DBUS_SYSTEM_BUS_ADDRESS points at it, now
// and after its end. Set the answers before a client connects. Owner: the test.
class TCFakeBus final {
public:
    enum class Manners {
        Mute,   // accepts connections and never says a word
        Silent, // lets clients in and answers nothing, not even Hello
        Serve   // lets clients in, answers Hello, and everything else as told
    };
    // Appends an answer's arguments; for members without one nothing is answered.
    using Answer = std::function<void(sd_bus_message* reply)>;

    explicit TCFakeBus(Manners manners, std::map<std::string, Answer> answers = {});
    ~TCFakeBus();
    TCFakeBus(const TCFakeBus&) = delete;
    TCFakeBus& operator=(const TCFakeBus&) = delete;

    // Hangs up on everybody and accepts nobody any more.
    void Close();
    // Leaves what clients send in their sockets, until told otherwise.
    void StopReading(bool stop = true);

    bool WaitForConnections(std::size_t count) const;
    // Method calls and signals that arrived, Hello not counted.
    std::size_t Count(const std::string& member) const;
    bool WaitFor(const std::string& member, std::size_t count,
                 std::chrono::milliseconds limit = std::chrono::seconds(60)) const;

private:
    void m_Run();
    void m_Accept();
    bool m_Serve(sd_bus* bus);
    void m_Take(sd_bus_message* message);
    void m_Wake() const;

    const Manners m_manners;
    const std::map<std::string, Answer> m_answers;
    MavixTools::TCTempFolder m_folder;
    MavixTools::TCDescriptor m_listener;
    MavixTools::TCDescriptor m_wakeUp;

    // Of the thread.
    std::vector<MavixTools::TCDescriptor> m_muteClients;
    std::vector<MavixSim::BusHandle> m_clients;

    std::atomic<bool> m_closing{false};
    std::atomic<bool> m_reading{true};

    mutable std::mutex m_mutex; // guards the records
    mutable std::condition_variable m_changed;
    std::size_t m_connections = 0;
    std::map<std::string, std::size_t> m_counts;

    std::thread m_thread;
};

} // namespace MavixTest

#endif
