#ifndef MAVIX_TEST_SIM_DRIVER_H
#define MAVIX_TEST_SIM_DRIVER_H

#include "PrivateBus.h"

#include "sim/Behaviours.h"
#include "sim/Handles.h"

#include <chrono>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace MavixTest {

// Whom an event is for: the handle that match rules name, and a bus name for a client alone.
struct EventTarget {
    std::uint32_t handleHigh = 0;
    std::uint32_t handleLow = 0;
    std::string destination;
};

// Steers one process of the stand-in service over a bus connection of its own. Failures are thrown as
// std::runtime_error. Owner: the test; one thread.
class TCSimDriver final {
public:
    enum class Process { Daemon, Lite };
    using Bytes = std::vector<std::uint8_t>;

    explicit TCSimDriver(const TCPrivateBus& bus, Process process = Process::Daemon);

    void Emit(int type, int id, const Bytes& payload, const EventTarget& target = {});
    // `count` events of `size` bytes that start with the running number from `start` on, 4 bytes in machine
    // order. Returns when the last one has been handed to the bus.
    void EmitBurst(int type, int id, std::uint32_t count, std::uint32_t size = 4, std::uint32_t start = 0,
                   const EventTarget& target = {});
    // Malformed events; RawKinds tells the kinds.
    void EmitRaw(const std::string& kind, int type, const std::string& idText, const Bytes& payload,
                 const EventTarget& target = {});
    std::vector<std::string> RawKinds();

    // What the service was asked, one object a call.
    std::vector<nlohmann::json> Records(std::uint64_t first = 0);
    // The same, as soon as there are `count`; fewer only when the time is over.
    std::vector<nlohmann::json> WaitForRecords(std::size_t count,
                                               std::chrono::milliseconds limit = std::chrono::seconds(10));
    void ClearRecords();
    nlohmann::json Stats();

    void DropName(const std::string& name);
    void TakeName(const std::string& name);
    void SetDelay(std::chrono::milliseconds delay);
    // How to answer calls of an interface and function code; of all without a rule when `interface` is empty.
    void SetReply(const std::string& interface, std::int16_t code, MavixSim::Behaviour behaviour,
                  const Bytes& parameter = {});
    void ClearReplies();
    void Exit(int code);

private:
    MavixSim::MessageHandle m_NewCall(const char* member) const;
    MavixSim::MessageHandle m_Send(const MavixSim::MessageHandle& call);
    std::string m_SendForText(const MavixSim::MessageHandle& call);

    const Process m_process;
    MavixSim::BusHandle m_bus;
};

} // namespace MavixTest

#endif
