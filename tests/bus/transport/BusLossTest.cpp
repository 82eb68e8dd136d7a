#include "Await.h"
#include "TestScale.h"
#include "TransportFixture.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

// A bus that dies while others wait for it.

namespace MavixTest {

namespace {

using MavixApiLite::TIIpcConnection;
using MavixApiLite::TIIpcMessage;
using MavixSim::Check;
using std::chrono::steady_clock;

// A peer that takes calls and never answers them. Owner: the test; one thread.
class MutePeer {
public:
    explicit MutePeer(const std::string& address) : m_client(address) {
        sd_bus_slot* slot = nullptr;
        const auto swallow = [](sd_bus_message* message, void* self, sd_bus_error*) {
            if (sd_bus_message_is_method_call(message, nullptr, "Ask") <= 0) {
                return 0;
            }
            ++static_cast<MutePeer*>(self)->m_calls;
            return 1;
        };
        Check(sd_bus_add_filter(m_client.Bus(), &slot, swallow, this), "add a filter");
        m_slot.reset(slot);
    }
    std::string Name() const { return m_client.UniqueName(); }

    bool WaitForCalls(std::size_t count) {
        return Await(
            [&] {
                while (sd_bus_process(m_client.Bus(), nullptr) > 0) {
                }
                return m_calls >= count;
            },
            std::chrono::seconds(60));
    }

private:
    TCRawClient m_client;
    MavixSim::SlotHandle m_slot;
    std::size_t m_calls = 0;
};

template <class Connection>
class BusLossTest : public TransportTest<Connection> {};

TYPED_TEST_SUITE(BusLossTest, Transports, TransportNames);

TYPED_TEST(BusLossTest, EveryOneOfAThousandWaitingCallersReturns) {
    // A system bus lets one connection wait for 128 replies.
    constexpr unsigned int callersOfOne = 125;
    const unsigned int count = Scaled(8 * callersOfOne);
    MutePeer peer(this->m_bus.Address());
    const std::string name = peer.Name();
    std::vector<std::unique_ptr<TIIpcConnection>> connections;
    std::vector<std::thread> callers;
    std::atomic<unsigned int> replies{0};
    for (unsigned int at = 0; at < count; ++at) {
        if (at % callersOfOne == 0) {
            connections.push_back(TestFixture::Row::Make());
            connections.back()->Connect("TransportTest", &this->m_owner);
            ASSERT_TRUE(connections.back()->WaitConnected());
        }
        callers.emplace_back([&replies, &name, connection = connections.back().get()] {
            const auto message = connection->GetMessageAllocatorInstance()->NewMessage(nullptr);
            EXPECT_TRUE(
                message->Initialize(TIIpcMessage::MethodCall, name.c_str(), peerPath, peerInterface, "Ask"));
            if (connection->SendWithReply(*message, -1) && message->GetError() == nullptr) {
                ++replies;
            }
        });
    }
    EXPECT_TRUE(peer.WaitForCalls(count));
    const auto killed = steady_clock::now();
    this->m_bus.Kill();
    for (std::thread& caller : callers) {
        caller.join();
    }
    // Far less than the time limit of a call.
    EXPECT_LT(steady_clock::now() - killed, std::chrono::seconds(15));
    EXPECT_EQ(0U, replies);
}

TYPED_TEST(BusLossTest, RequestsToALostBusFailAtOnceAndAlways) {
    ASSERT_TRUE(this->Connect(&this->m_owner));
    this->m_bus.Kill();
    bool hasOwner = true;
    const auto start = steady_clock::now();
    // The loss may be noticed by the first one only.
    this->m_connection->BusHasOwner("org.freedesktop.DBus", -1, hasOwner);
    for (int round = 0; round < 20; ++round) {
        EXPECT_FALSE(this->m_connection->BusHasOwner("org.freedesktop.DBus", -1, hasOwner));
        const auto question = this->NewBusCall("GetId");
        EXPECT_FALSE(this->m_connection->SendWithReply(*question, -1));
    }
    EXPECT_TRUE(hasOwner);
    EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(10));
}

TYPED_TEST(BusLossTest, AConnectionDoesNotComeBackWithItsBus) {
    ASSERT_TRUE(this->Connect(&this->m_owner));
    this->m_bus.Restart();
    bool hasOwner = false;
    EXPECT_TRUE(
        Await([&] { return !this->m_connection->BusHasOwner("org.freedesktop.DBus", -1, hasOwner); }));
    EXPECT_TRUE(this->m_connection->WaitConnected());
    EXPECT_TRUE(this->m_connection->Connect("TransportTest", &this->m_owner));
    EXPECT_FALSE(this->m_connection->BusHasOwner("org.freedesktop.DBus", -1, hasOwner));
    EXPECT_EQ(1U, this->m_owner.Initialisations());
    // A new one does.
    const auto other = TestFixture::Row::Make();
    other->Connect("Other", nullptr);
    EXPECT_TRUE(other->BusHasOwner("org.freedesktop.DBus", -1, hasOwner));
}

TYPED_TEST(BusLossTest, ALostBusDoesNotHoldUpDestruction) {
    ASSERT_TRUE(this->Connect(&this->m_owner));
    this->m_bus.Kill();
    const auto start = steady_clock::now();
    this->m_connection.reset();
    EXPECT_LT(steady_clock::now() - start, std::chrono::milliseconds(900 * MAVIX_TEST_SCALE_DIVISOR));
}

TYPED_TEST(BusLossTest, AWaitingCallerFailsOrGetsAnErrorReply) {
    ASSERT_TRUE(this->Connect(&this->m_owner));
    MutePeer peer(this->m_bus.Address());
    const bool replied = TestFixture::Row::row.lossIsAReply;
    std::thread caller([this, replied, name = peer.Name()] {
        const auto message = this->NewPeerCall(name);
        EXPECT_EQ(replied, this->m_connection->SendWithReply(*message, -1));
        EXPECT_STREQ(replied ? "org.freedesktop.DBus.Error.NoReply" : nullptr, message->GetError());
    });
    EXPECT_TRUE(peer.WaitForCalls(1));
    this->m_bus.Kill();
    caller.join();
}

TYPED_TEST(BusLossTest, TheOwnerIsToldOrNot) {
    ASSERT_TRUE(this->Connect(&this->m_owner));
    this->m_bus.Kill();
    const auto told = [this] {
        const std::vector<std::string> signals = this->m_owner.BusSignals();
        return std::find(signals.begin(), signals.end(), "Disconnected") != signals.end();
    };
    if (TestFixture::Row::row.theLossReachesTheOwner) {
        EXPECT_TRUE(Await(told));
    }
    this->m_connection.reset();
    EXPECT_EQ(TestFixture::Row::row.theLossReachesTheOwner, told());
}

TYPED_TEST(BusLossTest, APeerThatLeavesDuringACallIsAnErrorReply) {
    ASSERT_TRUE(this->Connect(&this->m_owner));
    auto peer = std::make_unique<MutePeer>(this->m_bus.Address());
    std::thread caller([this, name = peer->Name()] {
        const auto message = this->NewPeerCall(name);
        EXPECT_TRUE(this->m_connection->SendWithReply(*message, -1));
        EXPECT_STREQ("org.freedesktop.DBus.Error.NoReply", message->GetError());
    });
    EXPECT_TRUE(peer->WaitForCalls(1));
    peer.reset();
    caller.join();
}

using GdbusBusLossTest = BusLossTest<MavixApiLite::TCGdbusConnection>;

TEST_F(GdbusBusLossTest, AWaitingCallerIsToldThatTheConnectionIsClosed) {
    ASSERT_TRUE(Connect(&m_owner));
    MutePeer peer(m_bus.Address());
    std::thread caller([this, name = peer.Name()] {
        const auto message = NewPeerCall(name);
        EXPECT_FALSE(m_connection->SendWithReply(*message, -1));
        EXPECT_STREQ("Ask", message->GetMember());
    });
    EXPECT_TRUE(peer.WaitForCalls(1));
    m_bus.Kill();
    caller.join();
    EXPECT_EQ(1U, Lines(errorLine, "[API_LITE] send_message_with_reply failed!"));
    EXPECT_EQ(1U, Lines(errorLine, "[API_LITE] 'The connection is closed'"));
}

TEST_F(GdbusBusLossTest, ClosingALostConnectionIsLoggedAndNoMore) {
    ASSERT_TRUE(Connect(&m_owner));
    m_bus.Kill();
    bool hasOwner = false;
    EXPECT_FALSE(m_connection->BusHasOwner("org.freedesktop.DBus", -1, hasOwner));
    TCRecordingPlatform::Get().Reset();
    m_connection.reset();
    EXPECT_EQ(1U, Lines(errorLine, "[API_LITE] t_CleanupConnection failed!"));
    EXPECT_EQ(1U, Lines(errorLine, "[API_LITE] 'The connection is closed'"));
}

} // namespace

} // namespace MavixTest
