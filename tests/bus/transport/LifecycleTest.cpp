#include "Await.h"
#include "ProcessCounts.h"
#include "TestScale.h"
#include "TransportFixture.h"

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

// Connecting and leaving, over and over, and with traffic going on.

namespace MavixTest {

namespace {

using MavixApiLite::TIIpcConnection;
using MavixApiLite::TIIpcMessage;

template <class Connection>
class LifecycleTest : public TransportTest<Connection> {
protected:
    // One connection's life; `use` comes between connecting and leaving.
    void Live(const std::function<void(TIIpcConnection&)>& use) {
        this->m_connection = Transport<Connection>::Make();
        ASSERT_TRUE(this->Connect(&this->m_owner));
        use(*this->m_connection);
        this->m_connection.reset();
    }

    // Runs rounds, and finds as many descriptors and threads after them as before.
    void ExpectNothingLeft(const std::function<void()>& round) {
        // What a process keeps once it has used a connection.
        for (int at = 0; at < 3; ++at) {
            round();
        }
        g_main_context_iteration(nullptr, FALSE);
        const std::size_t descriptors = Descriptors();
        const std::size_t threads = Threads();
        const unsigned int rounds = Scaled(1000);
        for (unsigned int at = 0; at < rounds && !this->HasFailure(); ++at) {
            round();
        }
        // Threads that were joined leave the list a little later.
        EXPECT_TRUE(Await([&] { return Threads() <= threads; })) << Threads() << " after " << threads;
        // GIO leaves a filter's data that was in use when the filter was removed to the default context.
        EXPECT_TRUE(Await([&] {
            while (g_main_context_iteration(nullptr, FALSE) != FALSE) {
            }
            return Descriptors() <= descriptors;
        })) << Descriptors()
            << " after " << descriptors;
    }
};

TYPED_TEST_SUITE(LifecycleTest, Transports, TransportNames);

TYPED_TEST(LifecycleTest, AThousandConnectionsLeaveNoDescriptorAndNoThread) {
    this->ExpectNothingLeft([this] {
        this->Live([](TIIpcConnection& connection) {
            EXPECT_TRUE(connection.AddMatch("type='signal',interface='com.norvale.Sim.Peer'"));
            bool hasOwner = false;
            EXPECT_TRUE(connection.BusHasOwner("org.freedesktop.DBus", 20000, hasOwner));
        });
    });
}

TYPED_TEST(LifecycleTest, LeavingWhileConnectingLeavesNoDescriptorAndNoThread) {
    this->ExpectNothingLeft([this] {
        this->m_connection = TestFixture::Row::Make();
        this->m_connection->Connect("TransportTest", &this->m_owner);
        this->m_connection.reset();
    });
}

TYPED_TEST(LifecycleTest, LeavingWhilePeersSendIsSafe) {
    this->m_owner.onMessage = [](TIIpcMessage&) { return true; };
    std::mutex mutex;
    std::string target;
    std::atomic<bool> done{false};
    std::thread sender([&] {
        TCRawClient peer(this->m_bus.Address());
        RawSignal last;
        last.path = peerPath;
        last.interface = peerInterface;
        while (!done) {
            RawCall call;
            call.path = peerPath;
            call.interface = peerInterface;
            call.noReply = true;
            call.body = [](sd_bus_message*) {};
            {
                const std::lock_guard<std::mutex> lock(mutex);
                call.destination = target;
            }
            for (int at = 0; at < 20 && !call.destination.empty(); ++at) {
                peer.Send(call);
            }
            // Waits for the bus, so that messages to one that has left do not pile up.
            last.destination = call.destination;
            peer.Emit(last);
        }
    });
    const unsigned int rounds = Scaled(200);
    for (unsigned int at = 0; at < rounds; ++at) {
        const std::size_t before = this->m_owner.Messages().size();
        this->Live([&](TIIpcConnection& connection) {
            {
                const std::lock_guard<std::mutex> lock(mutex);
                target = connection.GetUniqueName();
            }
            EXPECT_TRUE(this->m_owner.WaitForMessages(before + 5));
        });
    }
    done = true;
    sender.join();
}

// Between the owner's initialiser and the first dispatch nobody of ours answers: the bus library does, or the
// call is answered later. No call may be lost, and none may disturb.
TYPED_TEST(LifecycleTest, APeerThatHammersDuringConnectIsAlwaysAnswered) {
    constexpr const char* hammered = "com.norvale.Sim.Hammered";
    const unsigned int rounds = Scaled(100);
    for (unsigned int at = 0; at < rounds; ++at) {
        std::atomic<unsigned int> answers{0};
        std::atomic<bool> done{false};
        std::thread peer([&] {
            TCRawClient client(this->m_bus.Address());
            RawCall call;
            call.destination = hammered;
            call.path = peerPath;
            call.interface = peerInterface;
            call.member = "Hammer";
            call.body = [](sd_bus_message*) {};
            while (!done) {
                const RawReply reply = client.Call(call);
                const bool early = reply.errorName == "org.freedesktop.DBus.Error.ServiceUnknown" ||
                                   reply.errorName == "org.freedesktop.DBus.Error.NameHasNoOwner";
                if (!early) {
                    EXPECT_EQ("org.freedesktop.DBus.Error.UnknownMethod", reply.errorName);
                    ++answers;
                }
            }
        });
        this->m_owner.onInitialize = [&](TIIpcConnection* connection) {
            // Sometimes the peer is let in before, sometimes after the initialiser has ended.
            return connection->RequestName(hammered) && (at % 2 == 0 || Await([&] { return answers >= 3; }));
        };
        const std::size_t seen = this->m_owner.Messages().size();
        this->Live([&](TIIpcConnection&) {
            EXPECT_TRUE(this->m_owner.WaitForMessages(seen + 3));
            done = true;
            peer.join();
        });
    }
}

} // namespace

} // namespace MavixTest
