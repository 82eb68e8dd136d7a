#ifndef MAVIX_TEST_BUS_MONITOR_H
#define MAVIX_TEST_BUS_MONITOR_H

#include "sim/Handles.h"

#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

namespace MavixTest {

// A message as the bus carried it.
struct WireMessage {
    std::string type; // "call", "return", "error" or "signal"
    std::string sender;
    std::string destination;
    std::string path;
    std::string interface;
    std::string member;
    std::string errorName;
    std::string signature;
    bool noReply = false;
    std::vector<std::string> arguments; // texts and numbers; "?" for others

    // Signature, the arguments after the first one and the no-reply mark: "su 4 no-reply".
    std::string Shape() const;
};

std::ostream& operator<<(std::ostream& out, const WireMessage& message);

// Sees everything that a private bus carries, from its construction on. Owner: the test; one thread.
class TCBusMonitor final {
public:
    explicit TCBusMonitor(const std::string& address);

    // The messages from here to the first one that `last` accepts, that one included; fewer when it does not
    // come.
    std::vector<WireMessage> ReadUntil(const std::function<bool(const WireMessage&)>& last);

private:
    MavixSim::BusHandle m_bus;
};

} // namespace MavixTest

#endif
