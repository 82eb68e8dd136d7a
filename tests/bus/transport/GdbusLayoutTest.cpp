#include "DbusBusWrapper.h"
#include "GdbusConnection.h"
#include "GdbusError.h"
#include "GdbusMessage.h"
#include "IpcConnection.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

// The binary interface: fields in their order, virtual operations at their slots.

// Offsets in classes that are not standard-layout are well defined on this platform.
#pragma GCC diagnostic ignored "-Winvalid-offsetof"

namespace MavixApiLite {

struct TestAccess {
    static std::vector<std::size_t> FieldsOf(const TCGdbusConnection*) {
        using C = TCGdbusConnection;
        return {offsetof(C, m_connection),         offsetof(C, m_connected), offsetof(C, m_connectingThread),
                offsetof(C, m_connectingThreadId), offsetof(C, m_mutex),     offsetof(C, m_mainLoopHandler),
                offsetof(C, m_sourceHandler),      offsetof(C, m_filterId),  offsetof(C, m_owner)};
    }
    static std::vector<std::size_t> FieldsOf(const DbusBusWrapper*) {
        using C = DbusBusWrapper;
        return {offsetof(C, m_helloSent), offsetof(C, m_busName), offsetof(C, m_ipcConnection),
                offsetof(C, m_subscribed)};
    }
};

} // namespace MavixApiLite

namespace MavixTest {

namespace {

using namespace MavixApiLite;

// Calls a virtual operation by its index in the object's primary table.
template <class Result, class... Arguments>
Result CallSlot(void* object, std::size_t slot, Arguments... arguments) {
    void** table = *static_cast<void***>(object);
    return reinterpret_cast<Result (*)(void*, Arguments...)>(table[slot])(object, arguments...);
}

bool IsRising(const std::vector<std::size_t>& offsets) {
    return std::adjacent_find(offsets.begin(), offsets.end(), std::greater_equal<>()) == offsets.end();
}

TEST(GdbusLayout, FieldsStandInTheirOrder) {
    const auto connection = TestAccess::FieldsOf(static_cast<TCGdbusConnection*>(nullptr));
    EXPECT_TRUE(IsRising(connection));
    // Behind the tables of the two bases.
    EXPECT_EQ(2 * sizeof(void*), connection.front());
    EXPECT_TRUE(IsRising(TestAccess::FieldsOf(static_cast<DbusBusWrapper*>(nullptr))));
    EXPECT_EQ(0U, TestAccess::FieldsOf(static_cast<DbusBusWrapper*>(nullptr)).front());
    TCGdbusError error("operation");
    EXPECT_EQ(static_cast<void*>(&error), static_cast<void*>(error.GetRawError()));
    EXPECT_EQ(sizeof(GError*) + sizeof(std::string), sizeof(TCGdbusError));
}

TEST(GdbusLayout, TheConnectionInterfaceIsTheFirstBase) {
    TCGdbusConnection connection;
    EXPECT_EQ(static_cast<void*>(&connection), static_cast<TIIpcConnection*>(&connection));
    EXPECT_EQ(reinterpret_cast<char*>(&connection) + sizeof(void*),
              reinterpret_cast<char*>(static_cast<TIIpcMessageAllocator*>(&connection)));
    EXPECT_EQ(static_cast<TIIpcMessageAllocator*>(&connection), connection.GetMessageAllocatorInstance());
}

// Tells which operation was called.
class SlotConnection final : public TCGdbusConnection {
public:
    bool Connect(std::string name, TIIpcConnectionOwner*) override { return Called("Connect " + name); }
    bool WaitConnected() override { return Called("WaitConnected"); }
    bool Send(TIIpcMessage&) override { return Called("Send"); }
    bool SendWithReply(TIIpcMessage&, int timeoutMs) override {
        return Called("SendWithReply " + std::to_string(timeoutMs));
    }
    bool AddMatch(const char* rule) override { return Called(std::string("AddMatch ") + rule); }
    bool RemoveMatch(const char* rule) override { return Called(std::string("RemoveMatch ") + rule); }
    std::string GetUniqueName() override { return "the name"; }
    bool RequestName(const std::string& name) override { return Called("RequestName " + name); }
    bool ReleaseName(const std::string& name) override { return Called("ReleaseName " + name); }
    bool BusHasOwner(const std::string& name, int timeoutMs, bool& hasOwner) override {
        hasOwner = true;
        return Called("BusHasOwner " + name + " " + std::to_string(timeoutMs));
    }
    TIIpcMessageAllocator* GetMessageAllocatorInstance() override { return this; }
    std::unique_ptr<TIIpcMessage> NewMessage(void*) override {
        Called("NewMessage");
        return nullptr;
    }
    void DeleteRawMessage(void*) override { Called("DeleteRawMessage"); }
    void (*GetRawMessageDeleter())(void*) override { return g_free; }

