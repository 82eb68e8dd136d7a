#include "FakeConnection.h"
#include "IpcClient.h"
#include "IpcConfigurationMavix.h"
#include "RecordingPlatform.h"
#include "VirtualTable.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

using namespace MavixTest;
using MavixApiLite::IpcConfigurationMavix;
using MavixApiLite::MAVIXHandle;
using MavixApiLite::TCGdbusMessage;
using MavixApiLite::TCIpcClient;
using MavixApiLite::TCMessageBuffer;
using MavixApiLite::TIIpcClient;
using MavixApiLite::TIIpcConnection;
using MavixApiLite::TIIpcConnectionOwner;
using MavixApiLite::TIIpcMessage;

namespace MavixApiLite {

struct TestAccess {
    static void (*Callback(TCIpcClient& client, std::size_t type))(int, const char*, int) {
        return client.m_callbacks[type];
    }
    static bool UsesInheritance(TCIpcClient& client) { return client.m_useBoostingInheritance; }
};

} // namespace MavixApiLite

using MavixApiLite::TestAccess;

namespace {

using Callback = void (*)(int, const char*, int);

// A client over a connection without bus.
class OwnClient : public TCIpcClient {
public:
    OwnClient() : OwnClient(new FakeConnection) {}

    FakeConnection& connection;

private:
    explicit OwnClient(FakeConnection* fake)
        : TCIpcClient(std::make_unique<IpcConfigurationMavix>("the.events", "/the/events"),
                      g_main_context_default(), std::unique_ptr<TIIpcConnection>(fake)),
          connection(*fake) {}
};

void Initialize(TCGdbusMessage& error) {
    TCGdbusMessage call;
    call.Initialize(TIIpcMessage::MethodCall, "a.b", "/p", "i.i", "M");
    g_dbus_message_set_serial(static_cast<GDBusMessage*>(call.GetRawMessage(false)), 1);
    error.InitializeErrorReply(call, "the.Error", "text");
}

void OnEvent(int, const char*, int) {}

} // namespace

TEST(ClientSlots, DestructorsComeFirst) {
    ExpectDestructorInTheFirstTwoSlots<OwnClient>();
}

TEST(ClientSlots, ClientHasTheInterfacesSlotsInOrder) {
    OwnClient client;
    void* const object = static_cast<TIIpcClient*>(&client);
    const auto last = [&] { return client.connection.Calls().back(); };
    const MAVIXHandle handle{1, 2};
    const std::string rule = "path='/the/events', type='signal', interface='the.events', member='TextData', "
                             "arg0='7', arg1='65538'";
    using MatchRule = bool(EIPCMessageType, int, const MAVIXHandle&);
    EXPECT_TRUE(CallSlot<MatchRule>(object, 2, IPC_MESSAGE_TEXTDATA, 7, handle));
    EXPECT_EQ("AddMatch(" + rule + ")", last());
    EXPECT_TRUE(CallSlot<MatchRule>(object, 3, IPC_MESSAGE_TEXTDATA, 7, handle));
    EXPECT_EQ("RemoveMatch(" + rule + ")", last());

    TCMessageBuffer input;
    TCMessageBuffer output;
    const std::string interfaceName = "com.norvale.IOther";
    client.connection.onSendWithReply = [](TIIpcMessage& message) {
        EXPECT_STREQ("com.norvale.IOther", message.GetInterface());
        return false;
    };
    EXPECT_FALSE((CallSlot<bool(const std::string&, short, TCMessageBuffer&, TCMessageBuffer&)>(
        object, 4, interfaceName, short{3}, input, output)));
    EXPECT_EQ("SendWithReply(-1)", last());
    EXPECT_TRUE((CallSlot<bool(const std::string&, short, TCMessageBuffer&)>(object, 5, interfaceName,
                                                                             short{3}, input)));
    EXPECT_EQ("Send", last());
    client.connection.ClearCalls();
    EXPECT_TRUE(CallSlot<bool(const char*)>(object, 6, "com.norvale.IPVR"));
    ASSERT_FALSE(client.connection.Calls().empty());
    EXPECT_EQ("BusHasOwner(com.norvale.MavixAPI.Pipeline, 250)", client.connection.Calls().front());

    CallSlot<void(EIPCMessageType, Callback)>(object, 7, IPC_MESSAGE_HT, OnEvent);
    EXPECT_EQ(OnEvent, TestAccess::Callback(client, IPC_MESSAGE_HT));
    CallSlot<void(EIPCMessageType)>(object, 8, IPC_MESSAGE_HT);
    EXPECT_EQ(nullptr, TestAccess::Callback(client, IPC_MESSAGE_HT));
    EXPECT_TRUE(TestAccess::UsesInheritance(client));
    EXPECT_TRUE(CallSlot<bool(bool)>(object, 9, false));
    EXPECT_FALSE(TestAccess::UsesInheritance(client));
}

TEST(ClientSlots, WhatAConnectionCallsBackFollowsInTheClientsTableAndHasATableOfItsOwn) {
    for (const bool ownTable : {false, true}) {
        OwnClient client;
        TCRecordingPlatform::Get().Reset();
        void* const object = ownTable ? static_cast<void*>(static_cast<TIIpcConnectionOwner*>(&client))
                                      : static_cast<void*>(static_cast<TIIpcClient*>(&client));
        const std::size_t firstSlot = ownTable ? 2 : 10;
        EXPECT_TRUE(CallSlot<bool(TIIpcConnection*)>(object, firstSlot, &client.connection));
        EXPECT_EQ("RequestName(com.norvale.Mavix.Signal.mavix1.mavix42)", client.connection.Calls().back());
        TCGdbusMessage error;
        Initialize(error);
        EXPECT_FALSE(CallSlot<bool(TIIpcMessage&)>(object, firstSlot + 1, error));
        EXPECT_EQ(1u, TCRecordingPlatform::Get().Count(6, "[API_LITE] Error message: the.Error"));
    }
}

TEST(ClientSlots, ClientHasNoOtherSlotsAndTheInterfaceIsItsFirstBase) {
    TCIpcClient client(std::make_unique<IpcConfigurationMavix>("the.events", "/the/events"),
                       g_main_context_default(), std::make_unique<FakeConnection>());
    TIIpcConnectionOwner* const owner = &client;
    EXPECT_EQ(static_cast<void*>(&client), static_cast<TIIpcClient*>(&client));
    EXPECT_EQ(reinterpret_cast<char*>(&client) + sizeof(void*), reinterpret_cast<char*>(owner));
    EXPECT_EQ(0, OffsetToWholeObject(&client));
    EXPECT_EQ(-static_cast<std::ptrdiff_t>(sizeof(void*)), OffsetToWholeObject(owner));
    EXPECT_EQ(12, TableOf(owner) - 2 - TableOf(&client));
    EXPECT_EQ(2u + 12u + 2u + 4u, TableWords(&client));
}
