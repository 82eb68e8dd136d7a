#ifndef MAVIX_SIM_SESSIONS_H
#define MAVIX_SIM_SESSIONS_H

#include "Call.h"
#include "Handles.h"
#include "SessionCall.h"

#include <map>
#include <nlohmann/json_fwd.hpp>
#include <vector>

namespace MavixSim {

// Which clients have a session and which traces they have. A client that leaves the bus is forgotten. Owner:
// the server. One thread.
class TCSessions final {
public:
    explicit TCSessions(sd_bus* bus) : m_bus(bus) {}
    TCSessions(const TCSessions&) = delete;
    TCSessions& operator=(const TCSessions&) = delete;

    // Does what a checked call of the session interface asks for. The payload of the answer; empty for
    // functions without one.
    std::vector<std::uint8_t> Answer(const Call& call);

    // All clients, for people to read.
    std::string Text() const;
    nlohmann::json Counters() const;
    void ClearCounters() { m_counters = {}; }

private:
    struct Client {
        TCSessions* owner;
        std::string name; // on the bus
        std::int32_t pid;
        bool isOpen = false;
        std::map<std::int64_t, TraceRequest> traces;
        TrackHandle track;
    };
    struct Counted {
        std::uint64_t opened = 0;
        std::uint64_t closed = 0;
        std::uint64_t repeatedOpens = 0;
        std::uint64_t needlessCloses = 0;
        std::uint64_t vanished = 0; // clients that left with an open session
    };

    static int m_OnGone(sd_bus_track* track, void* client);
    // Null for a client that has left the bus.
    Client* m_Find(const Call& call);
    bool m_Open(const Call& call);
    bool m_Close(const Call& call);

    sd_bus* const m_bus;
    std::map<std::string, Client> m_clients;
    Counted m_counters;
};

} // namespace MavixSim

#endif
