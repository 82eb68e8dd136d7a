#include "SimDriver.h"

#include <sstream>
#include <stdexcept>
#include <thread>

namespace MavixTest {

using MavixSim::Check;
using MavixSim::MessageHandle;

namespace {

// Generous, for sanitizer builds on busy machines.
constexpr std::uint64_t callLimitUs = 120'000'000;
constexpr std::chrono::milliseconds recordsPause{2};

template <class... Values>
void Append(const MessageHandle& call, const char* types, Values... values) {
    Check(sd_bus_message_append(call.get(), types, values...), "append");
}

void AppendBytes(const MessageHandle& call, const TCSimDriver::Bytes& bytes) {
    Check(sd_bus_message_append_array(call.get(), 'y', bytes.data(), bytes.size()), "append bytes");
}

} // namespace

TCSimDriver::TCSimDriver(const TCPrivateBus& bus, Process process) : m_process(process) {
    sd_bus* created = nullptr;
    Check(sd_bus_new(&created), "new connection");
    m_bus.reset(created);
    Check(sd_bus_set_address(created, bus.Address().c_str()), "set the address");
    Check(sd_bus_set_bus_client(created, 1), "be a client");
    Check(sd_bus_start(created), "connect");
}

MessageHandle TCSimDriver::m_NewCall(const char* member) const {
    const char* destination =
        m_process == Process::Daemon ? "com.norvale.Sim.Daemon" : "com.norvale.Sim.Lite";
    sd_bus_message* call = nullptr;
    Check(sd_bus_message_new_method_call(m_bus.get(), &call, destination, "/com/norvale/Sim",
                                         "com.norvale.Sim", member),
          "new call");
    return MessageHandle(call);
}

MessageHandle TCSimDriver::m_Send(const MessageHandle& call) {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    if (sd_bus_call(m_bus.get(), call.get(), callLimitUs, &error, &reply) >= 0)
        return MessageHandle(reply);
    const std::string text = std::string(sd_bus_message_get_member(call.get())) + ": " + error.message;
    sd_bus_error_free(&error);
    throw std::runtime_error(text);
}

std::string TCSimDriver::m_SendForText(const MessageHandle& call) {
    const MessageHandle reply = m_Send(call);
    const char* text = nullptr;
    Check(sd_bus_message_read_basic(reply.get(), 's', &text), "read a text");
    return text;
}

void TCSimDriver::Emit(int type, int id, const Bytes& payload, const EventTarget& target) {
    const MessageHandle call = m_NewCall("Emit");
    Append(call, "siuu", std::to_string(type).c_str(), id, target.handleHigh, target.handleLow);
    AppendBytes(call, payload);
    Append(call, "s", target.destination.c_str());
    m_Send(call);
}

void TCSimDriver::EmitBurst(int type, int id, std::uint32_t count, std::uint32_t size, std::uint32_t start,
                            const EventTarget& target) {
    const MessageHandle call = m_NewCall("EmitBurst");
    Append(call, "siuuuuus", std::to_string(type).c_str(), id, target.handleHigh, target.handleLow, start,
           count, size, target.destination.c_str());
    m_Send(call);
}

void TCSimDriver::EmitRaw(const std::string& kind, int type, const std::string& idText, const Bytes& payload,
                          const EventTarget& target) {
    const MessageHandle call = m_NewCall("EmitRaw");
    Append(call, "sssuu", kind.c_str(), std::to_string(type).c_str(), idText.c_str(), target.handleHigh,
           target.handleLow);
    AppendBytes(call, payload);
    Append(call, "s", target.destination.c_str());
    m_Send(call);
}

std::vector<std::string> TCSimDriver::RawKinds() {
    const MessageHandle reply = m_Send(m_NewCall("RawKinds"));
    Check(sd_bus_message_enter_container(reply.get(), 'a', "s"), "enter");
    std::vector<std::string> kinds;
    for (const char* kind = nullptr; sd_bus_message_read_basic(reply.get(), 's', &kind) > 0;)
        kinds.emplace_back(kind);
    return kinds;
}

std::vector<nlohmann::json> TCSimDriver::Records(std::uint64_t first) {
    const MessageHandle call = m_NewCall("RecordsFrom");
    Append(call, "t", first);
    std::istringstream lines(m_SendForText(call));
    std::vector<nlohmann::json> records;
    for (std::string line; std::getline(lines, line);)
        records.push_back(nlohmann::json::parse(line));
    return records;
}

std::vector<nlohmann::json> TCSimDriver::WaitForRecords(std::size_t count, std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (Stats().at("kept") < count && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(recordsPause);
    return Records();
}

void TCSimDriver::ClearRecords() {
    m_Send(m_NewCall("ClearRecords"));
}

nlohmann::json TCSimDriver::Stats() {
    return nlohmann::json::parse(m_SendForText(m_NewCall("Stats")));
}

void TCSimDriver::DropName(const std::string& name) {
    const MessageHandle call = m_NewCall("DropName");
    Append(call, "s", name.c_str());
    m_Send(call);
}

void TCSimDriver::TakeName(const std::string& name) {
    const MessageHandle call = m_NewCall("TakeName");
    Append(call, "s", name.c_str());
    m_Send(call);
}

void TCSimDriver::SetDelay(std::chrono::milliseconds delay) {
    const MessageHandle call = m_NewCall("SetDelay");
    Append(call, "u", static_cast<std::uint32_t>(delay.count()));
    m_Send(call);
}

void TCSimDriver::SetReply(const std::string& interface, std::int16_t code, MavixSim::Behaviour behaviour,
                           const Bytes& parameter) {
    const MessageHandle call = m_NewCall("SetReply");
    Append(call, "snn", interface.c_str(), int{code}, static_cast<int>(behaviour));
    AppendBytes(call, parameter);
    m_Send(call);
}

void TCSimDriver::ClearReplies() {
    m_Send(m_NewCall("ClearReplies"));
}

void TCSimDriver::Exit(int code) {
    const MessageHandle call = m_NewCall("Exit");
    Append(call, "i", code);
    m_Send(call);
}

} // namespace MavixTest
