#include "Await.h"
#include "TransportFixture.h"

#include <atomic>
#include <chrono>
#include <string>
#include <vector>

// Messages of the user's own, with and without reply.

namespace MavixTest {

namespace {

using MavixApiLite::TIIpcMessage;

template <class Connection>
class SendTest : public TransportTest<Connection> {
protected:
    SendTest() { EXPECT_TRUE(this->Connect(&this->m_owner)); }
};

TYPED_TEST_SUITE(SendTest, Transports, TransportNames);

TYPED_TEST(SendTest, TheReplyReplacesTheRequestInTheMessage) {
    const auto message = this->NewBusCall("GetNameOwner");
    ASSERT_TRUE(message->PushString("org.freedesktop.DBus"));
    ASSERT_TRUE(this->m_connection->SendWithReply(*message, -1));
    TIIpcMessage::IpcMessageType type = TIIpcMessage::MethodReturn;
    EXPECT_TRUE(message->IsOfType(&type, nullptr, nullptr));
    EXPECT_EQ(nullptr, message->GetMember());
    std::string owner;
    EXPECT_TRUE(message->PopString(owner));
    EXPECT_EQ("org.freedesktop.DBus", owner);
}

TYPED_TEST(SendTest, AnErrorReplyIsAReplyToo) {
    const auto message = this->NewBusCall("NoSuchMember");
    ASSERT_TRUE(this->m_connection->SendWithReply(*message, -1));
    TIIpcMessage::IpcMessageType type = TIIpcMessage::Error;
    EXPECT_TRUE(message->IsOfType(&type, nullptr, nullptr));
    EXPECT_STREQ("org.freedesktop.DBus.Error.UnknownMethod", message->GetError());
    EXPECT_EQ(0U, TCRecordingPlatform::Get().CountStarting(errorLine, "[API_LITE]"));
}

TYPED_TEST(SendTest, ACallToNobodyIsAnsweredWithAnError) {
    const auto message = this->NewPeerCall("com.norvale.Sim.Nobody");
    ASSERT_TRUE(this->m_connection->SendWithReply(*message, -1));
    EXPECT_STREQ("org.freedesktop.DBus.Error.ServiceUnknown", message->GetError());
}

TYPED_TEST(SendTest, OnlyAMessageWithoutArgumentsSaysThatPushingWasNotStarted) {
    const auto withArgument = this->NewBusCall("NameHasOwner");
    ASSERT_TRUE(withArgument->PushString("org.freedesktop.DBus"));
    EXPECT_TRUE(this->m_connection->SendWithReply(*withArgument, -1));
    EXPECT_TRUE(this->m_connection->AddMatch("type='signal',member='Unused'"));
    EXPECT_TRUE(this->m_connection->RequestName("com.norvale.Sim.Own"));
    EXPECT_EQ(0U, this->Lines(errorLine, "Pushing not started!"));
    const auto withoutArgument = this->NewBusCall("GetId");
    EXPECT_TRUE(this->m_connection->SendWithReply(*withoutArgument, -1));
    EXPECT_EQ(TestFixture::Row::row.pushEndWithoutPush != nullptr ? 1U : 0U,
              this->Lines(errorLine, "Pushing not started!"));
}

TYPED_TEST(SendTest, ACallerMayFinishTheMessageHimself) {
    const auto message = this->NewBusCall("NameHasOwner");
    ASSERT_TRUE(message->PushString("org.freedesktop.DBus"));
    ASSERT_TRUE(message->PushEnd());
    EXPECT_TRUE(this->m_connection->SendWithReply(*message, -1));
    bool hasOwner = false;
    EXPECT_TRUE(message->PopBool(hasOwner));
    EXPECT_TRUE(hasOwner);
}

TYPED_TEST(SendTest, AnEmptyMessageIsRefused) {
    const auto message = this->NewMessage();
    EXPECT_FALSE(this->m_connection->Send(*message));
    EXPECT_FALSE(this->m_connection->SendWithReply(*message, 5000));
    EXPECT_TRUE(this->m_connection->WaitConnected());
}

// A bus hangs up on who sends it what it keeps to the bus libraries, and no connection comes back.
TYPED_TEST(SendTest, ReservedNamesDoNotCostTheConnection) {
    const struct {
        const char* path;
        const char* interface;
    } rows[] = {
        {"/org/freedesktop/DBus/Local", peerInterface},
        {"/org/freedesktop/DBus/Local/below", peerInterface},
        {"/org/freedesktop/DBus/Localities", peerInterface},
        {"/org/freedesktop/DBus/Loca", peerInterface},
        {peerPath, "org.freedesktop.DBus.Local"},
        {peerPath, "org.freedesktop.DBus.Local.below"},
        {peerPath, "org.freedesktop.DBus.Localities"},
        {peerPath, "org.freedesktop.DBus.Loca"},
    };
    for (const auto& row : rows) {
        for (const TIIpcMessage::IpcMessageType type : {TIIpcMessage::MethodCall, TIIpcMessage::Signal}) {
            SCOPED_TRACE(testing::Message() << row.path << ", " << row.interface << ", type " << type);
            const auto message = this->NewMessage();
            if (message->Initialize(type, "org.freedesktop.DBus", row.path, row.interface, "Member")) {
                EXPECT_TRUE(this->m_connection->Send(*message));
            }
            bool hasOwner = false;
            ASSERT_TRUE(this->m_connection->BusHasOwner("org.freedesktop.DBus", 5000, hasOwner));
        }
    }
}

// A signature holds 255 type codes. What does not fit is refused when it is to leave, or on libdbus when it
// is pushed.
TYPED_TEST(SendTest, TooManyArgumentsDoNotCostTheConnection) {
    for (const int arguments : {255, 256, 511, 1000}) {
        SCOPED_TRACE(arguments);
        const auto told = this->NewBusCall("GetId");
        const auto asked = this->NewBusCall("GetId");
        for (int at = 0; at < arguments; ++at) {
            told->PushInt(at);
            asked->PushInt(at);
        }
        TCRecordingPlatform::Get().Reset();
        const bool fits = arguments <= 255 || !TestFixture::Row::row.argumentsAreUnlimited;
        EXPECT_EQ(fits, this->m_connection->Send(*told));
        EXPECT_EQ(fits, this->m_connection->SendWithReply(*asked, 5000));
        const std::vector<LogLine> lines = TCRecordingPlatform::Get().LinesWith("Too many arguments");
        ASSERT_EQ(fits ? 0U : 2U, lines.size());
        if (!fits) {
            EXPECT_EQ(errorLine, lines[0].priority);
            EXPECT_EQ("Send", lines[0].function);
            EXPECT_EQ("SendWithReply", lines[1].function);
        }
        bool hasOwner = false;
        ASSERT_TRUE(this->m_connection->BusHasOwner("org.freedesktop.DBus", 5000, hasOwner));
    }
}

TYPED_TEST(SendTest, SendingWithoutReplyDoesNotWait) {
    TCRawClient mute(this->m_bus.Address());
    const auto message = this->NewPeerCall(mute.UniqueName());
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(this->m_connection->Send(*message));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

TYPED_TEST(SendTest, TheSameMessageLeavesOnceOrOnLibdbusEachTime) {
    const auto message = this->NewBusCall("GetId");
    EXPECT_TRUE(this->m_connection->Send(*message));
    EXPECT_EQ(TestFixture::Row::row.sendsTwice, this->m_connection->Send(*message));
    EXPECT_STREQ("GetId", message->GetMember());
    EXPECT_EQ(TestFixture::Row::row.sendsTwice, this->m_connection->SendWithReply(*message, 5000));
}

TYPED_TEST(SendTest, ASentMessageIsNotChangedAnyMore) {
    const auto message = this->NewBusCall("GetId");
    EXPECT_TRUE(this->m_connection->Send(*message));
    TCRecordingPlatform::Get().Reset();
    EXPECT_FALSE(message->SetNoReply());
    const bool late = TestFixture::Row::row.sentFailsAtPushEnd;
    EXPECT_EQ(late, message->PushInt(1));
    EXPECT_EQ(!late, message->PushEnd());
    EXPECT_EQ(2U, this->Lines(errorLine, "Message is locked"));
    EXPECT_FALSE(message->PopSkip()) << "nothing was appended";
}

TYPED_TEST(SendTest, ATimeLimitThatPassesFailsOrIsAnErrorReply) {
    TCRawClient mute(this->m_bus.Address());
    const auto message = this->NewPeerCall(mute.UniqueName());
    const bool replied = TestFixture::Row::row.timeoutIsAReply;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(replied, this->m_connection->SendWithReply(*message, 150));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(149));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
    EXPECT_STREQ(replied ? "org.freedesktop.DBus.Error.NoReply" : nullptr, message->GetError());
    EXPECT_STREQ(replied ? nullptr : "Ask", message->GetMember());
}

TYPED_TEST(SendTest, ATimeLimitOfNothingIsOneToo) {
    TCRawClient mute(this->m_bus.Address());
    const auto message = this->NewPeerCall(mute.UniqueName());
    EXPECT_EQ(TestFixture::Row::row.timeoutIsAReply, this->m_connection->SendWithReply(*message, 0));
}

TYPED_TEST(SendTest, AFailedCallKeepsItsMessageOrEmptiesIt) {
    this->m_bus.Kill();
    bool hasOwner = true;
    // The loss may be noticed by the first one only.
    this->m_connection->BusHasOwner("org.freedesktop.DBus", 5000, hasOwner);
    const auto message = this->NewBusCall("GetId");
    EXPECT_FALSE(this->m_connection->SendWithReply(*message, 5000));
    EXPECT_EQ(TestFixture::Row::row.failedCallEmpties, message->GetRawMessage(false) == nullptr);
    EXPECT_TRUE(hasOwner);
}

// A message of GIO that has been sent is locked, and so is a reply.
class GdbusSendTest : public TransportTest<MavixApiLite::TCGdbusConnection> {
protected:
    GdbusSendTest() { EXPECT_TRUE(Connect()); }
};

TEST_F(GdbusSendTest, RequestsFromTheDispatchThreadAreAnswered) {
    TCRawClient peer(m_bus.Address());
    m_connection = Row::Make();
    std::atomic<int> answered{0};
    m_owner.onMessage = [&](TIIpcMessage&) {
        const auto question = NewBusCall("GetId");
        bool hasOwner = false;
        if (m_connection->SendWithReply(*question, -1) &&
            m_connection->BusHasOwner("org.freedesktop.DBus", 5000, hasOwner) && hasOwner) {
            ++answered;
        }
        return true;
    };
    ASSERT_TRUE(Connect(&m_owner));
    RawSignal signal;
    signal.path = peerPath;
    signal.interface = peerInterface;
    signal.destination = m_connection->GetUniqueName();
    peer.Emit(signal);
    peer.Emit(signal);
    EXPECT_TRUE(Await([&] { return answered == 2; }));
}

TEST_F(GdbusSendTest, AReplyIsNotSentOn) {
    const auto message = NewBusCall("GetId");
    ASSERT_TRUE(m_connection->SendWithReply(*message, -1));
    EXPECT_FALSE(m_connection->Send(*message));
    EXPECT_FALSE(m_connection->SendWithReply(*message, 5000));
    std::string id;
    EXPECT_TRUE(message->PopString(id));
}

TEST_F(GdbusSendTest, ATimeLimitThatPassesLeavesTheRequestInTheMessage) {
    TCRawClient mute(m_bus.Address());
    const auto message = NewPeerCall(mute.UniqueName());
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(m_connection->SendWithReply(*message, 150));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(150));
    EXPECT_EQ(1U, Lines(errorLine, "[API_LITE] send_message_with_reply failed!"));
    EXPECT_EQ(1U, Lines(errorLine, "[API_LITE] 'Timeout was reached'"));
    EXPECT_STREQ("Ask", message->GetMember());
}

TEST_F(GdbusSendTest, AQuestionToTheBusThatIsNotSentSaysSo) {
    m_bus.Kill();
    bool hasOwner = true;
    EXPECT_FALSE(m_connection->BusHasOwner("com.norvale.Sim.Own", 5000, hasOwner));
    EXPECT_TRUE(hasOwner);
    EXPECT_EQ(1U, Lines(errorLine, "[API_LITE] send_message_with_reply failed!"));
    EXPECT_EQ(1U, Lines(errorLine, "[API_LITE] 'The connection is closed'"));
    EXPECT_EQ(1U, Lines(errorLine, "Send with reply failed!"));
    EXPECT_FALSE(m_connection->ReleaseName("com.norvale.Sim.Own"));
    EXPECT_EQ(1U, Lines(errorLine, "No reply!"));
    const auto message = NewBusCall("GetId");
    EXPECT_FALSE(m_connection->Send(*message));
    EXPECT_EQ(1U, Lines(errorLine, "[API_LITE] send_message failed!"));
}

} // namespace

} // namespace MavixTest
