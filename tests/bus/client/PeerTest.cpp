#include "ClientBus.h"

#include "ChildProgram.h"
#include "IPCUtility.h"
#include "tests/bus/sim/RawClient.h"

// What other programs on the bus can ask of the client and do to it.

using namespace MavixTest;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr std::chrono::milliseconds noAnswer{300};
constexpr const char* unknownMethod = "org.freedesktop.DBus.Error.UnknownMethod";

class Peer : public ClientBusTest {
protected:
    Peer() {
        EXPECT_TRUE(Settle());
        m_uniqueName = Records(1).at(0).at("sender");
        m_name = MavixApiLite::TCIPCUtility::GenerateSubConnectionName(m_uniqueName);
    }

    RawCall CallOf(std::optional<std::string> interface, const std::string& member) const {
        RawCall call;
        call.destination = m_name;
        call.path = "/";
        call.interface = std::move(interface);
        call.member = member;
        call.body = [](sd_bus_message*) {};
        return call;
    }
    RawCall Introspect() const { return CallOf("org.freedesktop.DBus.Introspectable", "Introspect"); }
    // Iterates the default context until the line is there.
    bool LineComes(const std::string& text, std::size_t count = 1) {
        return IterateUntil([&] { return m_platform.Count(6, text) >= count; });
    }

    std::string m_uniqueName;
    std::string m_name;
    TCRawClient m_peer{m_bus.bus.Address()};
};

const std::string introspection = "<node>  <interface name='org.freedesktop.DBus.Introspectable'>        "
                                  "<method name='Introspect'>          <arg type='s' name='xml_data' "
                                  "direction='out'/>        </method>  </interface></node>";

TEST_F(Peer, FindsTheClientUnderTheNameMadeOfItsUniqueName) {
    RawCall ask = CallOf("org.freedesktop.DBus", "GetNameOwner");
    ask.destination = "org.freedesktop.DBus";
    ask.path = "/org/freedesktop/DBus";
    ask.body = [this](sd_bus_message* message) {
        MavixSim::Check(sd_bus_message_append(message, "s", m_name.c_str()), "append");
    };
    const RawReply reply = m_peer.Call(ask);
    ASSERT_FALSE(reply.IsError()) << reply.errorName;
    const char* owner = nullptr;
    MavixSim::Check(sd_bus_message_read_basic(reply.message.get(), 's', &owner), "read");
    EXPECT_EQ(m_uniqueName, owner);
}

TEST_F(Peer, GetsTheIntrospectionTextWhileTheDefaultContextRests) {
    ASSERT_EQ(191U, introspection.size());
    const RawReply reply = m_peer.Call(Introspect());
    ASSERT_FALSE(reply.IsError()) << reply.errorName;
    EXPECT_EQ("s", reply.Signature());
    const char* text = nullptr;
    MavixSim::Check(sd_bus_message_read_basic(reply.message.get(), 's', &text), "read");
    EXPECT_EQ(introspection, text);
    EXPECT_EQ(1U, m_platform.Count(3, "Handling Introspection request"));
}

TEST_F(Peer, GetsTheIntrospectionTextWhileACallbackRuns) {
    static Peer* self;
    static bool answered;
    self = this;
    answered = false;
    IPCConnection__SetCallbackFunction(IPC_MESSAGE_DATA, [](int, const char*, int) {
        answered = !self->m_peer.Call(self->Introspect()).IsError();
    });
    m_bus.daemon.Emit(IPC_MESSAGE_DATA, 1, {1}, {0, 0, m_uniqueName});
    EXPECT_TRUE(IterateUntil([] { return answered; }, std::chrono::seconds(30)));
}

TEST_F(Peer, GetsNoAnswerToACallThatTheClientDoesNotKnow) {
    const std::pair<const char*, const char*> calls[] = {
        {"com.norvale.ITest", "NoSuchMethod"},
        {"org.freedesktop.DBus.Peer", "Ping"},
        {"org.freedesktop.DBus.Properties", "GetAll"},
    };
    for (const auto& [interface, member] : calls) {
        const RawReply reply = m_peer.Call(CallOf(interface, member), noAnswer);
        EXPECT_TRUE(reply.IsError());
        EXPECT_NE(unknownMethod, reply.errorName);
        EXPECT_TRUE(LineComes(std::string("[API_LITE] No such type. '") + member + "'"));
    }
    EXPECT_TRUE(Settle());
}

