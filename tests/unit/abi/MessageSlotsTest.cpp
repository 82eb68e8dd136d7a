#include "DbusMessage.h"
#include "GdbusMessage.h"
#include "VirtualTable.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

using namespace MavixTest;
using MavixApiLite::TCDbusMessage;
using MavixApiLite::TCGdbusMessage;
using MavixApiLite::TIIpcMessage;

namespace {

using Bytes = std::vector<std::uint8_t>;
using Type = TIIpcMessage::IpcMessageType;

std::string Text(const char* text) {
    return text != nullptr ? text : "null";
}

// Says which function was called with what.
class RecordingMessage : public TIIpcMessage {
public:
    std::string last;

    bool Initialize(Type type, const char* destination, const char* path, const char* interface,
                    const char* member) override {
        return m_Keep("Initialize " + std::to_string(type) + Text(destination) + Text(path) +
                      Text(interface) + Text(member));
    }
    bool InitializeErrorReply(TIIpcMessage& request, const char* name, const char* text) override {
        return m_Keep("InitializeErrorReply " + m_Own(request) + Text(name) + Text(text));
    }
    bool InitializeReply(TIIpcMessage& request) override {
        return m_Keep("InitializeReply " + m_Own(request));
    }
    bool IsOfType(Type* type, const char* interface, const char* member) override {
        return m_Keep("IsOfType " + std::to_string(*type) + Text(interface) + Text(member));
    }
    const char* GetDestination() override { return m_KeepText("GetDestination"); }
    const char* GetPath() override { return m_KeepText("GetPath"); }
    const char* GetInterface() override { return m_KeepText("GetInterface"); }
    const char* GetMember() override { return m_KeepText("GetMember"); }
    const char* GetSender() override { return m_KeepText("GetSender"); }
    const char* GetError() override { return m_KeepText("GetError"); }
    bool SetNoReply() override { return m_Keep("SetNoReply"); }
    bool PopBool(bool& value) override { return m_KeepPop("PopBool", value); }
    bool PopByte(std::uint8_t& value) override { return m_KeepPop("PopByte", value); }
    bool PopInt(std::int32_t& value) override { return m_KeepPop("PopInt", value); }
    bool PopUint(std::uint32_t& value) override { return m_KeepPop("PopUint", value); }
    bool PopString(std::string& value) override {
        value = "popped";
        return m_Keep("PopString");
    }
    bool PopBytes(Bytes& value) override {
        value = {1, 2};
        return m_Keep("PopBytes");
    }
    bool PopSkip() override { return m_Keep("PopSkip"); }
    bool PopEnd() override { return m_Keep("PopEnd"); }
    bool PushBool(bool value) override { return m_Keep("PushBool " + std::to_string(value)); }
    bool PushByte(std::uint8_t value) override { return m_Keep("PushByte " + std::to_string(value)); }
    bool PushInt(std::int32_t value) override { return m_Keep("PushInt " + std::to_string(value)); }
    bool PushUint(std::uint32_t value) override { return m_Keep("PushUint " + std::to_string(value)); }
    bool PushString(const std::string& value) override { return m_Keep("PushString " + value); }
    bool PushBytes(const Bytes& value) override {
        return m_Keep("PushBytes " + std::to_string(value.size()));
    }
    bool PushEnd() override { return m_Keep("PushEnd"); }
    void* GetRawMessage(bool addReference) override {
        m_Keep("GetRawMessage " + std::to_string(addReference));
        return this;
    }
    void SetRawMessage(void* raw) override { m_Keep(raw == this ? "SetRawMessage this" : "SetRawMessage"); }
    bool PushByteRange(const void* data, std::size_t size) override {
        return m_Keep("PushByteRange " + std::string(static_cast<const char*>(data), size));
    }
    bool PopByteRange(const std::uint8_t*& data, std::size_t& size, Bytes& storage) override {
        storage = {1, 2, 3};
        data = storage.data();
        size = 2;
        return m_Keep("PopByteRange");
    }
    bool PushOwnedBytes(std::vector<char> bytes) override {
        return m_Keep("PushOwnedBytes " + std::string(bytes.begin(), bytes.end()));
    }

private:
    std::string m_Own(TIIpcMessage& message) const { return &message == this ? "this" : "other"; }
    bool m_Keep(const std::string& call) {
        last = call;
        return true;
    }
    const char* m_KeepText(const char* call) {
        last = call;
        return "a text";
    }
    template <class Value>
    bool m_KeepPop(const char* call, Value& value) {
        value = static_cast<Value>(1);
        return m_Keep(call);
    }
};

template <class Value>
void PopThrough(void* object, std::size_t slot) {
    Value value{};
    EXPECT_TRUE(CallSlot<bool(Value&)>(object, slot, value));
    EXPECT_NE(Value{}, value);
}

void GetThrough(void* object, std::size_t slot) {
    EXPECT_STREQ("a text", CallSlot<const char*()>(object, slot));
}

void CallThrough(void* object, std::size_t slot) {
    EXPECT_TRUE(CallSlot<bool()>(object, slot));
}

RecordingMessage& AsMessage(void* object) {
    return *static_cast<RecordingMessage*>(object);
}

const SlotUse messageUses[] = {
    {"Initialize 1dpim",
     [](void* o, std::size_t s) {
         CallSlot<bool(Type, const char*, const char*, const char*, const char*)>(
             o, s, TIIpcMessage::MethodCall, "d", "p", "i", "m");
     }},
    {"InitializeErrorReply thisnamenull",
     [](void* o, std::size_t s) {
         CallSlot<bool(TIIpcMessage&, const char*, const char*)>(o, s, AsMessage(o), "name", nullptr);
     }},
    {"InitializeReply this",
     [](void* o, std::size_t s) { CallSlot<bool(TIIpcMessage&)>(o, s, AsMessage(o)); }},
    {"IsOfType 3im",
     [](void* o, std::size_t s) {
         Type type = TIIpcMessage::Error;
         CallSlot<bool(Type*, const char*, const char*)>(o, s, &type, "i", "m");
     }},
    {"GetDestination", GetThrough},
    {"GetPath", GetThrough},
    {"GetInterface", GetThrough},
    {"GetMember", GetThrough},
    {"GetSender", GetThrough},
    {"GetError", GetThrough},
    {"SetNoReply", CallThrough},
    {"PopBool", PopThrough<bool>},
    {"PopByte", PopThrough<std::uint8_t>},
    {"PopInt", PopThrough<std::int32_t>},
    {"PopUint", PopThrough<std::uint32_t>},
    {"PopString", PopThrough<std::string>},
    {"PopBytes", PopThrough<Bytes>},
    {"PopSkip", CallThrough},
    {"PopEnd", CallThrough},
    {"PushBool 1", [](void* o, std::size_t s) { CallSlot<bool(bool)>(o, s, true); }},
    {"PushByte 200", [](void* o, std::size_t s) { CallSlot<bool(std::uint8_t)>(o, s, std::uint8_t{200}); }},
    {"PushInt -5", [](void* o, std::size_t s) { CallSlot<bool(std::int32_t)>(o, s, -5); }},
    {"PushUint 4000000000", [](void* o, std::size_t s) { CallSlot<bool(std::uint32_t)>(o, s, 4000000000u); }},
    {"PushString text",
     [](void* o, std::size_t s) { CallSlot<bool(const std::string&)>(o, s, std::string("text")); }},
    {"PushBytes 3",
     [](void* o, std::size_t s) {
         CallSlot<bool(const Bytes&)>(o, s, Bytes{1, 2, 3});
     }},
    {"PushEnd", CallThrough},
    {"GetRawMessage 1", [](void* o, std::size_t s) { EXPECT_EQ(o, CallSlot<void*(bool)>(o, s, true)); }},
    {"SetRawMessage this", [](void* o, std::size_t s) { CallSlot<void(void*)>(o, s, o); }},
    // Our additions stand behind what was there before.
    {"PushByteRange xy",
     [](void* o, std::size_t s) { CallSlot<bool(const void*, std::size_t)>(o, s, "xyz", 2u); }},
    {"PopByteRange",
     [](void* o, std::size_t s) {
         const std::uint8_t* data = nullptr;
         std::size_t size = 0;
         Bytes storage;
         CallSlot<bool(const std::uint8_t*&, std::size_t&, Bytes&)>(o, s, data, size, storage);
         EXPECT_EQ(storage.data(), data);
         EXPECT_EQ(2u, size);
     }},
    {"PushOwnedBytes xyz",
     [](void* o, std::size_t s) {
         CallSlot<bool(std::vector<char>)>(o, s, std::vector<char>{'x', 'y', 'z'});
     }},
};

// How the tests look at what a transport's messages hold.
template <class Message>
struct RawKit;

template <>
struct RawKit<TCGdbusMessage> {
    static constexpr const char* name = "Gio";
    static constexpr bool pushesUint = true;
    using Raw = GDBusMessage;
    static void SetSender(Raw* raw, const char* sender) { g_dbus_message_set_sender(raw, sender); }
    static void SetSerial(Raw* raw, std::uint32_t serial) { g_dbus_message_set_serial(raw, serial); }
    static bool WantsNoReply(Raw* raw) {
        return (g_dbus_message_get_flags(raw) & G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED) != 0;
    }
    static const char* Signature(Raw* raw) { return g_dbus_message_get_signature(raw); }
};

template <>
struct RawKit<TCDbusMessage> {
    static constexpr const char* name = "Libdbus";
    static constexpr bool pushesUint = false; // but an int
    using Raw = DBusMessage;
    static void SetSender(Raw* raw, const char* sender) { dbus_message_set_sender(raw, sender); }
    static void SetSerial(Raw* raw, std::uint32_t serial) { dbus_message_set_serial(raw, serial); }
    static bool WantsNoReply(Raw* raw) { return dbus_message_get_no_reply(raw) != FALSE; }
    static const char* Signature(Raw* raw) { return dbus_message_get_signature(raw); }
};

struct RawNames {
    template <class Message>
    static std::string GetName(int /*index*/) {
        return RawKit<Message>::name;
    }
};

// The messages of the transports fill the interface's slots and add none.
template <class Message>
class TransportMessageSlots : public testing::Test {
protected:
    static std::string TakeText(const Message& message, std::size_t slot) {
        return Text(CallSlot<const char*()>(&message, slot));
    }

