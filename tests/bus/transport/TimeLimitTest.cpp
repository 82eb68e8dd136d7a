#include "DbusBusWrapper.h"
#include "FailingConnection.h"
#include "FakeBus.h"
#include "TransportFixture.h"

#include <chrono>

// The time limits that are waited out.

namespace MavixTest {

namespace {

using MavixApiLite::DbusBusWrapper;
using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

using GdbusTimeLimitTest = TransportTest<MavixApiLite::TCGdbusConnection>;

TEST_F(GdbusTimeLimitTest, AServiceThatNeverAnswersIsGivenUpAfter25Seconds) {
    ASSERT_TRUE(Connect());
    TCRawClient mute(m_bus.Address());
    const auto message = NewPeerCall(mute.UniqueName());
    ASSERT_TRUE(message->PushString("question"));
    TCRecordingPlatform::Get().Reset();
    const auto start = steady_clock::now();
    EXPECT_FALSE(m_connection->SendWithReply(*message, -1));
    EXPECT_GE(steady_clock::now() - start, milliseconds(24900));
    EXPECT_LT(steady_clock::now() - start, seconds(35));
    const std::vector<LogLine> lines = TCRecordingPlatform::Get().Lines();
    ASSERT_EQ(2U, lines.size());
    EXPECT_EQ("[API_LITE] send_message_with_reply failed!", lines[0].text);
    EXPECT_EQ("[API_LITE] 'Timeout was reached'", lines[1].text);
    EXPECT_EQ(errorLine, lines[0].priority);
    EXPECT_EQ(errorLine, lines[1].priority);
    EXPECT_STREQ("Ask", message->GetMember());
}

TEST_F(GdbusTimeLimitTest, ABusThatNeverAnswersKeepsAReleaseFor25Seconds) {
    TCFakeBus silent(TCFakeBus::Manners::Serve);
    ASSERT_TRUE(Connect());
    const auto start = steady_clock::now();
    EXPECT_FALSE(m_connection->ReleaseName("com.norvale.Sim.Own"));
    EXPECT_GE(steady_clock::now() - start, milliseconds(24900));
    EXPECT_EQ(1U, Lines(errorLine, "[API_LITE] 'Timeout was reached'"));
    EXPECT_EQ(1U, Lines(errorLine, "No reply!"));
    m_connection.reset();
}

TEST_F(GdbusTimeLimitTest, ABusThatDoesNotGreetFailsTheConnectAfter25Seconds) {
    TCFakeBus silent(TCFakeBus::Manners::Silent);
    FailingConnection connection;
    const auto start = steady_clock::now();
    connection.Connect("TimeLimit", nullptr);
    EXPECT_FALSE(connection.WaitConnected());
    EXPECT_GE(steady_clock::now() - start, milliseconds(24900));
    EXPECT_LT(steady_clock::now() - start, seconds(35));
    EXPECT_EQ(1, connection.failures);
    EXPECT_EQ(1U, Lines(errorLine, "[API_LITE] m_Connect failed!"));
}

template <class Connection>
class TimeLimitTest : public TransportTest<Connection> {};

TYPED_TEST_SUITE(TimeLimitTest, Transports, TransportNames);

TYPED_TEST(TimeLimitTest, ANameThatNeverGetsAnOwnerIsGivenUpAfter25Seconds) {
    ASSERT_TRUE(this->Connect());
    const std::shared_ptr<MavixApiLite::TIIpcConnection> connection = std::move(this->m_connection);
    const auto start = steady_clock::now();
    EXPECT_FALSE(DbusBusWrapper("com.norvale.Sim.Never", connection).WaitForCreate());
    EXPECT_GE(steady_clock::now() - start, seconds(25));
    EXPECT_LT(steady_clock::now() - start, seconds(35));
    EXPECT_EQ(1U, this->Lines(errorLine, "[API_LITE][END] TIMEOUT, Cannot connect to the "
                                         "com.norvale.Sim.Never bus name"));
    const std::size_t progress =
        TCRecordingPlatform::Get().CountStarting(debugLine, "[API_LITE] Waiting for connection, duration: ");
    EXPECT_GE(progress, 15U);
    EXPECT_LE(progress, 26U);
    // An answer without owner is no error. A dispatch thread says that it runs and is alive.
    std::size_t errors = 0;
    for (const LogLine& line : TCRecordingPlatform::Get().Lines()) {
        const bool ofTheLoop = line.source == "GMainLoopHandler" || line.source == "WatchdogHandler";
        errors += line.priority == errorLine && !ofTheLoop ? 1U : 0U;
    }
    EXPECT_EQ(1U, errors);
}

} // namespace

} // namespace MavixTest
