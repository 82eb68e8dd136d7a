#include "DbusBusWrapper.h"
#include "FlavourFixture.h"
#include "IpcClient.h"
#include "IpcConfigurationMavix.h"
#include "RandomBody.h"
#include "ReadInEveryWay.h"
#include "TestScale.h"
#include "TransportFixture.h"

#include <gmock/gmock.h>

#include <atomic>
#include <cstdlib>
#include <stdexcept>

// Messages of random types. What libdbus complains about ends the process.

namespace MavixTest {

namespace {

using MavixApiLite::DbusBusWrapper;
using MavixApiLite::IpcConfigurationMavix;
using MavixApiLite::TCDbusConnection;
using MavixApiLite::TCIpcClient;
using MavixApiLite::TIIpcMessage;
using MavixSim::Check;
using MavixSim::MessageHandle;

constexpr const char* unknownMethod = "org.freedesktop.DBus.Error.UnknownMethod";
constexpr unsigned int fuzzMessages = 200000;
// So many are under way at a time: the bus holds only so much for a receiver.
constexpr unsigned int messagesAtOnce = 500;

// A peer that sends calls, which want no reply, and signals of random types.
class RandomPeer {
public:
    RandomPeer(const std::string& address, std::string target)
        : m_client(address), m_target(std::move(target)) {}

    void Send(const char* member, bool asSignal, bool withInterface) {
        const char* interface = asSignal || withInterface ? peerInterface : nullptr;
        sd_bus_message* created = nullptr;
        if (asSignal) {
            Check(sd_bus_message_new_signal(m_client.Bus(), &created, peerPath, interface, member), "signal");
            Check(sd_bus_message_set_destination(created, m_target.c_str()), "to");
        } else {
            Check(sd_bus_message_new_method_call(m_client.Bus(), &created, m_target.c_str(), peerPath,
                                                 interface, member),
                  "call");
            Check(sd_bus_message_set_expect_reply(created, 0), "no reply");
        }
        const MessageHandle message(created);
        m_body.AppendTo(created);
        Check(sd_bus_send(m_client.Bus(), created, nullptr), "send");
    }
    // Returns when the target has answered, and so has got everything; the name of its error, if any.
    std::string Settle(const char* interface, const char* member) {
        RawCall call;
        call.destination = m_target;
        call.path = peerPath;
        call.interface = interface;
        call.member = member;
        call.body = [](sd_bus_message*) {};
        return m_client.Call(call).errorName;
    }
    unsigned int Below(unsigned int limit) { return m_body.Below(limit); }

private:
    TCRawClient m_client;
    const std::string m_target;
    TCRandomBody m_body{1};
};

// GIO itself gives up some of these messages, and the connection with them.
using LibdbusFuzzTest = TransportTest<TCDbusConnection>;

TEST_F(LibdbusFuzzTest, MessagesOfRandomTypesAreReadInEveryWay) {
    std::atomic<unsigned int> seen{0};
    m_owner.onMessage = [&seen](TIIpcMessage& message) {
        ReadInEveryWay(message, seen++);
        return DbusBusWrapper::IsBusMessage(message) != DbusBusWrapper::NotABusMessage;
    };
    ASSERT_TRUE(Connect(&m_owner));
    RandomPeer peer(m_bus.Address(), m_connection->GetUniqueName());
    const unsigned int count = Scaled(fuzzMessages);
    unsigned int settled = 0;
    for (unsigned int sent = 0; sent < count; ++sent) {
        peer.Send("Fuzz", peer.Below(2) == 0, peer.Below(2) == 0);
        if (sent % messagesAtOnce == messagesAtOnce - 1) {
            ASSERT_EQ(unknownMethod, peer.Settle(peerInterface, "Settle"));
            ++settled;
            TCRecordingPlatform::Get().Reset();
        }
    }
    ASSERT_EQ(unknownMethod, peer.Settle(peerInterface, "Settle"));
    EXPECT_EQ(count + settled + 1, seen);
}

// The client over libdbus gets messages of random types; some have the members of events, most of which are
// malformed then. The bus is that of the test. Its output says that it lives.
MAVIX_CHILD(FuzzTheClient) {
    auto owned = std::make_unique<TCDbusConnection>(1, false);
    MavixApiLite::TIIpcConnection* connection = owned.get();
    auto configuration = std::make_unique<IpcConfigurationMavix>("com.norvale.Mavix.SignalIFace",
                                                                 "/com/norvale/Mavix/SignalObject");
    TCIpcClient client(std::move(configuration), g_main_context_default(), std::move(owned));
    int events = 0;
    static int* const counter = &events;
    for (int type = 0; type < IPC_MESSAGE_MAX; ++type) {
        client.SetCallbackFunction(static_cast<EIPCMessageType>(type),
                                   [](int, const char*, int) { ++*counter; });
    }
    RandomPeer peer(std::getenv("DBUS_SYSTEM_BUS_ADDRESS"), connection->GetUniqueName());
    static const char* const eventMembers[] = {"Signal",  "PipelineSignal", "Data",
                                               "Program", "Section",        "Ht"};
    static const char* const busMembers[] = {"Introspect", "NameOwnerChanged", "Anything"};
    const unsigned int count = Scaled(fuzzMessages);
    for (unsigned int sent = 0; sent < count; ++sent) {
        // Malformed events raise assertions of 100 ms each.
        const bool event = peer.Below(2000) == 0;
        const char* member = event ? eventMembers[peer.Below(6)] : busMembers[peer.Below(3)];
        peer.Send(member, peer.Below(2) == 0, peer.Below(2) == 0);
        if (sent % messagesAtOnce == messagesAtOnce - 1) {
            if (!peer.Settle("org.freedesktop.DBus.Introspectable", "Introspect").empty()) {
                std::puts("no introspection");
                return 1;
            }
            while (g_main_context_iteration(nullptr, FALSE) != FALSE) {
            }
            TCRecordingPlatform::Get().Reset();
        }
    }
    bool hasOwner = false;
    const bool lives = connection->BusHasOwner("org.freedesktop.DBus", 20000, hasOwner);
    std::printf("lives %d\n", lives ? 1 : 0);
    std::fflush(stdout);
    return 0;
}

using FuzzedClient = FlavourFixture;

TEST_F(FuzzedClient, OverLibdbusSurvivesMessagesOfRandomTypesAndLibdbusPrintsNothing) {
    const TCPrivateBus bus;
    const ChildResult result =
        RunChildProgram("FuzzTheClient", releaseFlavour, {}, std::chrono::seconds(400));
    EXPECT_EQ(0, result.exitCode) << result.signal;
    EXPECT_THAT(result.output, testing::EndsWith("lives 1\n"));
    EXPECT_EQ(std::string::npos, result.errors.find("dbus["));
    EXPECT_EQ(std::string::npos, result.errors.find("CRITICAL"));
}

} // namespace

} // namespace MavixTest
