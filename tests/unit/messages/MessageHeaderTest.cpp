#include "MessageFixture.h"

#include <stdexcept>

using namespace MavixTest;

namespace {

using Type = TIIpcMessage::IpcMessageType;

// Names have at most 255 characters.
const std::string longestName = "a." + std::string(253, 'b');
const std::string longName = longestName + 'b';
const std::string longestMember(255, 'b');
const std::string longMember(256, 'b');

template <class Message>
class MessageHeader : public MessageFixture<Message> {
protected:
    GDBusMessageType WireType() {
        return g_dbus_message_get_message_type(this->OnTheWire(this->m_message).get());
    }
    int WireFlags() { return g_dbus_message_get_flags(this->OnTheWire(this->m_message).get()); }
};

TYPED_TEST_SUITE(MessageHeader, MessageTypes, MessageNames);

struct Names {
    const char* destination;
    const char* path;
    const char* interface;
    const char* member;
};

std::string Text(const char* text) {
    return text != nullptr ? text : "(null)";
}

std::ostream& operator<<(std::ostream& out, const Names& names) {
    return out << Text(names.destination) << ", " << Text(names.path) << ", " << Text(names.interface) << ", "
               << Text(names.member);
}

} // namespace

TYPED_TEST(MessageHeader, NumbersTheMessageTypes) {
    EXPECT_EQ(0, TIIpcMessage::Signal);
    EXPECT_EQ(1, TIIpcMessage::MethodCall);
    EXPECT_EQ(2, TIIpcMessage::MethodReturn);
    EXPECT_EQ(3, TIIpcMessage::Error);
    EXPECT_EQ(4U, sizeof(Type));
}

TYPED_TEST(MessageHeader, InitializeBuildsAMethodCall) {
    ASSERT_TRUE(this->InitializeCall());
    EXPECT_EQ(G_DBUS_MESSAGE_TYPE_METHOD_CALL, this->WireType());
    EXPECT_STREQ(testBus, this->m_message.GetDestination());
    EXPECT_STREQ(testPath, this->m_message.GetPath());
    EXPECT_STREQ(testInterface, this->m_message.GetInterface());
    EXPECT_STREQ(testMember, this->m_message.GetMember());
    EXPECT_EQ(nullptr, this->m_message.GetSender());
    EXPECT_EQ(nullptr, this->m_message.GetError());
    EXPECT_EQ(G_DBUS_MESSAGE_FLAGS_NONE, this->WireFlags());
}

TYPED_TEST(MessageHeader, InitializeBuildsASignalWithAndWithoutADestination) {
    for (const char* destination : {static_cast<const char*>(nullptr), testBus}) {
        ASSERT_TRUE(this->m_message.Initialize(TIIpcMessage::Signal, destination, testPath, testInterface,
                                               testMember));
        EXPECT_EQ(G_DBUS_MESSAGE_TYPE_SIGNAL, this->WireType());
        EXPECT_STREQ(destination, this->m_message.GetDestination());
        EXPECT_STREQ(testPath, this->m_message.GetPath());
        EXPECT_STREQ(testInterface, this->m_message.GetInterface());
        EXPECT_STREQ(testMember, this->m_message.GetMember());
        EXPECT_EQ(G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED, this->WireFlags()) << "nobody answers a signal";
    }
}

TYPED_TEST(MessageHeader, InitializeRefusesOtherTypesAndEmptiesTheObject) {
    for (const Type type :
         {TIIpcMessage::MethodReturn, TIIpcMessage::Error, static_cast<Type>(4), static_cast<Type>(-1)}) {
        SCOPED_TRACE(type);
        this->Hold(this->m_message, Built("(1,)"));
        EXPECT_FALSE(this->m_message.Initialize(type, testBus, testPath, testInterface, testMember));
        EXPECT_EQ(nullptr, this->m_message.GetRawMessage(false));
        this->ExpectLines("Initialize", TestFixture::Kit::row.refusedInitialize);
    }
}