    Message m_message;
};

using TransportMessages = testing::Types<TCGdbusMessage, TCDbusMessage>;
TYPED_TEST_SUITE(TransportMessageSlots, TransportMessages, RawNames);

} // namespace

TEST(MessageSlots, InterfaceHas29DefinedOperationsAndThreeMoreBehindThem) {
    RecordingMessage message;
    ExpectSlots(message, 2, messageUses);
    EXPECT_EQ(33u, std::size(messageUses) + 2);
}

TEST(MessageSlots, DestructorsComeFirst) {
    ExpectDestructorInTheFirstTwoSlots<RecordingMessage>();
}

TYPED_TEST(TransportMessageSlots, DestructorsComeFirst) {
    ExpectDestructorInTheFirstTwoSlots<TypeParam>();
}

TYPED_TEST(TransportMessageSlots, AreThoseOfTheInterfaceAndNoMore) {
    EXPECT_EQ(33u, SlotCount(&this->m_message));
    EXPECT_EQ(0, OffsetToWholeObject(&this->m_message));
}

TYPED_TEST(TransportMessageSlots, OfTheHeaderAreFilled) {
    using Kit = RawKit<TypeParam>;
    TypeParam& message = this->m_message;
    EXPECT_TRUE((CallSlot<bool(Type, const char*, const char*, const char*, const char*)>(
        &message, 2, TIIpcMessage::MethodCall, "the.bus", "/the/path", "the.iface", "TheMember")));
    Type type = TIIpcMessage::MethodCall;
    EXPECT_TRUE(
        (CallSlot<bool(Type*, const char*, const char*)>(&message, 5, &type, "the.iface", "TheMember")));
    EXPECT_EQ("the.bus", this->TakeText(message, 6));
    EXPECT_EQ("/the/path", this->TakeText(message, 7));
    EXPECT_EQ("the.iface", this->TakeText(message, 8));
    EXPECT_EQ("TheMember", this->TakeText(message, 9));
    auto* raw = static_cast<typename Kit::Raw*>(CallSlot<void*(bool)>(&message, 28, false));
    Kit::SetSender(raw, ":1.5");
    EXPECT_EQ(":1.5", this->TakeText(message, 10));
    EXPECT_EQ("null", this->TakeText(message, 11));
    EXPECT_TRUE(CallSlot<bool()>(&message, 12));
    EXPECT_TRUE(Kit::WantsNoReply(raw));
    Kit::SetSerial(raw, 9);

    TypeParam error;
    EXPECT_TRUE(
        (CallSlot<bool(TIIpcMessage&, const char*, const char*)>(&error, 3, message, "the.Error", "text")));
    EXPECT_EQ("the.Error", this->TakeText(error, 11));
    TypeParam reply;
    EXPECT_TRUE(CallSlot<bool(TIIpcMessage&)>(&reply, 4, message));
    type = TIIpcMessage::MethodReturn;
    EXPECT_TRUE((CallSlot<bool(Type*, const char*, const char*)>(&reply, 5, &type, nullptr, nullptr)));

    // Gives the reply's content away and takes it up again.
    void* const content = CallSlot<void*(bool)>(&reply, 28, true);
    CallSlot<void(void*)>(&message, 29, content);
    EXPECT_EQ(content, message.GetRawMessage(false));
}