    std::string called;

protected:
    void t_SetConnectingThread(std::thread) override { Called("t_SetConnectingThread"); }
    void t_ConnectErrorHandler() override { Called("t_ConnectErrorHandler"); }

private:
    bool Called(const std::string& operation) {
        called = operation;
        return true;
    }
};

TEST(GdbusLayout, OperationsStandAtTheirSlots) {
    SlotConnection connection;
    void* object = &connection;
    TCGdbusMessage message;
    TIIpcMessage* reference = &message;
    std::string name = "name";
    bool hasOwner = false;
    TIIpcConnectionOwner* noOwner = nullptr;

    CallSlot<bool>(object, 2, &name, noOwner);
    EXPECT_EQ("Connect name", connection.called);
    CallSlot<bool>(object, 3);
    EXPECT_EQ("WaitConnected", connection.called);
    CallSlot<bool>(object, 4, reference);
    EXPECT_EQ("Send", connection.called);
    CallSlot<bool>(object, 5, reference, 7);
    EXPECT_EQ("SendWithReply 7", connection.called);
    CallSlot<bool>(object, 6, "rule");
    EXPECT_EQ("AddMatch rule", connection.called);
    CallSlot<bool>(object, 7, "rule");
    EXPECT_EQ("RemoveMatch rule", connection.called);
    EXPECT_EQ("the name", CallSlot<std::string>(object, 8));
    CallSlot<bool>(object, 9, &name);
    EXPECT_EQ("RequestName name", connection.called);
    CallSlot<bool>(object, 10, &name);
    EXPECT_EQ("ReleaseName name", connection.called);
    CallSlot<bool>(object, 11, &name, 8, &hasOwner);
    EXPECT_EQ("BusHasOwner name 8", connection.called);
    EXPECT_TRUE(hasOwner);
    EXPECT_EQ(static_cast<TIIpcMessageAllocator*>(&connection), CallSlot<TIIpcMessageAllocator*>(object, 12));
    void* noMessage = nullptr;
    CallSlot<std::unique_ptr<TIIpcMessage>>(object, 13, noMessage);
    EXPECT_EQ("NewMessage", connection.called);
    CallSlot<void>(object, 14, noMessage);
    EXPECT_EQ("DeleteRawMessage", connection.called);
    EXPECT_EQ(g_free, (CallSlot<void (*)(void*)>(object, 15)));
    std::thread thread;
    CallSlot<void>(object, 16, &thread);
    EXPECT_EQ("t_SetConnectingThread", connection.called);
    CallSlot<void>(object, 17);
    EXPECT_EQ("t_ConnectErrorHandler", connection.called);
}

class SlotOwner final : public TIIpcConnectionOwner {
public:
    bool InitializeIpcConnection(TIIpcConnection* connection) override { return connection == nullptr; }
    bool FilterIpcMessage(TIIpcMessage& message) override { return message.GetRawMessage(false) == nullptr; }
};

TEST(GdbusLayout, TheOwnersOperationsStandAtTheirSlots) {
    SlotOwner owner;
    TIIpcConnection* noConnection = nullptr;
    EXPECT_TRUE(CallSlot<bool>(&owner, 2, noConnection));
    TCGdbusMessage message;
    TIIpcMessage* reference = &message;
    EXPECT_TRUE(CallSlot<bool>(&owner, 3, reference));
}

struct Deleted {
    static int count;
};
int Deleted::count = 0;

class SlotDeleted final : public TIIpcConnectionOwner {
public:
    ~SlotDeleted() override { ++Deleted::count; }
    bool InitializeIpcConnection(TIIpcConnection*) override { return false; }
    bool FilterIpcMessage(TIIpcMessage&) override { return false; }
};

TEST(GdbusLayout, TheFirstTwoSlotsDestroyAndDelete) {
    Deleted::count = 0;
    alignas(SlotDeleted) unsigned char storage[sizeof(SlotDeleted)];
    CallSlot<void>(new (storage) SlotDeleted, 0);
    EXPECT_EQ(1, Deleted::count);
    CallSlot<void>(new SlotDeleted, 1);
    EXPECT_EQ(2, Deleted::count);
}

} // namespace

} // namespace MavixTest
