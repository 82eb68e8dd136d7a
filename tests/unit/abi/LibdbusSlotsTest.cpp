#include "DbusConnection.h"
#include "DbusMessage.h"
#include "VirtualTable.h"

#include <gtest/gtest.h>

#include <string>

// The connection over libdbus. That the interfaces have their slots in order is shown elsewhere; here is
// shown that this class fills them and adds none.

using namespace MavixTest;
using MavixApiLite::TCDbusConnection;
using MavixApiLite::TCDbusMessage;
using MavixApiLite::TIIpcConnection;
using MavixApiLite::TIIpcConnectionOwner;
using MavixApiLite::TIIpcMessage;
using MavixApiLite::TIIpcMessageAllocator;

namespace {

using Deleter = void (*)(void*);

} // namespace

TEST(LibdbusSlots, DestructorsComeFirst) {
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