TYPED_TEST(MessageHeader, InitializeRefusesNamesThatTheBusDoesNotAllow) {
    const Names table[] = {
        {"", testPath, testInterface, testMember},
        {"noDot", testPath, testInterface, testMember},
        {"a b.c", testPath, testInterface, testMember},
        {longName.c_str(), testPath, testInterface, testMember},
        {testBus, nullptr, testInterface, testMember},
        {testBus, "", testInterface, testMember},
        {testBus, "no/slash", testInterface, testMember},
        {testBus, "/ends/", testInterface, testMember},
        {testBus, "/org/freedesktop/DBus/Local", testInterface, testMember},
        {testBus, "/org/freedesktop/DBus/Local/below", testInterface, testMember},
        {testBus, "/org/freedesktop/DBus/Localities", testInterface, testMember},
        {testBus, testPath, "", testMember},
        {testBus, testPath, "noDot", testMember},
        {testBus, testPath, "foo bar", testMember},
        {testBus, testPath, "com.norvale.\xff", testMember},
        {testBus, testPath, longName.c_str(), testMember},
        {testBus, testPath, "org.freedesktop.DBus.Local", testMember},
        {testBus, testPath, "org.freedesktop.DBus.Local.below", testMember},
        {testBus, testPath, "org.freedesktop.DBus.Localities", testMember},
        {testBus, testPath, testInterface, nullptr},
        {testBus, testPath, testInterface, ""},
        {testBus, testPath, testInterface, "with.dot"},
        {testBus, testPath, testInterface, "with space"},
        {testBus, testPath, testInterface, "\xc3\xbc"},
        {testBus, testPath, testInterface, longMember.c_str()},
    };
    for (const Names& row : table) {
        for (const Type type : {TIIpcMessage::Signal, TIIpcMessage::MethodCall}) {
            SCOPED_TRACE(testing::Message() << row << ", type " << type);
            this->Hold(this->m_message, Built());
            EXPECT_FALSE(
                this->m_message.Initialize(type, row.destination, row.path, row.interface, row.member));
            EXPECT_EQ(nullptr, this->m_message.GetRawMessage(false));
            this->ExpectLines("Initialize", TestFixture::Kit::row.refusedInitialize);
        }
    }
}

TYPED_TEST(MessageHeader, InitializeTakesTheLongestNamesAndAUniqueName) {
    const Names table[] = {
        {":1.42", "/", longestName.c_str(), "m"},
        {longestName.c_str(), testPath, testInterface, longestMember.c_str()},
        {nullptr, testPath, testInterface, testMember},
        {testBus, "/org/freedesktop/DBus/Loca", "org.freedesktop.DBus.Loca", testMember},
    };
    for (const Names& row : table) {
        for (const Type type : {TIIpcMessage::Signal, TIIpcMessage::MethodCall}) {
            SCOPED_TRACE(testing::Message() << row << ", type " << type);
            EXPECT_TRUE(
                this->m_message.Initialize(type, row.destination, row.path, row.interface, row.member));
        }
    }
}

TYPED_TEST(MessageHeader, OnlyACallMayLackItsInterface) {
    EXPECT_TRUE(this->m_message.Initialize(TIIpcMessage::MethodCall, testBus, testPath, nullptr, testMember));
    EXPECT_EQ(nullptr, this->m_message.GetInterface());
    this->ExpectNoLines();
    EXPECT_FALSE(this->m_message.Initialize(TIIpcMessage::Signal, nullptr, testPath, nullptr, testMember));
    this->ExpectLines("Initialize", TestFixture::Kit::row.refusedInitialize);
}

