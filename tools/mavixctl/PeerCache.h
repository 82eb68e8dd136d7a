#ifndef MAVIX_CONTROL_PEER_CACHE_H
#define MAVIX_CONTROL_PEER_CACHE_H

#include "ProcessInfo.h"

#include "sim/Handles.h"

#include <deque>
#include <string>
#include <unordered_map>

namespace MavixControl {

// Whose the connections to the bus are. Asks the bus once for each unique name, and does not wait for the
// answer. Owner: the monitor; one thread.
class TCPeerCache final {
public:
    // Opens a connection of its own, as one that monitors cannot ask.
    TCPeerCache();
    TCPeerCache(const TCPeerCache&) = delete;
    TCPeerCache& operator=(const TCPeerCache&) = delete;

    // Starts to ask, unless it has been asked for already.
    void Want(const std::string& name);
    // Whether nothing more will be known of it than is; also of one that was forgotten.
    bool IsSettled(const std::string& name) const;
    // Without a process id as long as it is not known.
    const TSProcess& Find(const std::string& name) const;
    // The connection has gone; what is known of it stays while there is room.
    void Forget(const std::string& name);

    // Asks the bus for something that does not matter: its answer stands behind all that the bus has passed
    // on before. The serial of the question; 0 when the bus has gone, which Process() tells.
    std::uint64_t SendMark();
    std::string UniqueName() const;

    // What to wait for, as of poll.
    int Descriptor() const;
    int Events() const;
    // Takes what answers have come; false when the bus has gone.
    bool Process();

private:
    struct Peer {
        TCPeerCache* owner;
        TSProcess process;
        bool isSettled = false;
        bool hasGone = false;
        MavixSim::SlotHandle slot;
    };

    static int m_OnAnswer(sd_bus_message* answer, void* peer, sd_bus_error* error);
    void m_AskNext();
    void m_MakeRoom();

    MavixSim::BusHandle m_bus;
    // The addresses of its elements stay.
    std::unordered_map<std::string, Peer> m_peers;
    std::deque<std::string> m_wanted;
    std::size_t m_asked = 0;
};

// A connection to the system bus that is not started yet.
MavixSim::BusHandle NewSystemBus();
// One that is.
MavixSim::BusHandle OpenSystemBus();

} // namespace MavixControl

#endif
