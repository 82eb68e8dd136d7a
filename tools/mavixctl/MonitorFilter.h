#ifndef MAVIX_CONTROL_MONITOR_FILTER_H
#define MAVIX_CONTROL_MONITOR_FILTER_H

#include "Command.h"
#include "ProcessInfo.h"

#include "Message.h"

#include <optional>
#include <set>
#include <string>
#include <vector>

namespace MavixControl {

// What of the traffic is wanted.
class TCMonitorFilter final {
public:
    // Adds the options; the object outlives the command.
    void AddOptions(CLI::App& command);

    // By interface, function code and the process that sends it. A reply is what its call is.
    bool TakesCall(const MavixTraffic::Message& call, const TSProcess& caller) const;
    bool TakesEvent(const MavixTraffic::Message& event, const TSProcess& emitter) const;
    bool TakesOwner(const TSProcess& oldOwner, const TSProcess& newOwner) const;
    // By what it is; of the event when it is one.
    bool TakesType(const char* kind, const MavixTraffic::Message* event = nullptr) const;

private:
    bool m_TakesProcess(const TSProcess& process) const;

    std::string m_interface;
    std::optional<std::int16_t> m_code;
    std::string m_process; // name or process id
    std::vector<std::string> m_types;
};

} // namespace MavixControl

#endif
