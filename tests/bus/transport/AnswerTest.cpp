#include "FakeBus.h"
#include "TransportFixture.h"

#include <climits>
#include <map>
#include <thread>

// What becomes of answers that a real bus does not give, and of a bus that gives none.

namespace MavixTest {

namespace {

using MavixSim::Check;

TCFakeBus::Answer Nothing() {
    return [](sd_bus_message*) {};
}

TCFakeBus::Answer Text(const char* text) {
    return [text](sd_bus_message* reply) { Check(sd_bus_message_append_basic(reply, 's', text), "append"); };
}

TCFakeBus::Answer Number(char type, std::uint32_t number) {
    return [type, number](sd_bus_message* reply) {
        Check(sd_bus_message_append_basic(reply, type, &number), "append");
    };
}

// The transport's fixture with an unreliable bus in the place of the real one.
template <class Connection>
class AnswerTest : public TransportTest<Connection> {
protected:
    bool ConnectTo(std::map<std::string, TCFakeBus::Answer> answers) {
        m_fakeBus = std::make_unique<TCFakeBus>(TCFakeBus::Manners::Serve, std::move(answers));
        return this->Connect();
    }

    ~AnswerTest() override { this->m_connection.reset(); }

    std::unique_ptr<TCFakeBus> m_fakeBus;
};

using GdbusAnswerTest = AnswerTest<MavixApiLite::TCGdbusConnection>;

TEST_F(GdbusAnswerTest, TheCodeOfAReleaseDecides) {
    for (const std::uint32_t code : {1U, 0U, 2U, 3U, 4294967295U}) {
        m_connection = Row::Make();
        TCRecordingPlatform::Get().Reset();
        ASSERT_TRUE(ConnectTo({{"ReleaseName", Number('u', code)}}));
        EXPECT_EQ(code == 1, m_connection->ReleaseName("com.norvale.Sim.Own")) << code;
        EXPECT_EQ(code == 1 ? 0U : 1U, Lines(errorLine, ("Not an owner " + std::to_string(code)).c_str()))
            << code;
    }
}

TEST_F(GdbusAnswerTest, AReleaseWithoutUintFails) {
    for (const auto& answer : {Nothing(), Text("released"), Number('i', 1), Number('b', 1)}) {
        m_connection = Row::Make();
        TCRecordingPlatform::Get().Reset();
        ASSERT_TRUE(ConnectTo({{"ReleaseName", answer}}));
        EXPECT_FALSE(m_connection->ReleaseName("com.norvale.Sim.Own"));
        EXPECT_EQ(1U, Lines(errorLine, "Expected Uint!"));
    }
}

TEST_F(GdbusAnswerTest, AnOwnerQuestionWithoutBooleanFails) {
    for (const auto& answer : {Nothing(), Text("yes"), Number('u', 1)}) {
        m_connection = Row::Make();
        TCRecordingPlatform::Get().Reset();
        ASSERT_TRUE(ConnectTo({{"NameHasOwner", answer}}));
        bool hasOwner = true;
        EXPECT_FALSE(m_connection->BusHasOwner("com.norvale.Sim.Own", 5000, hasOwner));
        EXPECT_TRUE(hasOwner);
        EXPECT_EQ(1U, Lines(errorLine, "Expected boolean!"));
    }
}

TEST_F(GdbusAnswerTest, FurtherArgumentsOfAnAnswerAreIgnored) {
    ASSERT_TRUE(ConnectTo({{"NameHasOwner", [](sd_bus_message* reply) {
                                Check(sd_bus_message_append(reply, "bsu", 1, "more", 7U), "append");
                            }}}));
    bool hasOwner = false;
    EXPECT_TRUE(m_connection->BusHasOwner("com.norvale.Sim.Own", 5000, hasOwner));
    EXPECT_TRUE(hasOwner);
}

TEST_F(GdbusAnswerTest, ASilentBusFailsTheQuestionAfterItsTimeLimit) {
    ASSERT_TRUE(ConnectTo({}));
    bool hasOwner = false;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(m_connection->BusHasOwner("com.norvale.Sim.Own", 250, hasOwner));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(250));
    EXPECT_EQ(1U, Lines(errorLine, "[API_LITE] send_message_with_reply failed!"));
    EXPECT_EQ(1U, Lines(errorLine, "[API_LITE] 'Timeout was reached'"));
    EXPECT_EQ(1U, Lines(errorLine, "Send with reply failed!"));
}

TEST_F(GdbusAnswerTest, SubscriptionsAndNamesDoNotWaitForASilentBus) {
    ASSERT_TRUE(ConnectTo({}));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(m_connection->AddMatch("type='signal'"));
    EXPECT_TRUE(m_connection->RemoveMatch("type='signal'"));
    EXPECT_TRUE(m_connection->RequestName("com.norvale.Sim.Own"));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    EXPECT_TRUE(m_fakeBus->WaitFor("RequestName", 1));
    EXPECT_EQ(1U, m_fakeBus->Count("AddMatch"));
    EXPECT_EQ(1U, m_fakeBus->Count("RemoveMatch"));
}

TEST_F(GdbusAnswerTest, ACallWithoutTimeLimitEndsWithTheConnection) {
    ASSERT_TRUE(ConnectTo({}));
    std::thread caller([this] {
        const auto message = NewPeerCall(":1.2");
        EXPECT_FALSE(m_connection->SendWithReply(*message, INT_MAX));
    });
    EXPECT_TRUE(m_fakeBus->WaitFor("Ask", 1));
    m_fakeBus->Close();
    caller.join();
    EXPECT_EQ(1U, Lines(errorLine, "[API_LITE] send_message_with_reply failed!"));
    EXPECT_EQ(1U, TCRecordingPlatform::Get().CountStarting(errorLine, "[API_LITE] '"));
}

} // namespace

} // namespace MavixTest