TEST_F(Peer, GetsUnknownMethodForACallWithoutAnInterfaceAndTheClientLives) {
    for (int time = 1; time <= 3; ++time) {
        m_platform.Reset();
        const RawReply reply = m_peer.Call(CallOf(std::nullopt, "Anything"));
        EXPECT_EQ(unknownMethod, reply.errorName);
        EXPECT_EQ("", reply.errorText);
        // GIO has set the body of the reply, so there was nothing to push.
        EXPECT_EQ(1U, m_platform.Count(6, "Pushing not started!"));
        EXPECT_EQ(1U, m_platform.Count(6, "Unhandled method"));
        EXPECT_EQ(1U, m_platform.CountStarting(6, "[API_LITE] exception: "));
        EXPECT_TRUE(Settle());
    }
    EXPECT_FALSE(m_peer.Call(Introspect()).IsError());
}

MAVIX_CHILD(StartAndIterate) {
    const ServiceBus bus;
    if (!Settle()) {
        return 1;
    }
    IterateUntil([] { return TCRecordingPlatform::Get().CountStarting(6, "[API_LITE] No such type.") != 0; },
                 std::chrono::seconds(1));
    return 0;
}

// The bus tells the client that it has got its name. That may come before the client listens, but rarely.
TEST(PeerStart, TheNameThatTheClientGetsIsAnEventOfUnknownType) {
    std::size_t lines = 0;
    for (int start = 0; start < 10 && lines == 0; ++start) {
        const ChildResult result = RunChildProgram("StartAndIterate");
        ASSERT_EQ(0, result.exitCode) << result.errors;
        lines = result.CountLines(6, "[API_LITE] No such type. 'NameAcquired'");
    }
    EXPECT_EQ(1U, lines);
}

TEST_F(Peer, OtherSignalsAreUnknownTypesAndDropped) {
    RawSignal signal;
    signal.path = "/some/where";
    signal.interface = "com.norvale.Other";
    signal.member = "Anything";
    signal.destination = m_uniqueName;
    m_peer.Emit(signal);
    EXPECT_TRUE(LineComes("[API_LITE] No such type. 'Anything'"));
}

TEST_F(Peer, AFloodOfCallsIsSurvived) {
    constexpr int count = 2000;
    for (int at = 0; at < count; ++at) {
        RawCall call =
            CallOf(at % 2 == 0 ? std::optional<std::string>("com.norvale.ITest") : std::nullopt, "Flood");
        call.noReply = true;
        m_peer.Send(call);
    }
    EXPECT_TRUE(LineComes("[API_LITE] No such type. 'Flood'", count / 2));
    EXPECT_TRUE(m_platform.WaitFor("Unhandled method", count / 2));
    EXPECT_TRUE(Settle());
    EXPECT_FALSE(m_peer.Call(Introspect()).IsError());
}

TEST_F(Peer, HugeAndOddArgumentsAreSurvived) {
    RawCall huge = CallOf("com.norvale.ITest", "NoSuchMethod");
    huge.noReply = true;
    huge.body = [](sd_bus_message* message) {
        const Bytes bytes(16777216);
        MavixSim::Check(sd_bus_message_append_array(message, 'y', bytes.data(), bytes.size()), "append");
    };
    m_peer.Send(huge);
    huge.body = [](sd_bus_message* message) {
        MavixSim::Check(sd_bus_message_append(message, "a{sv}(ii)vay", 0, 1, 2, "a(s)", 1, "x", 0), "append");
    };
    m_peer.Send(huge);
    huge.interface = "org.freedesktop.DBus.Introspectable";
    huge.member = "Introspect";
    m_peer.Send(huge);
    EXPECT_TRUE(LineComes("[API_LITE] No such type. 'NoSuchMethod'", 2));
    EXPECT_TRUE(m_platform.WaitFor("Handling Introspection request"));
    EXPECT_TRUE(Settle());
}

} // namespace
