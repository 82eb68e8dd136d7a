#include "FakeConnection.h"
#include "GdbusConnection.h"
#include "VirtualTable.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>

using namespace MavixTest;
using MavixApiLite::TCGdbusConnection;
using MavixApiLite::TCGdbusMessage;
using MavixApiLite::TIIpcConnection;
using MavixApiLite::TIIpcConnectionOwner;
using MavixApiLite::TIIpcMessage;
using MavixApiLite::TIIpcMessageAllocator;

namespace {

using Deleter = void (*)(void*);

// Says which function was called with what. Its table begins like that of the class it stands on.
class RecordingConnection : public TCGdbusConnection {
public:
    std::string last;

    bool Connect(std::string name, TIIpcConnectionOwner* owner) override {
        return m_Keep("Connect " + name + (owner == nullptr ? " null" : " owner"));
    }
    bool WaitConnected() override { return m_Keep("WaitConnected"); }
    bool Send(TIIpcMessage& message) override { return m_Keep("Send " + m_Member(message)); }
    bool SendWithReply(TIIpcMessage& message, int timeoutMs) override {
        return m_Keep("SendWithReply " + m_Member(message) + std::to_string(timeoutMs));
    }
    bool AddMatch(const char* rule) override { return m_Keep(std::string("AddMatch ") + rule); }
    bool RemoveMatch(const char* rule) override { return m_Keep(std::string("RemoveMatch ") + rule); }
    std::string GetUniqueName() override {
        m_Keep("GetUniqueName");
        return "unique";
    }
    bool RequestName(const std::string& name) override { return m_Keep("RequestName " + name); }
    bool ReleaseName(const std::string& name) override { return m_Keep("ReleaseName " + name); }
    bool BusHasOwner(const std::string& name, int timeoutMs, bool& hasOwner) override {
        hasOwner = true;
        return m_Keep("BusHasOwner " + name + std::to_string(timeoutMs));
    }
    TIIpcMessageAllocator* GetMessageAllocatorInstance() override {
        m_Keep("GetMessageAllocatorInstance");
        return this;
    }
    std::unique_ptr<TIIpcMessage> NewMessage(void* raw) override {
        m_Keep(raw == this ? "NewMessage this" : "NewMessage");
        return nullptr;
    }
    void DeleteRawMessage(void* raw) override {
        m_Keep(raw == this ? "DeleteRawMessage this" : "DeleteRawMessage");
    }
    Deleter GetRawMessageDeleter() override {
        m_Keep("GetRawMessageDeleter");
        return g_free;
    }

protected:
    void t_SetConnectingThread(std::thread thread) override {
        m_Keep(thread.joinable() ? "t_SetConnectingThread thread" : "t_SetConnectingThread");
        thread.join();
    }
    void t_ConnectErrorHandler() override { m_Keep("t_ConnectErrorHandler"); }

private:
    static std::string m_Member(TIIpcMessage& message) { return message.GetMember(); }
    bool m_Keep(const std::string& call) {
        last = call;
        return true;
    }
};

class RecordingOwner : public TIIpcConnectionOwner {
public:
    std::string last;

