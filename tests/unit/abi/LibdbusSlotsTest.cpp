#include "DbusConnection.h"
#include "DbusMessage.h"
#include "VirtualTable.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

// The classes of the transport over libdbus. That the interfaces have their slots in order is shown
// elsewhere; here is shown that these classes fill them and add none.

using namespace MavixTest;
using MavixApiLite::TCDbusConnection;
using MavixApiLite::TCDbusMessage;
using MavixApiLite::TIIpcConnection;
using MavixApiLite::TIIpcConnectionOwner;
using MavixApiLite::TIIpcMessage;
using MavixApiLite::TIIpcMessageAllocator;

namespace {

using Bytes = std::vector<std::uint8_t>;
using Deleter = void (*)(void*);
using Type = TIIpcMessage::IpcMessageType;

std::string TakeText(TCDbusMessage& message, std::size_t slot) {
    const char* text = CallSlot<const char*()>(&message, slot);
    return text != nullptr ? text : "null";
}

} // namespace

TEST(LibdbusSlots, DestructorsComeFirst) {
    ExpectDestructorInTheFirstTwoSlots<TCDbusMessage>();
    // One with arguments to its constructor.
    struct Connection : TCDbusConnection {
        Connection() : TCDbusConnection(1, false) {}
    };
    ExpectDestructorInTheFirstTwoSlots<Connection>();
}

TEST(LibdbusSlots, ConnectionIsItsAllocatorInTheSecondBaseAndAddsNoSlot) {
    const TCDbusConnection connection(1, false);
    const TIIpcMessageAllocator* const allocator = &connection;
    EXPECT_EQ(static_cast<const void*>(&connection), static_cast<const TIIpcConnection*>(&connection));
    EXPECT_EQ(reinterpret_cast<const char*>(&connection) + sizeof(void*),
              reinterpret_cast<const char*>(allocator));
    EXPECT_EQ(0, OffsetToWholeObject(&connection));
    EXPECT_EQ(-static_cast<std::ptrdiff_t>(sizeof(void*)), OffsetToWholeObject(allocator));
    EXPECT_EQ(16, TableOf(allocator) - 2 - TableOf(&connection));
    EXPECT_EQ(2u + 16u + 2u + 5u, TableWords(&connection));
    EXPECT_EQ(allocator, CallSlot<TIIpcMessageAllocator*()>(&connection, 12));
}

TEST(LibdbusSlots, ConnectionFillsTheSlotsOfRequests) {
    TCDbusConnection connection(1, false);
    TCDbusMessage message;
    bool hasOwner = true;
    // Without Connect everything that needs the bus fails, and that is what is called here.
    EXPECT_FALSE(CallSlot<bool()>(&connection, 3));
    EXPECT_FALSE(CallSlot<bool(TIIpcMessage&)>(&connection, 4, message));
    EXPECT_FALSE((CallSlot<bool(TIIpcMessage&, int)>(&connection, 5, message, 7)));
    EXPECT_FALSE(CallSlot<bool(const char*)>(&connection, 6, "rule"));
    EXPECT_FALSE(CallSlot<bool(const char*)>(&connection, 7, "rule"));
    EXPECT_EQ("", CallSlot<std::string()>(&connection, 8));
    EXPECT_FALSE(CallSlot<bool(const std::string&)>(&connection, 9, std::string("name")));
    EXPECT_FALSE(CallSlot<bool(const std::string&)>(&connection, 10, std::string("name")));
    EXPECT_FALSE((
        CallSlot<bool(const std::string&, int, bool&)>(&connection, 11, std::string("name"), 250, hasOwner)));
    EXPECT_TRUE(hasOwner);
}

TEST(LibdbusSlots, AllocatorHasItsSlotsInOrderInBothTables) {
    TCDbusConnection connection(1, false);
    const struct {
        void* object;
        std::size_t firstSlot;
    } tables[] = {{&connection, 13}, {static_cast<TIIpcMessageAllocator*>(&connection), 2}};
    dbus_int32_t slot = -1;
    ASSERT_TRUE(dbus_message_allocate_data_slot(&slot));
    for (const auto& table : tables) {
        DBusMessage* const raw = dbus_message_new_signal("/p", "i.i", "M");
        dbus_message_ref(raw);
        const auto message =
            CallSlot<std::unique_ptr<TIIpcMessage>(void*)>(table.object, table.firstSlot, raw);
        ASSERT_NE(nullptr, message);
        EXPECT_EQ(raw, message->GetRawMessage(false));
        int freed = 0;
        dbus_message_set_data(raw, slot, &freed, [](void* count) { ++*static_cast<int*>(count); });
        CallSlot<void(void*)>(table.object, table.firstSlot + 1, raw);
        EXPECT_EQ(0, freed) << "the message has a reference of its own";
        message->SetRawMessage(nullptr);
        EXPECT_EQ(1, freed);
        EXPECT_EQ(reinterpret_cast<Deleter>(dbus_message_unref),
                  CallSlot<Deleter()>(table.object, table.firstSlot + 2));
    }
    dbus_message_free_data_slot(&slot);
}

TEST(LibdbusSlots, MessageHasTheInterfacesSlotsAndNoMore) {
    const TCDbusMessage message;
    EXPECT_EQ(33u, SlotCount(&message));
    EXPECT_EQ(0, OffsetToWholeObject(&message));
}