TYPED_TEST(MessageHeader, GettersOfAnEmptyObjectLogAndGiveNull) {
    const struct {
        const char* name;
        const char* (TIIpcMessage::*get)();
    } table[] = {
        {"GetDestination", &TIIpcMessage::GetDestination}, {"GetPath", &TIIpcMessage::GetPath},
        {"GetInterface", &TIIpcMessage::GetInterface},     {"GetMember", &TIIpcMessage::GetMember},
        {"GetSender", &TIIpcMessage::GetSender},           {"GetError", &TIIpcMessage::GetError},
    };
    for (const auto& row : table) {
        EXPECT_EQ(nullptr, (this->m_message.*row.get)()) << row.name;
        this->ExpectLines(row.name, TestFixture::Kit::row.getterOfEmptyObject);
    }
}

TYPED_TEST(MessageHeader, GettersOfAReceivedErrorGiveSenderAndErrorName) {
    const GioMessage call = TCBlob(Built().get()).ForGio();
    this->Receive(this->m_message,
                  GioMessage(g_dbus_message_new_method_error_literal(call.get(), "a.b.Broken", "why")));
    EXPECT_STREQ("a.b.Broken", this->m_message.GetError());
    EXPECT_STREQ(":1.7", this->m_message.GetSender());
    EXPECT_EQ(nullptr, this->m_message.GetPath());
    EXPECT_EQ(nullptr, this->m_message.GetInterface());
    EXPECT_EQ(nullptr, this->m_message.GetMember());
}

TYPED_TEST(MessageHeader, SetNoReplyAddsItsFlagToTheOthers) {
    GioMessage message = Built();
    g_dbus_message_set_flags(message.get(), G_DBUS_MESSAGE_FLAGS_NO_AUTO_START);
    this->Hold(this->m_message, std::move(message));
    EXPECT_TRUE(this->m_message.SetNoReply());
    EXPECT_EQ(G_DBUS_MESSAGE_FLAGS_NO_AUTO_START | G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED, this->WireFlags());
}

TYPED_TEST(MessageHeader, SetNoReplyWithoutAMessageFails) {
    EXPECT_FALSE(this->m_message.SetNoReply());
    this->ExpectLines("SetNoReply", TestFixture::Kit::row.noReplyOfEmptyObject);
}

TYPED_TEST(MessageHeader, SetNoReplyLeavesAReceivedMessageAloneExceptOnLibdbus) {
    this->Receive(this->m_message, Built("(1,)"));
    const bool changed = TestFixture::Kit::row.receivedCanBeExtended;
    EXPECT_EQ(changed, this->m_message.SetNoReply());
    this->ExpectLines("SetNoReply", changed ? nullptr : "Message is locked");
    EXPECT_EQ(changed ? G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED : G_DBUS_MESSAGE_FLAGS_NONE,
              this->WireFlags());
}

TYPED_TEST(MessageHeader, GetRawMessageTakesAReferenceOnlyWhenAsked) {
    EXPECT_EQ(nullptr, this->m_message.GetRawMessage(false));
    EXPECT_EQ(nullptr, this->m_message.GetRawMessage(true));
    for (const bool asked : {false, true}) {
        bool gone = false;
        this->Hold(this->m_message, Built());
        TestFixture::Kit::Watch(this->RawOf(this->m_message), &gone);
        void* raw = this->m_message.GetRawMessage(asked);
        EXPECT_EQ(raw, this->m_message.GetRawMessage(false));
        this->m_message.SetRawMessage(nullptr);
        EXPECT_EQ(nullptr, this->m_message.GetRawMessage(false));
        EXPECT_EQ(!asked, gone);
        if (asked) {
            TestFixture::Kit::Unref(raw);
        }
        EXPECT_TRUE(gone);
    }
}

TYPED_TEST(MessageHeader, TheObjectDropsItsReferenceWithItself) {
    bool gone = false;
    {
        TypeParam message;
        this->Hold(message, Built("(1,)"));
        TestFixture::Kit::Watch(this->RawOf(message), &gone);
    }
    EXPECT_TRUE(gone);
}
