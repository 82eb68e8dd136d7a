#include "Await.h"
#include "ChildProgram.h"
#include "DbusUtility.h"
#include "TestScale.h"
#include "TransportFixture.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <malloc.h>
#include <thread>

// What only the connection over libdbus has: its lines, its thread, the default context.

namespace MavixTest {

namespace {

using MavixApiLite::TCDbusConnection;
using MavixApiLite::TIIpcConnection;
using MavixApiLite::TIIpcMessage;
using std::chrono::milliseconds;
using std::chrono::seconds;

template <class Connection>
class LibdbusTest : public TransportTest<Connection> {
protected:
    void SendTo(TCRawClient& peer, const char* member = "Happened") {
        RawSignal signal;
        signal.path = peerPath;
        signal.interface = peerInterface;
        signal.member = member;
        signal.destination = this->m_connection->GetUniqueName();
        peer.Emit(signal);
    }
};

TYPED_TEST_SUITE(LibdbusTest, LibdbusTransports, TransportNames);

TYPED_TEST(LibdbusTest, EachOperationFirstSaysAtDebugLevelThatItWasCalled) {
    ASSERT_TRUE(this->Connect());
    TIIpcConnection& connection = *this->m_connection;
    const auto message = this->NewBusCall("GetId");
    const auto question = this->NewBusCall("GetId");
    bool hasOwner = false;
    const struct {
        const char* function;
        const char* text;
        std::function<void()> operation;
    } rows[] = {
        {"Send", "[API_LITE] called", [&] { connection.Send(*message); }},
        {"SendWithReply", "[API_LITE] called", [&] { connection.SendWithReply(*question, -1); }},
        {"AddMatch", "[API_LITE] called", [&] { connection.AddMatch("type='signal'"); }},
        {"RemoveMatch", "[API_LITE] called", [&] { connection.RemoveMatch("type='signal'"); }},
        {"GetUniqueName", "[API_LITE] called", [&] { connection.GetUniqueName(); }},
        {"RequestName", "[API_LITE] called", [&] { connection.RequestName("com.norvale.Sim.Own"); }},
        {"ReleaseName", "[API_LITE] called", [&] { connection.ReleaseName("com.norvale.Sim.Own"); }},
        {"BusHasOwner", "[API_LITE] called 5000", [&] { connection.BusHasOwner("a.b", 5000, hasOwner); }},
        {"BusHasOwner", "[API_LITE] called -1", [&] { connection.BusHasOwner("a.b", -1, hasOwner); }},
        {"NewMessage", "[API_LITE] called",
         [&] { connection.GetMessageAllocatorInstance()->NewMessage(nullptr); }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.function);
        TCRecordingPlatform::Get().Reset();
        row.operation();
        std::vector<LogLine> lines;
        for (const LogLine& line : TCRecordingPlatform::Get().Lines()) {
            if (line.source == "DbusConnection") {
                lines.push_back(line);
            }
        }
        ASSERT_EQ(1U, lines.size());
        EXPECT_EQ(debugLine, lines[0].priority);
        EXPECT_EQ(row.function, lines[0].function);
        EXPECT_EQ(row.text, lines[0].text);
    }
}

TYPED_TEST(LibdbusTest, BusRequestsThatReadTheAnswerMayBeMadeWhereItDispatches) {
    std::atomic<int> done{0};
    this->m_owner.onMessage = [&](TIIpcMessage&) {
        done = this->m_connection->AddMatch("type='signal'") &&
                       this->m_connection->RemoveMatch("type='signal'") &&
                       this->m_connection->RequestName("com.norvale.Sim.Own") &&
                       this->m_connection->ReleaseName("com.norvale.Sim.Own")
                   ? 1
                   : -1;
        return true;
    };
    ASSERT_TRUE(this->Connect(&this->m_owner));
    TCRawClient peer(this->m_bus.Address());
    this->SendTo(peer);
    EXPECT_TRUE(Await([&] { return done != 0; }));
    EXPECT_EQ(1, done);
}

TYPED_TEST(LibdbusTest, OthersSendAndGetTheirRepliesDuringALongFilterOnlyIfItReturns) {
    std::promise<void> reached;
    std::promise<void> release;
    this->m_owner.onMessage = [&](TIIpcMessage&) {
        reached.set_value();
        release.get_future().wait();
        return true;
    };
    ASSERT_TRUE(this->Connect(&this->m_owner));
    TCRawClient peer(this->m_bus.Address());
    this->SendTo(peer);
    reached.get_future().wait();
    // Sending does not wait for the filter; what is to be dispatched does.
    EXPECT_TRUE(this->m_connection->Send(*this->NewBusCall("GetId")));
    EXPECT_TRUE(this->m_connection->AddMatch("type='signal',member='Other'"));
    EXPECT_TRUE(this->m_connection->RemoveMatch("type='signal',member='Other'"));
    std::future<bool> answered = std::async(std::launch::async, [this] {
        bool hasOwner = false;
        return this->m_connection->BusHasOwner("org.freedesktop.DBus", -1, hasOwner) && hasOwner;
    });
    EXPECT_EQ(std::future_status::timeout, answered.wait_for(milliseconds(100)));
    release.set_value();
    EXPECT_TRUE(answered.get());
}

TYPED_TEST(LibdbusTest, DestructionWaitsForTheFilterInProgress) {
    std::promise<void> reached;
    std::atomic<bool> left{false};
    this->m_owner.onMessage = [&](TIIpcMessage&) {
        reached.set_value();
        std::this_thread::sleep_for(milliseconds(100));
        left = true;
        return true;
    };
    ASSERT_TRUE(this->Connect(&this->m_owner));
    TCRawClient peer(this->m_bus.Address());
    this->SendTo(peer);
    reached.get_future().wait();
    this->m_connection.reset();
    EXPECT_TRUE(left);
}

// A time limit is shorter than what the dispatch context polls for, and nothing else wakes it.
TYPED_TEST(LibdbusTest, AShortTimeLimitEndsACallOnAnIdleConnection) {
    ASSERT_TRUE(this->Connect());
    TCRawClient mute(this->m_bus.Address());
    for (const int timeoutMs : {1, 300, 20}) {
        const auto message = this->NewPeerCall(mute.UniqueName());
        const auto start = std::chrono::steady_clock::now();
        EXPECT_TRUE(this->m_connection->SendWithReply(*message, timeoutMs));
        EXPECT_STREQ("org.freedesktop.DBus.Error.NoReply", message->GetError());
        EXPECT_LT(std::chrono::steady_clock::now() - start, seconds(4)) << timeoutMs;
    }
}

// Messages that wait for the application count for libdbus until they are freed.
TYPED_TEST(LibdbusTest, AHundredMebibytesThatNobodyReadsDoNotKeepAnswersAway) {
    std::mutex mutex;
    std::vector<void*> kept;
    this->m_owner.onMessage = [&](TIIpcMessage& message) {
        const std::lock_guard<std::mutex> lock(mutex);
        kept.push_back(message.GetRawMessage(true));
        return true;
    };
    ASSERT_TRUE(this->Connect(&this->m_owner));
    TCRawClient peer(this->m_bus.Address());
    const std::vector<std::uint8_t> bytes(10U << 20U);
    for (std::size_t count = 1; count <= 10; ++count) {
        RawCall call;
        call.destination = this->m_connection->GetUniqueName();
        call.path = peerPath;
        call.interface = peerInterface;
        call.noReply = true;
        call.body = [&bytes](sd_bus_message* message) {
            MavixSim::Check(sd_bus_message_append_array(message, 'y', bytes.data(), bytes.size()), "append");
        };
        peer.Send(call);
        ASSERT_TRUE(this->m_owner.WaitForMessages(count)) << count;
    }
    bool hasOwner = false;
    EXPECT_TRUE(this->m_connection->BusHasOwner("org.freedesktop.DBus", 20000, hasOwner));
    for (void* raw : kept) {
        this->m_connection->GetMessageAllocatorInstance()->DeleteRawMessage(raw);
    }
    EXPECT_TRUE(this->m_connection->BusHasOwner("org.freedesktop.DBus", 20000, hasOwner));
}

TYPED_TEST(LibdbusTest, AThousandConnectionsLeaveNoMemory) {
    const auto live = [this] {
        this->m_connection = TestFixture::Row::Make();
        ASSERT_TRUE(this->Connect(&this->m_owner));
        EXPECT_TRUE(this->m_connection->AddMatch("type='signal',interface='com.norvale.Sim.Peer'"));
        bool hasOwner = false;
        EXPECT_TRUE(this->m_connection->BusHasOwner("org.freedesktop.DBus", 20000, hasOwner));
        this->m_connection.reset();
        TCRecordingPlatform::Get().Reset();
    };
    for (int round = 0; round < 20; ++round) {
        live();
    }
    const std::size_t before = mallinfo2().uordblks;
    const unsigned int rounds = Scaled(1000);
    for (unsigned int round = 0; round < rounds && !this->HasFailure(); ++round) {
        live();
    }
    // A hundred bytes a round would be a leak; the owner's record of the bus's greetings is less.
    EXPECT_LT(mallinfo2().uordblks, before + 100U * rounds);
}

// Arguments: none, or "context" for the default context. Calls from where it dispatches, and for two seconds
// nothing happens; the output says so.
MAVIX_CHILD(WaitWhereItDispatches) {
    const TCPrivateBus bus;
    std::unique_ptr<TIIpcConnection> connection =
        arguments.empty() ? Transport<TCDbusConnection>::Make() : Transport<TCIteratedDbusConnection>::Make();
    std::atomic<bool> asked{false};
    std::atomic<bool> answered{false};
    TCRecordingOwner owner;
    owner.onMessage = [&](TIIpcMessage&) {
        asked = true;
        bool hasOwner = false;
        connection->BusHasOwner("org.freedesktop.DBus", 200, hasOwner);
        answered = true;
        return true;
    };
    connection->Connect("Child", &owner);
    TCRawClient peer(bus.Address());
    RawSignal signal;
    signal.path = peerPath;
    signal.interface = peerInterface;
    signal.destination = connection->GetUniqueName();
    peer.Emit(signal);
    const bool begun = Await([&asked] { return asked.load(); });
    std::this_thread::sleep_for(seconds(2));
    std::printf("asked %d, answered %d\n", begun ? 1 : 0, answered ? 1 : 0);
    std::fflush(stdout);
    _exit(0);
}

TEST(LibdbusDispatch, ASynchronousCallFromItsThreadWaitsForEver) {
    for (const char* context : {"", "context"}) {
        const std::vector<std::string> arguments =
            *context != '\0' ? std::vector<std::string>{context} : std::vector<std::string>{};
        const ChildResult result = RunChildProgram("WaitWhereItDispatches", plainFlavour, arguments);
        EXPECT_EQ("asked 1, answered 0\n", result.output) << context << result.errors;
    }
}

class LibdbusDefaultContext : public testing::Test {
protected:
    TCGlibLog m_complaints;
    TCPrivateBus m_bus;
    TCRecordingOwner m_owner;
    TCDbusConnection m_connection{1, true};
};

TEST_F(LibdbusDefaultContext, WithoutIterationOnlyWhatNeedsNoDispatchHappens) {
    m_owner.onMessage = [](TIIpcMessage&) { return true; };
    m_connection.Connect("Default", &m_owner);
    ASSERT_TRUE(m_connection.WaitConnected());
    EXPECT_EQ(0U, TCRecordingPlatform::Get().CountStarting(errorLine, "Started main loop"));
    EXPECT_TRUE(m_connection.AddMatch("type='signal',interface='com.norvale.Sim.Peer'"));
    EXPECT_TRUE(m_connection.RequestName("com.norvale.Sim.Own"));
    EXPECT_TRUE(m_connection.ReleaseName("com.norvale.Sim.Own"));
    EXPECT_TRUE(m_connection.RemoveMatch("type='signal',interface='com.norvale.Sim.Peer'"));
    TCRawClient peer(m_bus.Address());
    RawSignal signal;
    signal.path = peerPath;
    signal.interface = peerInterface;
    signal.destination = m_connection.GetUniqueName();
    peer.Emit(signal);
    std::future<bool> answered = std::async(std::launch::async, [this] {
        bool hasOwner = false;
        return m_connection.BusHasOwner("org.freedesktop.DBus", 20000, hasOwner) && hasOwner;
    });
    EXPECT_EQ(std::future_status::timeout, answered.wait_for(milliseconds(200)));
    EXPECT_TRUE(m_owner.Messages().empty());
    // Everything comes with the first iterations.
    EXPECT_TRUE(Await([&] {
        g_main_context_iteration(nullptr, FALSE);
        return answered.wait_for(seconds(0)) == std::future_status::ready && m_owner.Messages().size() == 1;
    }));
    EXPECT_TRUE(answered.get());
}

// The connection dispatches inside the application's own loop, and may end there.
TEST_F(LibdbusDefaultContext, AConnectionMayBeDestroyedByItsOwnFilter) {
    auto connection = std::make_unique<TCDbusConnection>(1, true);
    m_owner.onMessage = [&connection](TIIpcMessage&) {
        connection.reset();
        return true;
    };
    connection->Connect("Default", &m_owner);
    ASSERT_TRUE(connection->WaitConnected());
    TCRawClient peer(m_bus.Address());
    RawSignal signal;
    signal.path = peerPath;
    signal.interface = peerInterface;
    signal.destination = connection->GetUniqueName();
    peer.Emit(signal);
    peer.Emit(signal);
    EXPECT_TRUE(Await([&] {
        g_main_context_iteration(nullptr, FALSE);
        return connection == nullptr;
    }));
    for (int at = 0; at < 10; ++at) {
        g_main_context_iteration(nullptr, FALSE);
    }
    EXPECT_EQ(1U, m_owner.Messages().size());
}

// A loop inside a filter gets no messages: GLib does not re-enter what it dispatches.
TEST_F(LibdbusDefaultContext, ALoopInsideAFilterDispatchesOthersOnly) {
    bool timerRan = false;
    m_owner.onMessage = [&](TIIpcMessage&) {
        g_timeout_add(
            0,
            [](gpointer ran) -> gboolean {
                *static_cast<bool*>(ran) = true;
                return G_SOURCE_REMOVE;
            },
            &timerRan);
        for (int at = 0; at < 100 && !timerRan; ++at) {
            g_main_context_iteration(nullptr, TRUE);
        }
        return true;
    };
    m_connection.Connect("Default", &m_owner);
    ASSERT_TRUE(m_connection.WaitConnected());
    TCRawClient peer(m_bus.Address());
    RawSignal signal;
    signal.path = peerPath;
    signal.interface = peerInterface;
    signal.destination = m_connection.GetUniqueName();
    peer.Emit(signal);
    EXPECT_TRUE(Await([&] {
        g_main_context_iteration(nullptr, FALSE);
        return m_owner.Messages().size() == 1;
    }));
    EXPECT_TRUE(timerRan);
}

} // namespace

} // namespace MavixTest