TEST(LibdbusSlots, MessageFillsTheSlotsOfTheHeader) {
    TCDbusMessage message;
    EXPECT_TRUE((CallSlot<bool(Type, const char*, const char*, const char*, const char*)>(
        &message, 2, TIIpcMessage::MethodCall, "the.bus", "/the/path", "the.iface", "TheMember")));
    Type type = TIIpcMessage::MethodCall;
    EXPECT_TRUE(
        (CallSlot<bool(Type*, const char*, const char*)>(&message, 5, &type, "the.iface", "TheMember")));
    EXPECT_EQ("the.bus", TakeText(message, 6));
    EXPECT_EQ("/the/path", TakeText(message, 7));
    EXPECT_EQ("the.iface", TakeText(message, 8));
    EXPECT_EQ("TheMember", TakeText(message, 9));
    auto* raw = static_cast<DBusMessage*>(CallSlot<void*(bool)>(&message, 28, false));
    dbus_message_set_sender(raw, ":1.5");
    EXPECT_EQ(":1.5", TakeText(message, 10));
    EXPECT_EQ("null", TakeText(message, 11));
    EXPECT_TRUE(CallSlot<bool()>(&message, 12));
    EXPECT_TRUE(dbus_message_get_no_reply(raw));
    dbus_message_set_serial(raw, 9);

    TCDbusMessage error;
    EXPECT_TRUE(
        (CallSlot<bool(TIIpcMessage&, const char*, const char*)>(&error, 3, message, "the.Error", "text")));
    EXPECT_EQ("the.Error", TakeText(error, 11));
    TCDbusMessage reply;
    EXPECT_TRUE(CallSlot<bool(TIIpcMessage&)>(&reply, 4, message));
    type = TIIpcMessage::MethodReturn;
    EXPECT_TRUE((CallSlot<bool(Type*, const char*, const char*)>(&reply, 5, &type, nullptr, nullptr)));

    // Gives the reply's content away and takes it up again.
    void* const content = CallSlot<void*(bool)>(&reply, 28, true);
    CallSlot<void(void*)>(&message, 29, content);
    EXPECT_EQ(content, message.GetRawMessage(false));
}

TEST(LibdbusSlots, MessageFillsTheSlotsOfTheArguments) {
    TCDbusMessage message;
    ASSERT_TRUE(message.Initialize(TIIpcMessage::Signal, nullptr, "/p", "i.i", "M"));
    EXPECT_TRUE(CallSlot<bool(bool)>(&message, 21, true));
    EXPECT_TRUE(CallSlot<bool(std::uint8_t)>(&message, 22, std::uint8_t{200}));
    EXPECT_TRUE(CallSlot<bool(std::int32_t)>(&message, 23, -5));
    EXPECT_TRUE(CallSlot<bool(std::uint32_t)>(&message, 24, 7u));
    EXPECT_TRUE(CallSlot<bool(const std::string&)>(&message, 25, std::string("text")));
    EXPECT_TRUE(CallSlot<bool(const Bytes&)>(&message, 26, Bytes{1, 2, 3}));
    EXPECT_TRUE((CallSlot<bool(const void*, std::size_t)>(&message, 30, "xyz", 3u)));
    EXPECT_TRUE(CallSlot<bool()>(&message, 27));
    auto* raw = static_cast<DBusMessage*>(message.GetRawMessage(false));
    EXPECT_STREQ("byiisayay", dbus_message_get_signature(raw));

    bool boolean = false;
    std::uint8_t byte = 0;
    std::int32_t number = 0;
    std::uint32_t unsignedNumber = 99;
    std::string text;
    Bytes bytes;
    EXPECT_TRUE(CallSlot<bool(bool&)>(&message, 13, boolean));
    EXPECT_TRUE(CallSlot<bool(std::uint8_t&)>(&message, 14, byte));
    EXPECT_TRUE(CallSlot<bool(std::int32_t&)>(&message, 15, number));
    EXPECT_FALSE(CallSlot<bool(std::uint32_t&)>(&message, 16, unsignedNumber));
    EXPECT_TRUE(CallSlot<bool(std::string&)>(&message, 17, text));
    EXPECT_TRUE(CallSlot<bool(Bytes&)>(&message, 18, bytes));
    EXPECT_TRUE(boolean);
    EXPECT_EQ(200, byte);
    EXPECT_EQ(-5, number);
    EXPECT_EQ(99u, unsignedNumber);
    EXPECT_EQ("text", text);
    EXPECT_EQ((Bytes{1, 2, 3}), bytes);
    const std::uint8_t* data = nullptr;
    std::size_t size = 0;
    EXPECT_TRUE(
        (CallSlot<bool(const std::uint8_t*&, std::size_t&, Bytes&)>(&message, 31, data, size, bytes)));
    EXPECT_EQ("xyz", std::string(reinterpret_cast<const char*>(data), size));

    // From the start again: over the first argument to the second.
    EXPECT_TRUE(CallSlot<bool()>(&message, 20));
    EXPECT_TRUE(CallSlot<bool()>(&message, 19));
    byte = 0;
    EXPECT_TRUE(CallSlot<bool(std::uint8_t&)>(&message, 14, byte));
    EXPECT_EQ(200, byte);
}
