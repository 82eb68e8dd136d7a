#ifndef MAVIX_TEST_MESSAGE_MAKER_H
#define MAVIX_TEST_MESSAGE_MAKER_H

#include "Descriptor.h"
#include "sim/Handles.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace MavixTest {

using Bytes = std::vector<std::uint8_t>;

// What a message says outside its arguments.
struct Envelope {
    std::string sender = ":1.7";
    std::string destination = "com.norvale.MavixAPI";
    std::string path = "/com/norvale/Object";
    std::string interface = "com.norvale.ITest";
    std::string member = "MethodCall";
    bool noReply = false;
};

// Makes bus messages that nobody sends, sealed and ready to be read. Owner: the test; one thread.
class TCMessageMaker final {
public:
    using Fill = std::function<void(sd_bus_message*)>;

    TCMessageMaker();

    MavixSim::MessageHandle Call(const Envelope& envelope, const Fill& fill);
    // To a call of serial 5.
    MavixSim::MessageHandle Return(const Fill& fill);
    MavixSim::MessageHandle Error(const char* name, const Fill& fill);
    MavixSim::MessageHandle Signal(const Envelope& envelope, const Fill& fill);

    static void Append(sd_bus_message* message, const char* types, ...);
    static void AppendBytes(sd_bus_message* message, const Bytes& bytes);
    // Puts U+FFFE in the place of the first bytes of a text behind arguments of these types. Buses pass it
    // on, the bus library neither appends nor hands it out.
    static void SpoilText(const MavixSim::MessageHandle& message, const char* typesBefore);

private:
    MavixSim::MessageHandle m_Seal(sd_bus_message* message, const Fill& fill);

    MavixSim::BusHandle m_bus;
    // Closed before the connection, which would wait for it.
    MavixTools::TCDescriptor m_peer;
};

} // namespace MavixTest

#endif
