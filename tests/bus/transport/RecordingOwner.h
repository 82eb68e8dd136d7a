#ifndef MAVIX_TEST_RECORDING_OWNER_H
#define MAVIX_TEST_RECORDING_OWNER_H

#include "IpcConnection.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace MavixTest {

// Where the test's peers talk to each other: the bus lets everybody call methods there.
constexpr const char* peerPath = "/com/norvale/Sim";
constexpr const char* peerInterface = "com.norvale.Sim.Peer";

// An owner that keeps what its connection tells it. The signals of the bus itself, such as NameAcquired, and
// replies are kept apart and left alone. The hooks are set before Connect; any thread may look at the
// records.
class TCRecordingOwner final : public MavixApiLite::TIIpcConnectionOwner {
public:
    // What the initialiser does and returns; by default it does nothing and returns true.
    std::function<bool(MavixApiLite::TIIpcConnection*)> onInitialize;
    // What is done with a message, and whether that handled it; by default nothing handles it.
    std::function<bool(MavixApiLite::TIIpcMessage&)> onMessage;

    bool InitializeIpcConnection(MavixApiLite::TIIpcConnection* connection) override;
    bool FilterIpcMessage(MavixApiLite::TIIpcMessage& message) override;

    std::size_t Initialisations() const;
    // Their members, in order of arrival.
    std::vector<std::string> Messages() const;
    std::vector<std::string> BusSignals() const;
    std::size_t Replies() const;
    // The name of the thread that brought the last message.
    std::string ThreadName() const;
    bool WaitForMessages(std::size_t count, std::chrono::milliseconds limit = std::chrono::seconds(60)) const;

private:
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    std::size_t m_initialisations = 0;
    std::vector<std::string> m_messages;
    std::vector<std::string> m_busSignals;
    std::size_t m_replies = 0;
    std::string m_threadName;
};

} // namespace MavixTest

#endif
