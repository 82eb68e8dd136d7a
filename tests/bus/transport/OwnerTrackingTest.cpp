#include "Await.h"
#include "DbusBusWrapper.h"
#include "TransportFixture.h"

#include <atomic>
#include <memory>
#include <thread>

// Owner tracking over a real bus.

namespace MavixTest {

namespace {

using MavixApiLite::DbusBusWrapper;
using MavixApiLite::TIIpcConnection;
using MavixApiLite::TIIpcMessage;

constexpr const char* watched = "com.norvale.Sim.Watched";

template <class Connection>
class OwnerTrackingTest : public testing::Test {
protected:
    OwnerTrackingTest() {
        m_connection->Connect("OwnerTracking", &m_owner);
        EXPECT_TRUE(m_connection->WaitConnected());
    }

    void LetTheBusCatchUp() {
        bool hasOwner = false;
        EXPECT_TRUE(m_connection->BusHasOwner("org.freedesktop.DBus", 20000, hasOwner));
    }

    // Counts the owner changes that arrive.
    class Owner final : public MavixApiLite::TIIpcConnectionOwner {
    public:
        bool InitializeIpcConnection(TIIpcConnection*) override { return true; }
        bool FilterIpcMessage(TIIpcMessage& message) override {
            if (DbusBusWrapper::IsBusMessage(message) != DbusBusWrapper::OwnerChanged) {
                return false;
            }
            std::string name;
            if (message.PopString(name) && name == watched) {
                ++changes;
            } else {
                ++others;
            }
            return true;
        }
        std::atomic<int> changes{0};
        std::atomic<int> others{0};
    };

    TCPrivateBus m_bus;
    Owner m_owner;
    std::shared_ptr<TIIpcConnection> m_connection = Transport<Connection>::Make();
};

TYPED_TEST_SUITE(OwnerTrackingTest, Transports, TransportNames);

TYPED_TEST(OwnerTrackingTest, OwnerChangesOfTheWatchedNameArriveWhileItIsWatched) {
    auto wrapper = std::make_unique<DbusBusWrapper>(watched, this->m_connection);
    EXPECT_TRUE(wrapper->SubscribeForOwnerChanged());
    this->LetTheBusCatchUp();
    {
        TCRawClient peer(this->m_bus.Address());
        ASSERT_EQ(0, peer.RequestName("com.norvale.Sim.Other"));
        ASSERT_EQ(0, peer.RequestName(watched));
        EXPECT_TRUE(Await([&] { return this->m_owner.changes == 1; }));
    }
    EXPECT_TRUE(Await([&] { return this->m_owner.changes == 2; }));
    wrapper.reset();
    this->LetTheBusCatchUp();
    TCRawClient later(this->m_bus.Address());
    ASSERT_EQ(0, later.RequestName(watched));
    this->LetTheBusCatchUp();
    EXPECT_EQ(2, this->m_owner.changes);
    EXPECT_EQ(0, this->m_owner.others);
}

TYPED_TEST(OwnerTrackingTest, TheWaitEndsWhenTheNameGetsItsOwner) {
    DbusBusWrapper wrapper(watched, this->m_connection);
    bool created = false;
    std::thread waiter([&] { created = wrapper.WaitForCreate(); });
    EXPECT_TRUE(TCRecordingPlatform::Get().WaitFor("[API_LITE] Waiting for connection, duration: "));
    TCRawClient peer(this->m_bus.Address());
    ASSERT_EQ(0, peer.RequestName(watched));
    waiter.join();
    EXPECT_TRUE(created);
    EXPECT_EQ(0U, TCRecordingPlatform::Get().CountStarting(errorLine, "[API_LITE][END] TIMEOUT"));
    // Owned from now on, it is found at once.
    const std::size_t lines =
        TCRecordingPlatform::Get().CountStarting(debugLine, "[API_LITE] Waiting for connection");
    EXPECT_TRUE(wrapper.WaitForCreate());
    EXPECT_EQ(lines,
              TCRecordingPlatform::Get().CountStarting(debugLine, "[API_LITE] Waiting for connection"));
}

TYPED_TEST(OwnerTrackingTest, AForgedOwnerChangeIsStillOfThatKind) {
    // The bus policy keeps forgeries away; without it the kind of a message is all that is looked at.
    const auto message = this->m_connection->GetMessageAllocatorInstance()->NewMessage(nullptr);
    ASSERT_TRUE(message->Initialize(TIIpcMessage::Signal, nullptr, "/any/path", "org.freedesktop.DBus",
                                    "NameOwnerChanged"));
    EXPECT_EQ(DbusBusWrapper::OwnerChanged, DbusBusWrapper::IsBusMessage(*message));
}

} // namespace

} // namespace MavixTest
