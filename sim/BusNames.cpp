#include "BusNames.h"

#include "Complaint.h"

#include <chrono>
#include <thread>

namespace MavixSim {

namespace {

constexpr std::chrono::seconds predecessorLimit{5};
constexpr std::chrono::milliseconds predecessorPause{5};

} // namespace

void TCBusNames::TakeServiceNames(const Role& role) {
    for (const std::string& name : role.busNames)
        m_TakeFromPredecessor(name);
}

void TCBusNames::TakeControlName(const Role& role) {
    // A bus without the sandbox's policy refuses this one, and then the service names serve for control.
    try {
        m_TakeFromPredecessor(role.controlName);
    } catch (const std::system_error& error) {
        Complain(error.what());
    }
}

void TCBusNames::m_TakeFromPredecessor(const std::string& name) {
    const auto end = std::chrono::steady_clock::now() + predecessorLimit;
    for (;;) {
        try {
            Take(name);
            return;
        } catch (const std::system_error& error) {
            if (error.code() != std::errc::file_exists || std::chrono::steady_clock::now() > end)
                throw;
        }
        std::this_thread::sleep_for(predecessorPause);
    }
}

void TCBusNames::Take(const std::string& name) {
    Check(sd_bus_request_name(m_bus, name.c_str(), 0), ("cannot own " + name).c_str());
    m_owned.insert(name);
}

void TCBusNames::Drop(const std::string& name) {
    Check(sd_bus_release_name(m_bus, name.c_str()), ("cannot give up " + name).c_str());
    m_owned.erase(name);
}

void TCBusNames::DropFor(const std::string& name, std::uint32_t milliseconds) {
    Drop(name);
    m_timers.After(milliseconds, [this, name] { Take(name); });
}

} // namespace MavixSim
