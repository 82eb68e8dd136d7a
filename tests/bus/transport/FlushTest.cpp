#include "Await.h"
#include "FakeBus.h"
#include "TestScale.h"
#include "TransportFixture.h"

#include <chrono>
#include <thread>

// What was accepted for sending leaves before the connection does; a bus that does not read is not waited
// for.

namespace MavixTest {

namespace {

using MavixApiLite::TIIpcConnection;
using MavixApiLite::TIIpcMessage;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

// Together more than any socket holds.
constexpr int bulkMessages = 16;
constexpr std::size_t bulkSize = 256U << 10U;

milliseconds Since(steady_clock::time_point start) {
    return std::chrono::duration_cast<milliseconds>(steady_clock::now() - start);
}

template <class Connection>
class FlushTest : public TransportTest<Connection> {
protected:
    // Sends a signal whose payload has this size, if any.
    bool SendSignal(const char* destination, const std::string& text, std::size_t size = 0) {
        const auto message = this->NewMessage();
        return message->Initialize(TIIpcMessage::Signal, destination, peerPath, peerInterface, "Parting") &&
               message->PushString(text) &&
               (size == 0 || message->PushBytes(std::vector<std::uint8_t>(size, 0x5a))) &&
               this->m_connection->Send(*message);
    }

    // How long destruction takes.
    milliseconds Leave() {
        const auto start = steady_clock::now();
        this->m_connection.reset();
        return Since(start);
    }

    // The text of the next signal that reaches the receiver.
    std::string NextText() {
        std::optional<RawEvent> event = m_receiver.NextEvent();
        // The bus greets it with a signal, too.
        while (event && event->member != "Parting") {
            event = m_receiver.NextEvent();
        }
        return event ? event->texts.at(0) : "nothing";
    }

    void FillTheSocket() {
        for (int at = 0; at < bulkMessages; ++at) {
            EXPECT_TRUE(SendSignal(nullptr, "bulk", bulkSize));
        }
    }

    TCRawClient m_receiver{this->m_bus.Address()};
};

TYPED_TEST_SUITE(FlushTest, Transports, TransportNames);

TYPED_TEST(FlushTest, FiveHundredMessagesRightBeforeTheEndAllArrive) {
    this->m_receiver.KeepUnicast();
    const std::string name = this->m_receiver.UniqueName();
    ASSERT_TRUE(this->Connect(&this->m_owner));
    for (int at = 0; at < 500; ++at) {
        EXPECT_TRUE(this->SendSignal(name.c_str(), std::to_string(at)));
    }
    this->m_connection.reset();
    for (int at = 0; at < 500; ++at) {
        ASSERT_EQ(std::to_string(at), this->NextText());
    }
}

TYPED_TEST(FlushTest, SoDoTheMessagesOfManyShortLives) {
    this->m_receiver.KeepUnicast();
    const std::string name = this->m_receiver.UniqueName();
    const unsigned int rounds = Scaled(100);
    for (unsigned int round = 0; round < rounds; ++round) {
        this->m_connection = TestFixture::Row::Make();
        ASSERT_TRUE(this->Connect());
        for (int at = 0; at < 5; ++at) {
            EXPECT_TRUE(this->SendSignal(name.c_str(), std::to_string(at)));
        }
        this->m_connection.reset();
        for (int at = 0; at < 5; ++at) {
            ASSERT_EQ(std::to_string(at), this->NextText()) << round;
        }
    }
}

TYPED_TEST(FlushTest, ABusThatStopsReadingDelaysTheEndByASecond) {
    TCFakeBus bus(TCFakeBus::Manners::Serve);
    ASSERT_TRUE(this->Connect(&this->m_owner));
    bus.StopReading();
    this->FillTheSocket();
    const milliseconds taken = this->Leave();
    EXPECT_GE(taken, milliseconds(900));
    EXPECT_LT(taken, milliseconds(1500 + 500 * MAVIX_TEST_SCALE_DIVISOR));
}

TYPED_TEST(FlushTest, ABusThatReadsAgainInTimeGetsEverything) {
    TCFakeBus bus(TCFakeBus::Manners::Serve);
    ASSERT_TRUE(this->Connect(&this->m_owner));
    bus.StopReading();
    this->FillTheSocket();
    std::thread reader([&] {
        std::this_thread::sleep_for(milliseconds(200));
        bus.StopReading(false);
    });
    this->m_connection.reset();
    reader.join();
    EXPECT_TRUE(bus.WaitFor("Parting", bulkMessages));
}

TYPED_TEST(FlushTest, ASilentBusThatReadsDoesNotDelayTheEnd) {
    TCFakeBus bus(TCFakeBus::Manners::Serve);
    ASSERT_TRUE(this->Connect(&this->m_owner));
    EXPECT_TRUE(this->SendSignal(nullptr, "text"));
    EXPECT_LT(this->Leave(), milliseconds(900 * MAVIX_TEST_SCALE_DIVISOR));
    EXPECT_TRUE(bus.WaitFor("Parting", 1));
}

TYPED_TEST(FlushTest, ABusThatDiesDuringTheFlushEndsIt) {
    TCFakeBus bus(TCFakeBus::Manners::Serve);
    ASSERT_TRUE(this->Connect(&this->m_owner));
    bus.StopReading();
    this->FillTheSocket();
    std::thread killer([&] {
        std::this_thread::sleep_for(milliseconds(100));
        bus.Close();
    });
    EXPECT_LT(this->Leave(), milliseconds(900 * MAVIX_TEST_SCALE_DIVISOR));
    killer.join();
}

} // namespace

} // namespace MavixTest