TYPED_TEST(TransportMessageSlots, OfTheArgumentsAreFilled) {
    using Kit = RawKit<TypeParam>;
    TypeParam& message = this->m_message;
    ASSERT_TRUE(message.Initialize(TIIpcMessage::Signal, nullptr, "/p", "i.i", "M"));
    EXPECT_TRUE(CallSlot<bool(bool)>(&message, 21, true));
    EXPECT_TRUE(CallSlot<bool(std::uint8_t)>(&message, 22, std::uint8_t{200}));
    EXPECT_TRUE(CallSlot<bool(std::int32_t)>(&message, 23, -5));
    EXPECT_TRUE(CallSlot<bool(std::uint32_t)>(&message, 24, 4000000000u));
    EXPECT_TRUE(CallSlot<bool(const std::string&)>(&message, 25, std::string("text")));
    EXPECT_TRUE(CallSlot<bool(const Bytes&)>(&message, 26, Bytes{1, 2, 3}));
    EXPECT_TRUE((CallSlot<bool(const void*, std::size_t)>(&message, 30, "xyz", 3u)));
    EXPECT_TRUE(CallSlot<bool(std::vector<char>)>(&message, 32, std::vector<char>{'o', 'w', 'n'}));
    EXPECT_TRUE(CallSlot<bool()>(&message, 27));
    auto* raw = static_cast<typename Kit::Raw*>(message.GetRawMessage(false));
    EXPECT_STREQ(Kit::pushesUint ? "byiusayayay" : "byiisayayay", Kit::Signature(raw));

    bool boolean = false;
    std::uint8_t byte = 0;
    std::int32_t number = 0;
    std::uint32_t unsignedNumber = 99;
    std::string text;
    Bytes bytes;
    EXPECT_TRUE(CallSlot<bool(bool&)>(&message, 13, boolean));
    EXPECT_TRUE(CallSlot<bool(std::uint8_t&)>(&message, 14, byte));
    EXPECT_TRUE(CallSlot<bool(std::int32_t&)>(&message, 15, number));
    EXPECT_EQ(Kit::pushesUint, CallSlot<bool(std::uint32_t&)>(&message, 16, unsignedNumber));
    EXPECT_TRUE(CallSlot<bool(std::string&)>(&message, 17, text));
    EXPECT_TRUE(CallSlot<bool(Bytes&)>(&message, 18, bytes));
    EXPECT_TRUE(boolean);
    EXPECT_EQ(200, byte);
    EXPECT_EQ(-5, number);
    EXPECT_EQ(Kit::pushesUint ? 4000000000u : 99u, unsignedNumber);
    EXPECT_EQ("text", text);
    EXPECT_EQ((Bytes{1, 2, 3}), bytes);
    for (const char* expected : {"xyz", "own"}) {
        const std::uint8_t* data = nullptr;
        std::size_t size = 0;
        EXPECT_TRUE(
            (CallSlot<bool(const std::uint8_t*&, std::size_t&, Bytes&)>(&message, 31, data, size, bytes)));
        EXPECT_EQ(expected, std::string(reinterpret_cast<const char*>(data), size));
    }

    // From the start again: over the first argument to the second.
    EXPECT_TRUE(CallSlot<bool()>(&message, 20));
    EXPECT_TRUE(CallSlot<bool()>(&message, 19));
    byte = 0;
    EXPECT_TRUE(CallSlot<bool(std::uint8_t&)>(&message, 14, byte));
    EXPECT_EQ(200, byte);
}
