#include "Await.h"
#include "DbusBusWrapper.h"
#include "TransportFixture.h"

#include <atomic>
#include <stdexcept>

// Incoming messages: who gets them, in which order, and what becomes of those that nobody handles.

namespace MavixTest {

namespace {

using MavixApiLite::DbusBusWrapper;
using MavixApiLite::TIIpcMessage;

constexpr const char* unknownMethod = "org.freedesktop.DBus.Error.UnknownMethod";

template <class Connection>
class DispatchTest : public TransportTest<Connection> {
protected:
    // A method call of the peer to the connection.
    RawCall Ask(const char* member = "Ask") {
        RawCall call;
        call.destination = this->m_connection->GetUniqueName();
        call.path = peerPath;
        call.interface = peerInterface;
        call.member = member;
        call.body = [](sd_bus_message*) {};
        return call;
    }

    void Emit(const std::string& member) {
        RawSignal signal;
        signal.path = peerPath;
        signal.interface = peerInterface;
        signal.member = member;
        signal.destination = this->m_connection->GetUniqueName();
        m_peer.Emit(signal);
    }

    TCRawClient m_peer{this->m_bus.Address()};
};

TYPED_TEST_SUITE(DispatchTest, Transports, TransportNames);

TYPED_TEST(DispatchTest, AMethodCallThatTheOwnerLeavesAloneIsAnsweredWithUnknownMethod) {
    ASSERT_TRUE(this->Connect(&this->m_owner));
    const RawReply reply = this->m_peer.Call(this->Ask());
    const TransportRow& row = TestFixture::Row::row;
    EXPECT_EQ(unknownMethod, reply.errorName);
    EXPECT_EQ(row.unknownMethodText, reply.errorText);
    EXPECT_EQ(std::vector<std::string>{"Ask"}, this->m_owner.Messages());
    EXPECT_EQ(1U, this->UnhandledLines());
    EXPECT_EQ(row.pushEndWithoutPush != nullptr ? 1U : 0U, this->Lines(errorLine, "Pushing not started!"));
}

TYPED_TEST(DispatchTest, AHandledMethodCallGetsNothingButWhatItsOwnerSends) {
    this->m_owner.onMessage = [this](TIIpcMessage& message) {
        const auto reply = this->NewMessage();
        return reply->InitializeReply(message) && reply->PushString("answer") &&
               this->m_connection->Send(*reply);
    };
    ASSERT_TRUE(this->Connect(&this->m_owner));
    const RawReply reply = this->m_peer.Call(this->Ask());
    EXPECT_FALSE(reply.IsError()) << reply.errorName;
    EXPECT_EQ("s", reply.Signature());
    EXPECT_EQ(0U, this->UnhandledLines());
}

TYPED_TEST(DispatchTest, AHandledCallWithoutAnswerStaysUnanswered) {
    this->m_owner.onMessage = [](TIIpcMessage&) { return true; };
    ASSERT_TRUE(this->Connect(&this->m_owner));
    const RawReply reply = this->m_peer.Call(this->Ask(), std::chrono::milliseconds(200));
    EXPECT_EQ("org.freedesktop.DBus.Error.Timeout", reply.errorName);
    EXPECT_EQ(1U, this->m_owner.Messages().size());
}

TYPED_TEST(DispatchTest, AnUnhandledSignalIsDroppedWithoutAnError) {
    ASSERT_TRUE(this->Connect(&this->m_owner));
    this->Emit("Happened");
    // Answered after the signal was dispatched.
    this->m_peer.Call(this->Ask());
    EXPECT_EQ((std::vector<std::string>{"Happened", "Ask"}), this->m_owner.Messages());
    EXPECT_EQ(TestFixture::Row::row.saysUnhandledOfAll ? 2U : 1U, this->UnhandledLines());
    EXPECT_EQ(0U, TCRecordingPlatform::Get().CountStarting(errorLine, "[API_LITE]"));
}

TYPED_TEST(DispatchTest, AMethodCallWithoutInterfaceIsAnsweredThoughItsClassificationMayThrow) {
    this->m_owner.onMessage = [](TIIpcMessage& message) {
        return DbusBusWrapper::IsBusMessage(message) != DbusBusWrapper::NotABusMessage;
    };
    ASSERT_TRUE(this->Connect(&this->m_owner));
    RawCall call = this->Ask();
    call.interface.reset();
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(unknownMethod, this->m_peer.Call(call).errorName);
    }
    EXPECT_EQ(TestFixture::Row::row.missingFieldThrows ? 3U : 0U,
              TCRecordingPlatform::Get().CountStarting(errorLine, "[API_LITE] exception: "));
    EXPECT_EQ(unknownMethod, this->m_peer.Call(this->Ask()).errorName);
    EXPECT_EQ(4U, this->m_owner.Messages().size());
}

TYPED_TEST(DispatchTest, AnOwnerThatThrowsCountsAsNotHandled) {
    std::atomic<int> round{0};
    this->m_owner.onMessage = [&round](TIIpcMessage&) -> bool {
        if (++round == 1) {
            throw std::runtime_error("out of order");
        }
        if (round == 2) {
            throw 5;
        }
        return false;
    };
    ASSERT_TRUE(this->Connect(&this->m_owner));
    for (int at = 0; at < 3; ++at) {
        EXPECT_EQ(unknownMethod, this->m_peer.Call(this->Ask()).errorName);
    }
    EXPECT_EQ(3, round);
    EXPECT_EQ(1U, this->Lines(errorLine, "[API_LITE] exception: out of order"));
    EXPECT_EQ(1U, this->Lines(errorLine, "[API_LITE] exception of unknown type"));
}

TYPED_TEST(DispatchTest, MessagesComeInTheOrderOfTheBus) {
    ASSERT_TRUE(this->Connect(&this->m_owner));
    std::vector<std::string> expected;
    for (int at = 0; at < 300; ++at) {
        const std::string member = (at % 3 == 0 ? "Call" : "Signal") + std::to_string(at);
        if (at % 3 == 0) {
            RawCall call = this->Ask(member.c_str());
            call.noReply = at % 2 == 0;
            this->m_peer.Send(call);
        } else {
            this->Emit(member);
        }
        expected.push_back(member);
    }
    ASSERT_TRUE(this->m_owner.WaitForMessages(expected.size()));
    EXPECT_EQ(expected, this->m_owner.Messages());
}

TYPED_TEST(DispatchTest, TheMessagesThatTheOwnerGetsCanBeRead) {
    std::string text;
    std::string sender;
    this->m_owner.onMessage = [&](TIIpcMessage& message) {
        sender = message.GetSender();
        return message.PopString(text);
    };
    ASSERT_TRUE(this->Connect(&this->m_owner));
    RawSignal signal;
    signal.path = peerPath;
    signal.interface = peerInterface;
    signal.destination = this->m_connection->GetUniqueName();
    signal.texts = {"the text"};
    this->m_peer.Emit(signal);
    this->m_peer.Emit(signal);
    ASSERT_TRUE(this->m_owner.WaitForMessages(2));
    this->m_connection.reset();
    EXPECT_EQ("the text", text);
    EXPECT_EQ(this->m_peer.UniqueName(), sender);
}

TYPED_TEST(DispatchTest, NothingIsDeliveredAfterDestruction) {
    ASSERT_TRUE(this->Connect(&this->m_owner));
    this->Emit("Before");
    ASSERT_TRUE(this->m_owner.WaitForMessages(1));
    const RawCall call = this->Ask();
    this->m_connection.reset();
    EXPECT_TRUE(this->m_peer.Call(call).IsError());
    EXPECT_EQ(std::vector<std::string>{"Before"}, this->m_owner.Messages());
}

TYPED_TEST(DispatchTest, SignalsOfTheBusItselfReachTheOwnerToo) {
    ASSERT_TRUE(this->Connect(&this->m_owner));
    EXPECT_TRUE(this->m_connection->RequestName("com.norvale.Sim.Own"));
    EXPECT_TRUE(this->m_connection->ReleaseName("com.norvale.Sim.Own"));
    EXPECT_TRUE(Await([this] {
        const std::vector<std::string> signals = this->m_owner.BusSignals();
        return !signals.empty() && signals.back() == "NameLost";
    }));
    const std::vector<std::string> signals = this->m_owner.BusSignals();
    ASSERT_GE(signals.size(), 2U);
    EXPECT_EQ("NameAcquired", signals[signals.size() - 2]);
}

TYPED_TEST(DispatchTest, RepliesReachTheirCallerAndOthersMaybeTheOwner) {
    ASSERT_TRUE(this->Connect(&this->m_owner));
    for (const char* member : {"GetId", "NoSuchMember"}) {
        const auto asked = this->NewBusCall(member);
        EXPECT_TRUE(this->m_connection->SendWithReply(*asked, -1));
        const auto told = this->NewBusCall(member);
        EXPECT_TRUE(this->m_connection->Send(*told));
    }
    // Comes after the replies.
    this->m_peer.Call(this->Ask());
    EXPECT_EQ(std::vector<std::string>{"Ask"}, this->m_owner.Messages());
    EXPECT_EQ(TestFixture::Row::row.repliesReachTheOwner ? 2U : 0U, this->m_owner.Replies());
}

TYPED_TEST(DispatchTest, APingIsAnsweredByTheBusLibraryOrBecomesTheOwnersAffair) {
    ASSERT_TRUE(this->Connect(&this->m_owner));
    RawCall ping = this->Ask("Ping");
    ping.interface = "org.freedesktop.DBus.Peer";
    const bool reaches = TestFixture::Row::row.pingsReachTheOwner;
    EXPECT_EQ(reaches ? unknownMethod : "", this->m_peer.Call(ping).errorName);
    EXPECT_EQ(reaches ? 1U : 0U, this->m_owner.Messages().size());
}

using GdbusDispatchTest = DispatchTest<MavixApiLite::TCGdbusConnection>;

TEST_F(GdbusDispatchTest, AnUnhandledSignalLeavesNoLine) {
    ASSERT_TRUE(Connect(&m_owner));
    ASSERT_TRUE(TCRecordingPlatform::Get().WaitFor("Started main loop"));
    TCRecordingPlatform::Get().Reset();
    Emit("Happened");
    // Answered after the signal was dispatched.
    m_peer.Call(Ask());
    std::vector<std::string> lines;
    for (const LogLine& line : TCRecordingPlatform::Get().Lines()) {
        lines.push_back(line.text);
    }
    EXPECT_EQ((std::vector<std::string>{"Unhandled method", "Pushing not started!"}), lines);
}

// The source of a handler that still runs is left alone until its thread has ended.
TEST_F(GdbusDispatchTest, DestructionEndsTheThreadBeforeTheSource) {
    bool destroyed = true;
    std::atomic<bool> running{false};
    m_owner.onMessage = [&](TIIpcMessage&) {
        GSource* const source = g_main_current_source();
        GMainContext* const context = g_source_get_context(source);
        const auto attachSource = [context] {
            const MavixApiLite::SourceHandle any(g_timeout_source_new(1000000));
            return g_source_attach(any.get(), context);
        };
        // The next source after this one is the one that ends the thread.
        const guint last = attachSource();
        running = true;
        EXPECT_TRUE(Await([&] {
            destroyed = g_source_is_destroyed(source) != FALSE;
            return destroyed || g_main_context_find_source_by_id(context, last + 1) != nullptr;
        }));
        return true;
    };
    ASSERT_TRUE(Connect(&m_owner));
    Emit("Happened");
    ASSERT_TRUE(Await([&] { return running.load(); }));
    m_connection.reset();
    EXPECT_FALSE(destroyed);
}

TEST_F(GdbusDispatchTest, WithoutOwnerGioAnswersByItself) {
    ASSERT_TRUE(Connect());
    RawCall ping = Ask("Ping");
    ping.interface = "org.freedesktop.DBus.Peer";
    EXPECT_FALSE(m_peer.Call(ping).IsError());
    EXPECT_EQ(unknownMethod, m_peer.Call(Ask()).errorName);
    EXPECT_EQ(0U, Lines(errorLine, "Unhandled method"));
}

} // namespace

} // namespace MavixTest