    bool InitializeIpcConnection(TIIpcConnection* connection) override {
        last = connection == nullptr ? "InitializeIpcConnection null" : "InitializeIpcConnection connection";
        return true;
    }
    bool FilterIpcMessage(TIIpcMessage& message) override {
        last = std::string("FilterIpcMessage ") + message.GetMember();
        return true;
    }
};

TIIpcMessage& SomeMessage() {
    static TCGdbusMessage& message = *new TCGdbusMessage;
    if (message.GetRawMessage(false) == nullptr) {
        message.Initialize(TIIpcMessage::Signal, nullptr, "/p", "i.i", "M");
    }
    return message;
}

void RuleThrough(void* object, std::size_t slot) {
    EXPECT_TRUE(CallSlot<bool(const char*)>(object, slot, "rule"));
}

void NameThrough(void* object, std::size_t slot) {
    EXPECT_TRUE(CallSlot<bool(const std::string&)>(object, slot, std::string("name")));
}

const SlotUse connectionUses[] = {
    {"Connect name null",
     [](void* o, std::size_t s) {
         EXPECT_TRUE(
             (CallSlot<bool(std::string, TIIpcConnectionOwner*)>(o, s, std::string("name"), nullptr)));
     }},
    {"WaitConnected", [](void* o, std::size_t s) { EXPECT_TRUE(CallSlot<bool()>(o, s)); }},
    {"Send M",
     [](void* o, std::size_t s) { EXPECT_TRUE(CallSlot<bool(TIIpcMessage&)>(o, s, SomeMessage())); }},
    {"SendWithReply M-1",
     [](void* o, std::size_t s) {
         EXPECT_TRUE((CallSlot<bool(TIIpcMessage&, int)>(o, s, SomeMessage(), -1)));
     }},
    {"AddMatch rule", RuleThrough},
    {"RemoveMatch rule", RuleThrough},
    {"GetUniqueName", [](void* o, std::size_t s) { EXPECT_EQ("unique", CallSlot<std::string()>(o, s)); }},
    {"RequestName name", NameThrough},
    {"ReleaseName name", NameThrough},
    {"BusHasOwner name250",
     [](void* o, std::size_t s) {
         bool hasOwner = false;
         EXPECT_TRUE(
             (CallSlot<bool(const std::string&, int, bool&)>(o, s, std::string("name"), 250, hasOwner)));
         EXPECT_TRUE(hasOwner);
     }},
    {"GetMessageAllocatorInstance",
     [](void* o, std::size_t s) {
         EXPECT_EQ(static_cast<TIIpcMessageAllocator*>(static_cast<RecordingConnection*>(o)),
                   CallSlot<TIIpcMessageAllocator*()>(o, s));
     }},
    {"NewMessage this",
     [](void* o, std::size_t s) {
         EXPECT_EQ(nullptr, CallSlot<std::unique_ptr<TIIpcMessage>(void*)>(o, s, o));
     }},
    {"DeleteRawMessage this", [](void* o, std::size_t s) { CallSlot<void(void*)>(o, s, o); }},
    {"GetRawMessageDeleter",
     [](void* o, std::size_t s) { EXPECT_EQ(static_cast<Deleter>(g_free), CallSlot<Deleter()>(o, s)); }},
    {"t_SetConnectingThread thread",
     [](void* o, std::size_t s) { CallSlot<void(std::thread)>(o, s, std::thread([] {})); }},
    {"t_ConnectErrorHandler", [](void* o, std::size_t s) { CallSlot<void()>(o, s); }},
};

} // namespace

TEST(ConnectionSlots, GioConnectionHasTheInterfacesSlotsItsAllocatorsAndTwoOfItsOwn) {
    RecordingConnection connection;
    ExpectSlots(connection, 2, connectionUses);
    EXPECT_EQ(18u, std::size(connectionUses) + 2);
}

TEST(ConnectionSlots, DestructorsComeFirst) {
    ExpectDestructorInTheFirstTwoSlots<TCGdbusConnection>();
    ExpectDestructorInTheFirstTwoSlots<FakeConnection>();
    ExpectDestructorInTheFirstTwoSlots<RecordingOwner>();
}

