#ifndef MAVIX_TEST_CLIENT_BUS_H
#define MAVIX_TEST_CLIENT_BUS_H

#include "ClientTransport.h"
#include "IPCConnection_C.h"
#include "RecordingPlatform.h"
#include "SimDriver.h"
#include "SimProcess.h"
#include "tests/bus/sim/RawClient.h"
#include "tests/unit/values/RoutingTable.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace MavixTest {

constexpr const char* sessionBus = "com.norvale.ISessionControl";

// A private bus with the stand-in service on it.
struct ServiceBus {
    ServiceBus();

    TCPrivateBus bus;
    TCSimProcess service;
    TCSimDriver daemon{bus};
    TCSimDriver lite{bus, TCSimDriver::Process::Lite};
    TCRawClient peer{bus.Address()};

    // The unique name of this process's client, which makes a call for that.
    std::string FindClient();

    // The bus of the whole process, to which the process's one client connects. Outlives the client.
    static ServiceBus& OfProcess();
};

// What a flat call gave.
struct CallResult {
    bool success = false;
    std::optional<Bytes> output; // none for null
};

CallResult Call(const std::string& interface, short code, const Bytes& input = {});
// Of the stand-in service's test interface.
CallResult Call(MavixSim::Behaviour behaviour, const Bytes& parameter = {});
bool CallAsync(const std::string& interface, short code, const Bytes& input = {});

// Everything that the client has sent before has been handled by the bus, and everything that the service has
// sent before has arrived at the client's connection.
bool Settle();

// Iterates the default context until the condition holds; false when the time is over.
bool IterateUntil(const std::function<bool()>& condition,
                  std::chrono::milliseconds limit = std::chrono::seconds(60));

// A call that a peer makes to a client, or to the bus. The interface may be null.
RawCall PeerCall(const std::string& destination, const char* interface, const std::string& member);
RawCall IntrospectionOf(const std::string& client);

// Makes the client forget a bus: its owner goes and comes back. The next call greets again.
void ForgetBus(const char* busName = defaultBus);

// Tests of the process-wide client. The first one creates it; records and rules for replies start empty.
class ClientBusTest : public testing::Test {
protected:
    ClientBusTest();
    ~ClientBusTest() override;

    // What the service was asked since the start of the test; waits until there are so many.
    std::vector<nlohmann::json> Records(std::size_t count) { return m_bus.daemon.WaitForRecords(count); }
    // Errors since the start of the test that a successful start does not write, as "<source>|<text>".
    std::vector<std::string> Errors() const;

    ServiceBus& m_bus = ServiceBus::OfProcess();
    std::string m_clientName = m_bus.FindClient(); // on the bus
    TCRecordingPlatform& m_platform = TCRecordingPlatform::Get();
};

} // namespace MavixTest

#endif
