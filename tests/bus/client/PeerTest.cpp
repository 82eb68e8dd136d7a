#include "ClientBus.h"

#include "ChildProgram.h"
#include "IPCUtility.h"

// What other programs on the bus can ask of the client and do to it.

using namespace MavixTest;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr std::chrono::milliseconds noAnswer{300};
constexpr const char* unknownMethod = "org.freedesktop.DBus.Error.UnknownMethod";

class Peer : public ClientBusTest {
protected:
    RawCall CallOf(const char* interface, const std::string& member) const {
        return PeerCall(m_name, interface, member);
    }
    RawReply Introspect() { return m_bus.peer.Call(IntrospectionOf(m_name)); }
    // Iterates the default context until the line is there.
    bool LineComes(const std::string& text, std::size_t count = 1) {
        return IterateUntil([&] { return m_platform.Count(6, text) >= count; });
    }

    const std::string m_name = MavixApiLite::TCIPCUtility::GenerateSubConnectionName(m_clientName);
};

const std::string introspection = "<node>  <interface name='org.freedesktop.DBus.Introspectable'>        "
                                  "<method name='Introspect'>          <arg type='s' name='xml_data' "
                                  "direction='out'/>        </method>  </interface></node>";

TEST_F(Peer, FindsTheClientUnderTheNameMadeOfItsUniqueName) {
    RawCall ask = PeerCall("org.freedesktop.DBus", "org.freedesktop.DBus", "GetNameOwner");
    ask.path = "/org/freedesktop/DBus";
    ask.body = [this](sd_bus_message* message) {
        MavixSim::Check(sd_bus_message_append(message, "s", m_name.c_str()), "append");
    };
    const RawReply reply = m_bus.peer.Call(ask);
    ASSERT_FALSE(reply.IsError()) << reply.errorName;
    const char* owner = nullptr;
    MavixSim::Check(sd_bus_message_read_basic(reply.message.get(), 's', &owner), "read");
    EXPECT_EQ(m_clientName, owner);
}

TEST_F(Peer, GetsTheIntrospectionTextWhileTheDefaultContextRests) {
    ASSERT_EQ(191U, introspection.size());
    const RawReply reply = Introspect();
    ASSERT_FALSE(reply.IsError()) << reply.errorName;
    EXPECT_EQ("s", reply.Signature());
    const char* text = nullptr;
    MavixSim::Check(sd_bus_message_read_basic(reply.message.get(), 's', &text), "read");
    EXPECT_EQ(introspection, text);
    EXPECT_EQ(1U, m_platform.Count(3, "Handling Introspection request"));
}

TEST_F(Peer, GetsTheIntrospectionTextWhileACallbackRuns) {
    static std::function<void()> inside;
    bool ran = false;
    inside = [this, &ran] {
        ran = true;
        EXPECT_FALSE(Introspect().IsError());
    };
    IPCConnection__SetCallbackFunction(IPC_MESSAGE_DATA, [](int, const char*, int) { inside(); });
    m_bus.daemon.Emit(IPC_MESSAGE_DATA, 1, {1}, {0, 0, m_clientName});
    EXPECT_TRUE(IterateUntil([&ran] { return ran; }));
}

TEST_F(Peer, GetsNoAnswerToACallThatTheClientDoesNotKnow) {
    std::vector<std::pair<const char*, const char*>> calls = {
        {"com.norvale.ITest", "NoSuchMethod"},
        {"org.freedesktop.DBus.Properties", "GetAll"},
    };
    if (ClientRow().pingsReachTheOwner) {
        calls.emplace_back("org.freedesktop.DBus.Peer", "Ping");
    }
    for (const auto& [interface, member] : calls) {
        const RawReply reply = m_bus.peer.Call(CallOf(interface, member), noAnswer);
        EXPECT_TRUE(reply.IsError());
        EXPECT_NE(unknownMethod, reply.errorName);
        EXPECT_TRUE(LineComes(std::string("[API_LITE] No such type. '") + member + "'"));
    }
    EXPECT_TRUE(Settle());
}

TEST_F(Peer, GetsUnknownMethodForACallWithoutAnInterfaceOrOnLibdbusNoAnswerAndTheClientLives) {
    for (int time = 1; time <= 3; ++time) {
        m_platform.Reset();
        if (!ClientRow().missingFieldThrows) {
            EXPECT_TRUE(m_bus.peer.Call(CallOf(nullptr, "Anything"), noAnswer).IsError());
            EXPECT_TRUE(LineComes("[API_LITE] No such type. 'Anything'"));
            EXPECT_TRUE(Settle());
            continue;
        }
        const RawReply reply = m_bus.peer.Call(CallOf(nullptr, "Anything"));
        EXPECT_EQ(unknownMethod, reply.errorName);
        EXPECT_EQ("", reply.errorText);
        // GIO has set the body of the reply, so there was nothing to push.
        EXPECT_EQ(1U, m_platform.Count(6, "Pushing not started!"));
        EXPECT_EQ(1U, m_platform.Count(6, "Unhandled method"));
        EXPECT_EQ(1U, m_platform.CountStarting(6, "[API_LITE] exception: "));
        EXPECT_TRUE(Settle());
    }
    EXPECT_FALSE(Introspect().IsError());
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
    signal.destination = m_clientName;
    m_bus.peer.Emit(signal);
    EXPECT_TRUE(LineComes("[API_LITE] No such type. 'Anything'"));
}

TEST_F(Peer, AFloodOfCallsIsSurvived) {
    constexpr int count = 2000;
    for (int at = 0; at < count; ++at) {
        RawCall call = CallOf(at % 2 == 0 ? "com.norvale.ITest" : nullptr, "Flood");
        call.noReply = true;
        m_bus.peer.Send(call);
    }
    // Those without interface are answered, or are taken for events, too.
    const std::size_t answered = ClientRow().missingFieldThrows ? count / 2 : 0;
    EXPECT_TRUE(LineComes("[API_LITE] No such type. 'Flood'", count - answered));
    EXPECT_TRUE(m_platform.WaitFor("Unhandled method", answered));
    EXPECT_TRUE(Settle());
    EXPECT_FALSE(Introspect().IsError());
}

TEST_F(Peer, HugeAndOddArgumentsAreSurvived) {
    RawCall huge = CallOf("com.norvale.ITest", "NoSuchMethod");
    huge.noReply = true;
    huge.body = [](sd_bus_message* message) {
        const Bytes bytes(16777216);
        MavixSim::Check(sd_bus_message_append_array(message, 'y', bytes.data(), bytes.size()), "append");
    };
    m_bus.peer.Send(huge);
    huge.body = [](sd_bus_message* message) {
        MavixSim::Check(sd_bus_message_append(message, "a{sv}(ii)vay", 0, 1, 2, "a(s)", 1, "x", 0), "append");
    };
    m_bus.peer.Send(huge);
    huge.interface = "org.freedesktop.DBus.Introspectable";
    huge.member = "Introspect";
    m_bus.peer.Send(huge);
    EXPECT_TRUE(LineComes("[API_LITE] No such type. 'NoSuchMethod'", 2));
    EXPECT_TRUE(m_platform.WaitFor("Handling Introspection request"));
    EXPECT_TRUE(Settle());
}

} // namespace