TEST(ConnectionSlots, InterfaceHasItsSlotsInOrder) {
    FakeConnection connection;
    void* const object = static_cast<TIIpcConnection*>(&connection);
    const auto last = [&] { return connection.Calls().back(); };
    connection.uniqueName = ":1.77";
    connection.waitConnected = false;
    EXPECT_TRUE(
        (CallSlot<bool(std::string, TIIpcConnectionOwner*)>(object, 2, std::string("name"), nullptr)));
    EXPECT_EQ("Connect(name)", last());
    EXPECT_FALSE(CallSlot<bool()>(object, 3));
    connection.waitConnected = true;
    EXPECT_TRUE(CallSlot<bool()>(object, 3));
    EXPECT_TRUE(CallSlot<bool(TIIpcMessage&)>(object, 4, SomeMessage()));
    EXPECT_EQ("Send", last());
    EXPECT_FALSE((CallSlot<bool(TIIpcMessage&, int)>(object, 5, SomeMessage(), 7)));
    EXPECT_EQ("SendWithReply(7)", last());
    RuleThrough(object, 6);
    EXPECT_EQ("AddMatch(rule)", last());
    RuleThrough(object, 7);
    EXPECT_EQ("RemoveMatch(rule)", last());
    EXPECT_EQ(":1.77", CallSlot<std::string()>(object, 8));
    NameThrough(object, 9);
    EXPECT_EQ("RequestName(name)", last());
    NameThrough(object, 10);
    EXPECT_EQ("ReleaseName(name)", last());
    bool hasOwner = false;
    EXPECT_TRUE(
        (CallSlot<bool(const std::string&, int, bool&)>(object, 11, std::string("name"), 250, hasOwner)));
    EXPECT_EQ("BusHasOwner(name, 250)", last());
    EXPECT_TRUE(hasOwner);
    EXPECT_EQ(static_cast<TIIpcMessageAllocator*>(&connection),
              CallSlot<TIIpcMessageAllocator*()>(object, 12));
}

TEST(ConnectionSlots, OwnerHasItsSlotsInOrder) {
    RecordingOwner owner;
    FakeConnection connection;
    EXPECT_TRUE(CallSlot<bool(TIIpcConnection*)>(&owner, 2, &connection));
    EXPECT_EQ("InitializeIpcConnection connection", owner.last);
    EXPECT_TRUE(CallSlot<bool(TIIpcMessage&)>(&owner, 3, SomeMessage()));
    EXPECT_EQ("FilterIpcMessage M", owner.last);
}

TEST(ConnectionSlots, GioConnectionIsItsAllocatorInTheSecondBase) {
    TCGdbusConnection connection;
    TIIpcMessageAllocator* const allocator = &connection;
    EXPECT_EQ(static_cast<void*>(&connection), static_cast<TIIpcConnection*>(&connection));
    EXPECT_EQ(reinterpret_cast<char*>(&connection) + sizeof(void*), reinterpret_cast<char*>(allocator));
    EXPECT_EQ(0, OffsetToWholeObject(&connection));
    EXPECT_EQ(-static_cast<std::ptrdiff_t>(sizeof(void*)), OffsetToWholeObject(allocator));
    // The first table ends where the second begins, two words before its address.
    EXPECT_EQ(18, TableOf(allocator) - 2 - TableOf(&connection));
    EXPECT_EQ(2u + 18u + 2u + 5u, TableWords(&connection));
    EXPECT_EQ(allocator, CallSlot<TIIpcMessageAllocator*()>(&connection, 12));
}

TEST(ConnectionSlots, AllocatorHasItsSlotsInOrderInBothTables) {
    TCGdbusConnection connection;
    const struct {
        void* object;
        std::size_t firstSlot;
    } tables[] = {{&connection, 13}, {static_cast<TIIpcMessageAllocator*>(&connection), 2}};
    for (const auto& table : tables) {
        GDBusMessage* const raw = g_dbus_message_new_signal("/p", "i.i", "M");
        g_object_ref(raw);
        const auto message =
            CallSlot<std::unique_ptr<TIIpcMessage>(void*)>(table.object, table.firstSlot, raw);
        ASSERT_NE(nullptr, message);
        EXPECT_EQ(raw, message->GetRawMessage(false));
        int finalized = 0;
        g_object_weak_ref(
            G_OBJECT(raw), [](gpointer count, GObject*) { ++*static_cast<int*>(count); }, &finalized);
        CallSlot<void(void*)>(table.object, table.firstSlot + 1, raw);
        EXPECT_EQ(0, finalized) << "the message has a reference of its own";
        message->SetRawMessage(nullptr);
        EXPECT_EQ(1, finalized);
        EXPECT_EQ(static_cast<Deleter>(g_object_unref),
                  CallSlot<Deleter()>(table.object, table.firstSlot + 2));
    }
}
