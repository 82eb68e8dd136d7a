#include "Await.h"
#include "LiteUtility.h"
#include "TransportFixture.h"

#include <atomic>
#include <thread>
#include <vector>

// From idle to connected, and who waits for it.

namespace MavixTest {

namespace {

using MavixApiLite::TIIpcConnection;

template <class Connection>
class ConnectTest : public TransportTest<Connection> {
protected:
    // Lets connecting wait at its first line until it is told to go on.
    void HoldConnecting() {
        TCRecordingPlatform::Get().onLine = [this](const LogLine& line) {
            if (line.function == "m_Connect" && line.priority == debugLine) {
                EXPECT_TRUE(Await([this] { return m_goOn.load(); }));
            }
        };
    }

    std::atomic<bool> m_goOn{false};
};

TYPED_TEST_SUITE(ConnectTest, Transports, TransportNames);

TYPED_TEST(ConnectTest, WaitingBeforeConnectFailsWithALine) {
    EXPECT_FALSE(this->m_connection->WaitConnected());
    EXPECT_EQ(1U, this->Lines(errorLine, "[API_LITE] called without prior Connect"));
    EXPECT_EQ(1U, TCRecordingPlatform::Get().Lines().size());
}

TYPED_TEST(ConnectTest, EveryRequestBeforeConnectFailsWithLines) {
    TIIpcConnection& connection = *this->m_connection;
    const auto message = this->NewMessage();
    bool hasOwner = true;
    const std::pair<const char*, std::function<bool()>> requests[] = {
        {"Send", [&] { return connection.Send(*message); }},
        {"SendWithReply", [&] { return connection.SendWithReply(*message, -1); }},
        {"AddMatch", [&] { return connection.AddMatch("type='signal'"); }},
        {"RemoveMatch", [&] { return connection.RemoveMatch("type='signal'"); }},
        {"GetUniqueName", [&] { return !connection.GetUniqueName().empty(); }},
        {"RequestName", [&] { return connection.RequestName("com.norvale.Sim.Own"); }},
        {"ReleaseName", [&] { return connection.ReleaseName("com.norvale.Sim.Own"); }},
        {"BusHasOwner", [&] { return connection.BusHasOwner("com.norvale.Sim.Own", 100, hasOwner); }},
    };
    for (const auto& [name, request] : requests) {
        TCRecordingPlatform::Get().Reset();
        EXPECT_FALSE(request()) << name;
        EXPECT_EQ(1U, this->Lines(errorLine, TestFixture::Row::row.withoutConnect)) << name;
        const std::vector<LogLine> refused =
            TCRecordingPlatform::Get().LinesWith("[API_LITE] not connected!");
        ASSERT_EQ(1U, refused.size()) << name;
        EXPECT_EQ(errorLine, refused[0].priority) << name;
        EXPECT_EQ("MAVIX_API", refused[0].tag) << name;
        EXPECT_EQ(TestFixture::Row::row.source, refused[0].source) << name;
        EXPECT_EQ(name, refused[0].function);
    }
    EXPECT_TRUE(hasOwner);
}

TYPED_TEST(ConnectTest, ConnectReturnsAtOnceAndTheFirstUserWaits) {
    this->HoldConnecting();
    EXPECT_TRUE(this->m_connection->Connect("TransportTest", nullptr));
    std::string name;
    std::thread user([&] { name = this->m_connection->GetUniqueName(); });
    EXPECT_TRUE(TCRecordingPlatform::Get().WaitFor("[API_LITE][START] Wait for DBUS connection"));
    EXPECT_EQ(0U, TCRecordingPlatform::Get().CountStarting(infoLine, "[API_LITE][END] Wait"));
    this->m_goOn = true;
    user.join();
    EXPECT_EQ(':', name.at(0));
    EXPECT_EQ(1U, this->Lines(infoLine, "[API_LITE][START] Wait for DBUS connection"));
    EXPECT_EQ(1U, TCRecordingPlatform::Get().CountStarting(infoLine,
                                                           "[API_LITE][END] Wait for DBUS connection 0x"));
}

TYPED_TEST(ConnectTest, ManyMayWaitAtOnce) {
    this->HoldConnecting();
    EXPECT_TRUE(this->m_connection->Connect("TransportTest", nullptr));
    std::atomic<unsigned int> connected{0};
    std::vector<std::thread> users;
    for (int at = 0; at < 16; ++at) {
        users.emplace_back([&] { connected += this->m_connection->WaitConnected() ? 1U : 0U; });
    }
    EXPECT_TRUE(TCRecordingPlatform::Get().WaitFor("[API_LITE][START] Wait for DBUS connection"));
    this->m_goOn = true;
    for (std::thread& user : users) {
        user.join();
    }
    EXPECT_EQ(16U, connected);
    EXPECT_EQ(1U, this->Lines(infoLine, "[API_LITE][START] Wait for DBUS connection"));
}

TYPED_TEST(ConnectTest, SaysThatItStartsAndThatItIsDone) {
    ASSERT_TRUE(this->Connect(&this->m_owner));
    const auto& row = TestFixture::Row::row;
    EXPECT_EQ(1U, this->Lines(debugLine, "[API_LITE][START] TransportTest, m_Connect"));
    EXPECT_EQ(1U, this->Lines(row.connectedPriority, row.connectedLine));
    for (const LogLine& line : TCRecordingPlatform::Get().LinesWith(row.connectedLine)) {
        EXPECT_EQ(row.source, line.source);
        EXPECT_EQ("m_Connect", line.function);
    }
}

TYPED_TEST(ConnectTest, WaitsForTheBusReadyEventOrNot) {
    ASSERT_TRUE(this->Connect());
    EXPECT_EQ(TestFixture::Row::row.waitsForBusReadyEvent ? 1U : 0U,
              TCRecordingPlatform::Get().CountCalls("LwipcWaitEvent(/tmp/dbus_launch, 10000)"));
}

TYPED_TEST(ConnectTest, ASecondConnectWhileConnectingStartsNothing) {
    this->HoldConnecting();
    EXPECT_TRUE(this->m_connection->Connect("First", &this->m_owner));
    EXPECT_TRUE(this->m_connection->Connect("Second", &this->m_owner));
    this->m_goOn = true;
    EXPECT_TRUE(this->m_connection->WaitConnected());
    EXPECT_EQ(1U, this->m_owner.Initialisations());
    EXPECT_EQ(1U, this->Lines(debugLine, "[API_LITE][START] First, m_Connect"));
    EXPECT_EQ(0U, this->Lines(debugLine, "[API_LITE][START] Second, m_Connect"));
}

TYPED_TEST(ConnectTest, ASecondConnectWhenConnectedChangesNothing) {
    ASSERT_TRUE(this->Connect(&this->m_owner));
    const std::string name = this->m_connection->GetUniqueName();
    EXPECT_TRUE(this->m_connection->Connect("Second", &this->m_owner));
    EXPECT_EQ(name, this->m_connection->GetUniqueName());
    // Destruction would wait for a second attempt.
    this->m_connection.reset();
    EXPECT_EQ(1U, this->m_owner.Initialisations());
    EXPECT_EQ(1U, TCRecordingPlatform::Get().CountStarting(debugLine, "[API_LITE][START]"));
}

TYPED_TEST(ConnectTest, TheInitialiserIsNotMadeToWait) {
    bool done = false;
    this->m_owner.onInitialize = [&](TIIpcConnection* connection) {
        EXPECT_EQ(this->m_connection.get(), connection);
        bool hasOwner = false;
        done = connection->RequestName("com.norvale.Sim.Own") && connection->AddMatch("type='signal'") &&
               connection->BusHasOwner("org.freedesktop.DBus", 5000, hasOwner) && hasOwner &&
               !connection->GetUniqueName().empty() && connection->ReleaseName("com.norvale.Sim.Own");
        return done;
    };
    EXPECT_TRUE(this->Connect(&this->m_owner));
    EXPECT_TRUE(done);
    EXPECT_GE(this->Lines(debugLine, "Called from initializer. Do not block here"), 5U);
}

TYPED_TEST(ConnectTest, TheInitialiserPassesWhileOthersWaitForItsThread) {
    bool done = false;
    this->m_owner.onInitialize = [&](TIIpcConnection* connection) {
        EXPECT_TRUE(TCRecordingPlatform::Get().WaitFor("[API_LITE][START] Wait for DBUS connection"));
        done = connection->RequestName("com.norvale.Sim.Own") && connection->AddMatch("type='signal'");
        return done;
    };
    EXPECT_TRUE(this->Connect(&this->m_owner));
    EXPECT_TRUE(done);
}

TYPED_TEST(ConnectTest, TheGuardSpeaksOnlyInTheInitialiser) {
    std::size_t lines = 0;
    this->m_owner.onInitialize = [&](TIIpcConnection* connection) {
        connection->GetUniqueName();
        lines = this->Lines(debugLine, "Called from initializer. Do not block here");
        return true;
    };
    ASSERT_TRUE(this->Connect(&this->m_owner));
    EXPECT_EQ(1U, lines);
    this->m_connection->GetUniqueName();
    EXPECT_EQ(1U, this->Lines(debugLine, "Called from initializer. Do not block here"));
}

TYPED_TEST(ConnectTest, WithoutOwnerItServesRequests) {
    ASSERT_TRUE(this->Connect());
    EXPECT_FALSE(this->m_connection->GetUniqueName().empty());
    bool hasOwner = false;
    EXPECT_TRUE(this->m_connection->BusHasOwner("org.freedesktop.DBus", 5000, hasOwner));
    const bool dispatches = TestFixture::Row::row.dispatchesWithoutOwner && TestFixture::Row::hasThread;
    if (dispatches) {
        EXPECT_TRUE(TCRecordingPlatform::Get().WaitFor("Started main loop"));
    }
    EXPECT_EQ(dispatches ? 1U : 0U, TCRecordingPlatform::Get().CountStarting(errorLine, "Started main loop"));
}

TYPED_TEST(ConnectTest, TheDispatchThreadHasTheGivenNameAndAWatchdogOf30Seconds) {
    ASSERT_TRUE(this->Connect(&this->m_owner));
    TCRawClient peer(this->m_bus.Address());
    RawSignal signal;
    signal.path = peerPath;
    signal.interface = peerInterface;
    signal.destination = this->m_connection->GetUniqueName();
    peer.Emit(signal);
    ASSERT_TRUE(this->m_owner.WaitForMessages(1));
    constexpr bool hasThread = TestFixture::Row::hasThread;
    EXPECT_EQ(hasThread ? "TransportTest" : TCDefaultContextThread::name, this->m_owner.ThreadName());
    EXPECT_EQ(hasThread ? 1U : 0U,
              TCRecordingPlatform::Get().CountCalls("smart_deadlock_register_watchdog_service(30)"));
    this->m_connection.reset();
    EXPECT_EQ(hasThread ? 1U : 0U,
              TCRecordingPlatform::Get().CountCalls("smart_deadlock_unregister_watchdog_service()"));
}

TYPED_TEST(ConnectTest, DestructionWaitsForTheConnectInProgress) {
    bool initialised = false;
    this->m_owner.onInitialize = [&](TIIpcConnection* connection) {
        MavixApiLite::LiteUtility::SleepMs(20);
        initialised = connection->RequestName("com.norvale.Sim.Own");
        return true;
    };
    this->m_connection->Connect("TransportTest", &this->m_owner);
    this->m_connection.reset();
    EXPECT_TRUE(initialised);
    EXPECT_EQ(0U, this->Lines(infoLine, "[API_LITE][START] Wait for DBUS connection"));
}

TYPED_TEST(ConnectTest, DestructionWithoutConnectIsSilent) {
    this->m_connection.reset();
    EXPECT_TRUE(TCRecordingPlatform::Get().Lines().empty());
}

TYPED_TEST(ConnectTest, LeavesTheBusWhenItIsDestroyed) {
    ASSERT_TRUE(this->Connect(&this->m_owner));
    const std::string name = this->m_connection->GetUniqueName();
    this->m_connection.reset();
    const auto other = TestFixture::Row::Make();
    other->Connect("Other", nullptr);
    EXPECT_TRUE(Await([&] {
        bool hasOwner = true;
        return other->BusHasOwner(name, 5000, hasOwner) && !hasOwner;
    }));
}

} // namespace

} // namespace MavixTest
