#include "BusMonitor.h"
#include "TransportFixture.h"

#include <algorithm>
#include <functional>
#include <utility>

// What requests look like on the bus, as a monitor sees them.

namespace MavixTest {

namespace {

using MavixApiLite::TIIpcConnection;
using MavixApiLite::TIIpcMessage;

template <class Connection>
class WireTest : public TransportTest<Connection> {
protected:
    WireTest() {
        EXPECT_TRUE(this->Connect(&this->m_owner));
        // The greeting of the bus belongs to connecting.
        const std::vector<WireMessage> greeting = Sent([] {});
        EXPECT_EQ(1U, greeting.size());
        EXPECT_EQ("Hello", greeting.empty() ? "" : greeting[0].member);
    }

    // What our connection sent during the action.
    std::vector<WireMessage> Sent(const std::function<void()>& action) {
        const std::string name = this->m_connection->GetUniqueName();
        action();
        // The last one that the bus sees of us.
        const auto fence = this->NewBusCall("GetId");
        EXPECT_TRUE(this->m_connection->SendWithReply(*fence, -1));
        std::vector<WireMessage> messages = m_monitor.ReadUntil(
            [&](const WireMessage& message) { return message.sender == name && message.member == "GetId"; });
        messages.erase(std::remove_if(messages.begin(), messages.end(),
                                      [&](const WireMessage& message) { return message.sender != name; }),
                       messages.end());
        EXPECT_FALSE(messages.empty());
        if (!messages.empty()) {
            messages.pop_back();
        }
        return messages;
    }

    TCBusMonitor m_monitor{this->m_bus.Address()};
};

TYPED_TEST_SUITE(WireTest, Transports, TransportNames);

TYPED_TEST(WireTest, RequestsToTheBusHaveTheirShape) {
    TIIpcConnection& connection = *this->m_connection;
    const TransportRow& row = TestFixture::Row::row;
    struct Request {
        const char* member;
        const char* shape;
        const char* argument;
        std::function<void()> make;
    };
    bool hasOwner = false;
    const Request requests[] = {
        {"AddMatch", row.addMatchOnTheWire, "type='signal'", [&] { connection.AddMatch("type='signal'"); }},
        {"RemoveMatch", row.removeMatchOnTheWire, "type='signal'",
         [&] { connection.RemoveMatch("type='signal'"); }},
        {"RequestName", row.requestNameOnTheWire, "com.norvale.Sim.Own",
         [&] { connection.RequestName("com.norvale.Sim.Own"); }},
        {"ReleaseName", "s", "com.norvale.Sim.Own", [&] { connection.ReleaseName("com.norvale.Sim.Own"); }},
        {"NameHasOwner", "s", "com.norvale.Sim.Own",
         [&] { connection.BusHasOwner("com.norvale.Sim.Own", 5000, hasOwner); }},
    };
    for (const Request& request : requests) {
        const std::vector<WireMessage> sent = this->Sent(request.make);
        ASSERT_EQ(1U, sent.size()) << request.member;
        EXPECT_EQ("call", sent[0].type) << request.member;
        EXPECT_EQ("org.freedesktop.DBus", sent[0].destination) << request.member;
        EXPECT_EQ("/org/freedesktop/DBus", sent[0].path) << request.member;
        EXPECT_EQ("org.freedesktop.DBus", sent[0].interface) << request.member;
        EXPECT_EQ(request.member, sent[0].member);
        EXPECT_EQ(request.shape, sent[0].Shape()) << request.member;
        EXPECT_EQ(request.argument, sent[0].arguments.at(0)) << request.member;
    }
}

TYPED_TEST(WireTest, TheUniqueNameAndTheWaitCostNoTraffic) {
    EXPECT_TRUE(this->Sent([&] {
                        this->m_connection->GetUniqueName();
                        this->m_connection->WaitConnected();
                        this->m_connection->Connect("Again", nullptr);
                    })
                    .empty());
}

TYPED_TEST(WireTest, ASentCallCarriesItsArgumentsThoughTheCallerDidNotFinishIt) {
    TCRawClient peer(this->m_bus.Address());
    const auto message = this->NewPeerCall(peer.UniqueName(), "Tell");
    EXPECT_TRUE(message->PushString("text"));
    EXPECT_TRUE(message->PushInt(-7));
    EXPECT_TRUE(message->SetNoReply());
    const std::vector<WireMessage> sent =
        this->Sent([&] { EXPECT_TRUE(this->m_connection->Send(*message)); });
    ASSERT_EQ(1U, sent.size());
    EXPECT_EQ("si ? no-reply", sent[0].Shape());
    EXPECT_EQ("text", sent[0].arguments.at(0));
    EXPECT_EQ(peerPath, sent[0].path);
    EXPECT_EQ("Tell", sent[0].member);
}

TYPED_TEST(WireTest, ASignalLeavesAsItIs) {
    const auto message = this->NewMessage();
    ASSERT_TRUE(message->Initialize(TIIpcMessage::Signal, nullptr, peerPath, peerInterface, "Happened"));
    EXPECT_TRUE(message->PushString("text"));
    const std::vector<WireMessage> sent =
        this->Sent([&] { EXPECT_TRUE(this->m_connection->Send(*message)); });
    ASSERT_EQ(1U, sent.size());
    EXPECT_EQ("signal", sent[0].type);
    EXPECT_EQ("", sent[0].destination);
    EXPECT_EQ("s", sent[0].Shape());
}

TYPED_TEST(WireTest, RefusedRequestsNeverLeave) {
    const std::string invalid = "com.norvale.\xff";
    const auto empty = this->NewMessage();
    bool hasOwner = false;
    EXPECT_TRUE(this->Sent([&] {
                        this->m_connection->AddMatch(invalid.c_str());
                        this->m_connection->RequestName(invalid);
                        this->m_connection->BusHasOwner(invalid, 5000, hasOwner);
                        this->m_connection->Send(*empty);
                        this->m_connection->SendWithReply(*empty, 5000);
                    })
                    .empty());
}

} // namespace

} // namespace MavixTest
