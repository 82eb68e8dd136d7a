#include "ClientFixture.h"

#include <cstddef>

// What programs that were built against the library rely on: virtual tables and the order of fields.

using namespace MavixTest;
using namespace MavixApiLite;
using testing::ElementsAre;

namespace {

// Calls what stands in a slot of an object's virtual table. The destructor has the slots 0 and 1.
template <class Result, class... Arguments>
Result CallSlot(void* object, std::size_t slot, Arguments... arguments) {
    void** table = *static_cast<void***>(object);
    return reinterpret_cast<Result (*)(void*, Arguments...)>(table[slot])(object, arguments...);
}

class RecordingClient final : public TIIpcClient {
public:
    std::vector<std::string> calls;

    bool AddMatchRule(EIPCMessageType, int, const MAVIXHandle&) override { return m_Add("AddMatchRule"); }
    bool RemoveMatchRule(EIPCMessageType, int, const MAVIXHandle&) override {
        return m_Add("RemoveMatchRule");
    }
    bool Call(const std::string&, short, TCMessageBuffer&, TCMessageBuffer&) override {
        return m_Add("Call");
    }
    bool CallAsync(const std::string&, short, TCMessageBuffer&) override { return m_Add("CallAsync"); }
    bool WaitForCreateInterface(const char*) override { return m_Add("WaitForCreateInterface"); }
    void SetCallbackFunction(EIPCMessageType, void (*)(int, const char*, int)) override {
        m_Add("SetCallbackFunction");
    }
    void UnsetCallbackFunction(EIPCMessageType) override { m_Add("UnsetCallbackFunction"); }
    bool UseBoostingInheritance(bool) override { return m_Add("UseBoostingInheritance"); }

private:
    bool m_Add(const char* call) {
        calls.emplace_back(call);
        return true;
    }
};

class RecordingOwner final : public TIIpcConnectionOwner {
public:
    std::vector<std::string> calls;

    bool InitializeIpcConnection(TIIpcConnection*) override { return m_Add("InitializeIpcConnection"); }
    bool FilterIpcMessage(TIIpcMessage&) override { return m_Add("FilterIpcMessage"); }

private:
    bool m_Add(const char* call) {
        calls.emplace_back(call);
        return true;
    }
};

TEST(ClientLayout, TheClientInterfaceHasItsOperationsInOrder) {
    RecordingClient client;
    void* object = static_cast<TIIpcClient*>(&client);
    const MAVIXHandle handle{};
    const std::string name;
    TCMessageBuffer buffer;
    void (*const callback)(int, const char*, int) = nullptr;
    EXPECT_TRUE(CallSlot<bool>(object, 2, IPC_MESSAGE_DATA, 1, &handle));
    EXPECT_TRUE(CallSlot<bool>(object, 3, IPC_MESSAGE_DATA, 1, &handle));
    EXPECT_TRUE(CallSlot<bool>(object, 4, &name, short{1}, &buffer, &buffer));
    EXPECT_TRUE(CallSlot<bool>(object, 5, &name, short{1}, &buffer));
    EXPECT_TRUE(CallSlot<bool>(object, 6, "name"));
    CallSlot<void>(object, 7, IPC_MESSAGE_DATA, callback);
    CallSlot<void>(object, 8, IPC_MESSAGE_DATA);
    EXPECT_TRUE(CallSlot<bool>(object, 9, true));
    EXPECT_THAT(client.calls,
                ElementsAre("AddMatchRule", "RemoveMatchRule", "Call", "CallAsync", "WaitForCreateInterface",
                            "SetCallbackFunction", "UnsetCallbackFunction", "UseBoostingInheritance"));
}

TEST(ClientLayout, TheOwnerInterfaceHasItsOperationsInOrder) {
    RecordingOwner owner;
    void* object = static_cast<TIIpcConnectionOwner*>(&owner);
    TIIpcConnection* connection = nullptr;
    TCGdbusMessage message;
    EXPECT_TRUE(CallSlot<bool>(object, 2, connection));
    EXPECT_TRUE(CallSlot<bool>(object, 3, static_cast<TIIpcMessage*>(&message)));
    EXPECT_THAT(owner.calls, ElementsAre("InitializeIpcConnection", "FilterIpcMessage"));
}

class ClientLayoutOf : public ClientTest {};

TEST_F(ClientLayoutOf, TheClientItsOwnTableHasTheOwnersOperationsLast) {
    void* object = static_cast<TIIpcClient*>(&Client());
    Connection().ClearCalls();
    EXPECT_TRUE(CallSlot<bool>(object, 9, false));
    EXPECT_FALSE(TestAccess::UseBoostingInheritance(Client()));
    EXPECT_TRUE(CallSlot<bool>(object, 10, static_cast<TIIpcConnection*>(&Connection())));
    EXPECT_THAT(Connection().Calls(), ElementsAre("RequestName(com.norvale.Mavix.Signal.mavix1.mavix42)"));
    const auto message = Received(Signal("NoSuchEvent", ""));
    EXPECT_TRUE(CallSlot<bool>(object, 11, static_cast<TIIpcMessage*>(message.get())));
}

TEST_F(ClientLayoutOf, TheClientItsBasesStandInOrder) {
    const auto* object = reinterpret_cast<const std::byte*>(&Client());
    EXPECT_EQ(object, reinterpret_cast<const std::byte*>(static_cast<TIIpcClient*>(&Client())));
    EXPECT_EQ(object + sizeof(void*),
              reinterpret_cast<const std::byte*>(static_cast<TIIpcConnectionOwner*>(&Client())));
}

TEST_F(ClientLayoutOf, TheClientItsFieldsStandInOrder) {
    const std::pair<const char*, const void*> fields[] = {
        {"m_callbackMutexes", &TestAccess::CallbackMutexes(Client())},
        {"m_callbacks", &TestAccess::Callbacks(Client())},
        {"m_connection", &TestAccess::Connection(Client())},
        {"m_configuration", &TestAccess::Configuration(Client())},
        {"m_busWrappers", &TestAccess::BusWrappers(Client())},
        {"m_busWrappersLock", &TestAccess::BusWrappersLock(Client())},
        {"m_useBoostingInheritance", &TestAccess::UseBoostingInheritance(Client())},
        {"m_methodSourceHandler", &TestAccess::MethodSourceHandler(Client())},
        {"m_signalsLoopHandler", &TestAccess::SignalsLoopHandler(Client())},
        {"m_busSourceHandler", &TestAccess::BusSourceHandler(Client())},
        {"m_sourceHandlersMutex", &TestAccess::SourceHandlersMutex(Client())},
        {"m_mavixSupported", &TestAccess::MavixSupported(Client())},
        {"m_defaultContext", &TestAccess::DefaultContext(Client())},
        {"m_messageTypeByName", &TestAccess::MessageTypeByName(Client())},
        {"m_messageNameByType", &TestAccess::MessageNameByType(Client())},
    };
    for (std::size_t at = 1; at < std::size(fields); ++at) {
        EXPECT_LT(fields[at - 1].second, fields[at].second)
            << fields[at - 1].first << " before " << fields[at].first;
    }
}

TEST(ClientLayout, TheHandleIsTwoWordsHighFirst) {
    EXPECT_EQ(8U, sizeof(MAVIXHandle));
    EXPECT_EQ(0U, offsetof(MAVIXHandle, high));
    EXPECT_EQ(4U, offsetof(MAVIXHandle, low));
    EXPECT_EQ(4U, sizeof(EIPCMessageType));
}

} // namespace
