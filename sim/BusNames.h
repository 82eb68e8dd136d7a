#ifndef MAVIX_SIM_BUS_NAMES_H
#define MAVIX_SIM_BUS_NAMES_H

#include "Roles.h"
#include "Timers.h"

#include <set>

namespace MavixSim {

// The well-known names that the process owns. Owner: the server. One thread.
class TCBusNames final {
public:
    TCBusNames(sd_bus* bus, TCTimers& timers) : m_bus(bus), m_timers(timers) {}

    // Wait a little for a predecessor that the bus has not yet seen off.
    void TakeServiceNames(const Role& role);
    void TakeControlName(const Role& role);
    void Take(const std::string& name);
    void Drop(const std::string& name);
    // Drops the name and takes it back later.
    void DropFor(const std::string& name, std::uint32_t milliseconds);

    const std::set<std::string>& Owned() const { return m_owned; }

private:
    void m_TakeFromPredecessor(const std::string& name);

    sd_bus* const m_bus;
    TCTimers& m_timers;
    std::set<std::string> m_owned;
};

} // namespace MavixSim

#endif
