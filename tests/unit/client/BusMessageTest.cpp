#include "ClientFixture.h"

#include <thread>

// Owner changes and introspection requests.

using namespace MavixTest;
using namespace MavixApiLite;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr const char* removed = "[API_LITE] Owner of bus name: com.norvale.MavixAPI has been removed";
constexpr const char* answer = "(byte 1, 0, @ay [])";

class BusMessage : public ClientTest {
protected:
    BusMessage() {
        AnswerWith(answer);
        EXPECT_TRUE(Call());
        Connection().ClearCalls();
        m_platform.Reset();
    }

    void HandleBus(WireMessage message) {
        TestAccess::HandleDbusMessage(Client(), *Received(std::move(message)));
    }
};

TEST_F(BusMessage, AnyOwnerChangeOfAKnownBusDropsIt) {
    for (const char* owners : {"':1.5', ''", "'', ':1.5'", "':1.5', ':1.6'", "':1.5', ':1.5'", "'', ''"}) {
        SCOPED_TRACE(owners);
        m_platform.Reset();
        HandleBus(OwnerChange(std::string("('com.norvale.MavixAPI', ") + owners + ")"));
        EXPECT_THAT(LogFrom(0), ElementsAre(std::string("4|IpcClient|") + removed));
        EXPECT_THAT(TestAccess::BusWrappers(Client()), IsEmpty());
        ASSERT_TRUE(Call());
    }
}

TEST_F(BusMessage, AfterAnOwnerChangeTheNextCallWaitsWatchesAndGreetsAgain) {
    const std::string rule = "(path='/org/freedesktop/DBus', type='signal', "
                             "interface='org.freedesktop.DBus', member='NameOwnerChanged', "
                             "arg0='com.norvale.MavixAPI')";
    HandleBus(OwnerChange("('com.norvale.MavixAPI', ':1.5', ':1.6')"));
    EXPECT_THAT(Connection().Calls(), ElementsAre("RemoveMatch" + rule));
    Connection().ClearCalls();
    ASSERT_TRUE(Call());
    EXPECT_THAT(Connection().Calls(), ElementsAre("BusHasOwner(com.norvale.MavixAPI, 250)", "AddMatch" + rule,
                                                  "SendWithReply(-1)"));
    EXPECT_TRUE(Requests().back().programName);
}

TEST_F(BusMessage, AnOwnerChangeOfABusThatWasNeverCalledIsIgnored) {
    HandleBus(OwnerChange("('com.norvale.ISessionControl', ':1.5', '')"));
    HandleBus(OwnerChange("('com.norvale.MavixAPI.Pipeline', '', ':1.5')"));
    HandleBus(OwnerChange("(':1.5', ':1.5', '')"));
    EXPECT_THAT(LogFrom(0), IsEmpty());
    EXPECT_THAT(Connection().Calls(), IsEmpty());
    EXPECT_EQ(1U, TestAccess::BusWrappers(Client()).size());
}

TEST_F(BusMessage, AnOwnerChangeWithoutItsThreeTextsIsLoggedAndDropped) {
    const std::pair<const char*, const char*> rows[] = {
        {"", "6|GdbusMessage|No body!"},
        {"('com.norvale.MavixAPI',)", "6|GdbusMessage|No more params"},
        {"('com.norvale.MavixAPI', ':1.5')", "6|GdbusMessage|No more params"},
        {"(1, ':1.5', '')", "6|GdbusMessage|Expected string!"},
        {"('com.norvale.MavixAPI', ':1.5', [byte 0])", "6|GdbusMessage|Expected string!"},
    };
    for (const auto& [body, complaint] : rows) {
        SCOPED_TRACE(body);
        m_platform.Reset();
        HandleBus(OwnerChange(body));
        EXPECT_THAT(LogFrom(0), ElementsAre(complaint, "6|IpcClient|[API_LITE] Expected DBUS_TYPE_STRING."));
        EXPECT_EQ(1U, TestAccess::BusWrappers(Client()).size());
    }
}

TEST_F(BusMessage, TheRequestToTheBusIsMadeOutsideTheLock) {
    bool free = false;
    Connection().onRemoveMatch = [this, &free] {
        // Asked on another thread: a lock must not be tried by its owner.
        std::thread([this, &free] {
            const std::unique_lock<std::shared_mutex> lock(TestAccess::BusWrappersLock(Client()),
                                                           std::try_to_lock);
            free = lock.owns_lock();
        }).join();
    };
    HandleBus(OwnerChange("('com.norvale.MavixAPI', ':1.5', '')"));
    EXPECT_TRUE(free);
}

TEST_F(BusMessage, AnotherKindOfMessageIsLoggedByItsCode) {
    HandleBus(Signal("Data", "('1', '0', @ay [])"));
    EXPECT_THAT(LogFrom(0), ElementsAre("6|IpcClient|Unhandled message type: 0"));
}

TEST_F(BusMessage, AnIntrospectionRequestIsAnsweredWithTheText) {
    const std::string expected = "<node>  <interface name='org.freedesktop.DBus.Introspectable'>        "
                                 "<method name='Introspect'>          <arg type='s' name='xml_data' "
                                 "direction='out'/>        </method>  </interface></node>";
    ASSERT_EQ(191U, expected.size());
    std::vector<WireMessage> sent;
    Connection().onSend = [&sent](TIIpcMessage& message) {
        sent.push_back(RefObject(static_cast<GDBusMessage*>(message.GetRawMessage(false))));
        return true;
    };
    HandleBus(MethodCall("org.freedesktop.DBus.Introspectable", "Introspect"));
    EXPECT_THAT(LogFrom(0), ElementsAre("3|IpcClient|Handling Introspection request"));
    ASSERT_EQ(1U, sent.size());
    GDBusMessage* reply = sent[0].get();
    EXPECT_EQ(G_DBUS_MESSAGE_TYPE_METHOD_RETURN, g_dbus_message_get_message_type(reply));
    EXPECT_STREQ(":1.7", g_dbus_message_get_destination(reply));
    EXPECT_EQ(7U, g_dbus_message_get_reply_serial(reply));
    ASSERT_STREQ("s", g_dbus_message_get_signature(reply));
    EXPECT_STREQ(expected.c_str(), g_dbus_message_get_arg0(reply));
}

// A message that fails where it is told to.
class FailingMessage final : public TCGdbusMessage {
public:
    bool replies = true;

    bool InitializeReply(TIIpcMessage& request) override {
        return replies && TCGdbusMessage::InitializeReply(request);
    }
    bool PushString(const std::string&) override { return false; }
};

TEST_F(BusMessage, AFailedIntrospectionReplyIsLoggedAndNotSent) {
    FailingMessage message;
    Adopt(message, MethodCall("org.freedesktop.DBus.Introspectable", "Introspect"));
    message.replies = false;
    TestAccess::HandleDbusMessage(Client(), message);
    EXPECT_THAT(LogFrom(6), ElementsAre("6|IpcClient|Reply not created."));
    m_platform.Reset();
    message.replies = true;
    TestAccess::HandleDbusMessage(Client(), message);
    EXPECT_THAT(LogFrom(6), ElementsAre("6|IpcClient|Failed to attach parameters to reply message"));
    EXPECT_THAT(Connection().Calls(), IsEmpty());
}

} // namespace
