#ifndef MAVIX_TEST_RAW_CLIENT_H
#define MAVIX_TEST_RAW_CLIENT_H

#include "sim/Behaviours.h"
#include "sim/Handles.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <unistd.h>
#include <vector>

namespace MavixTest {

using Bytes = std::vector<std::uint8_t>;

// The int32 in machine byte order.
Bytes IntBytes(std::int32_t value);
Bytes TextBytes(const std::string& text);

// One message to the service, argument by argument; what is not set is left out or as the layout wants it.
struct RawCall {
    std::string destination = "com.norvale.MavixAPI";
    std::string path = "/com/norvale/Object";
    std::optional<std::string> interface = "com.norvale.ITest";
    std::string member = "MethodCall";
    bool noReply = false;

    // Replaces all arguments that follow.
    std::function<void(sd_bus_message*)> body;

    std::uint32_t header = 0;
    std::optional<std::int32_t> size; // the payload's when not set
    std::int32_t pid = ::getpid();
    std::optional<std::string> programName;
    Bytes payload;
    bool emptyPayloadArray = false;
    std::optional<Bytes> aux;
    std::optional<std::int32_t> auxLength; // the block's when not set
    bool trailingText = false;
};

std::uint32_t Header(int code, unsigned flags = 0);
// A call of the test interface.
RawCall TestCall(MavixSim::Behaviour behaviour, const Bytes& payload = {});

// A record of an auxiliary block.
Bytes AuxRecord(std::uint32_t tag, const Bytes& value);
Bytes AuxTimestamp(std::uint32_t tag, std::uint64_t milliseconds);
// The monotonic clock.
std::uint64_t NowMs();

// What came back: either an error name, or the reply's message standing before its first argument.
struct RawReply {
    std::string errorName;
    std::string errorText;
    MavixSim::MessageHandle message;

    bool IsError() const { return !errorName.empty(); }
    std::string Signature() const;
    std::uint8_t TakeByte() const;
    std::int32_t TakeInt() const;
    Bytes TakeBytes() const;
};

// An event as it arrived.
struct RawEvent {
    std::string path;
    std::string interface;
    std::string member;
    std::string signature;
    std::vector<std::string> texts; // the leading text arguments
    Bytes payload;                  // the byte array after them, when there is one
};

// A signal with text arguments, and a byte array after them when there is a payload.
struct RawSignal {
    std::string path = "/com/norvale/Mavix/SignalObject";
    std::string interface = "com.norvale.Mavix.SignalIFace";
    std::string member = "Data";
    std::string destination;
    std::vector<std::string> texts;
    Bytes payload;
};

// A bus client of the tests' own, on sd-bus. Owner: the test; one thread.
class TCRawClient final {
public:
    explicit TCRawClient(const std::string& address);

    std::string UniqueName() const;
    MavixSim::MessageHandle MakeCall(const RawCall& call) const;
    // Sends and waits for the reply.
    RawReply Call(const RawCall& call, std::chrono::milliseconds limit = std::chrono::seconds(30));
    // Sends without waiting.
    void Send(const RawCall& call);
    RawReply CallMessage(const MavixSim::MessageHandle& message,
                         std::chrono::milliseconds limit = std::chrono::seconds(30));

    // Returns when the bus has seen the signal, whatever it made of it.
    void Emit(const RawSignal& signal);

    // Signals that match `rule` are kept from now on.
    void Subscribe(const std::string& rule);
    // All signals sent to us alone are kept from now on.
    void KeepUnicast();
    std::optional<RawEvent> NextEvent(std::chrono::milliseconds limit = std::chrono::seconds(10));

    // 0, or the negative errno.
    int RequestName(const std::string& name);
    sd_bus* Bus() const { return m_bus.get(); }

private:
    static int m_OnSignal(sd_bus_message* message, void* self, sd_bus_error* error);

    MavixSim::BusHandle m_bus;
    std::vector<MavixSim::SlotHandle> m_slots;
    std::vector<RawEvent> m_events;
    std::size_t m_nextEvent = 0;
};

} // namespace MavixTest

#endif
