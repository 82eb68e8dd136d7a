#include "GdbusFixture.h"

#include <stdexcept>

using namespace MavixTest;

namespace {

using Type = TIIpcMessage::IpcMessageType;

// Names have at most 255 characters.
const std::string longestName = "a." + std::string(253, 'b');
const std::string longName = longestName + 'b';
const std::string longestMember(255, 'b');
const std::string longMember(256, 'b');

class GdbusHeader : public GdbusMessageFixture {
protected:
    GDBusMessage* Raw() { return static_cast<GDBusMessage*>(m_message.GetRawMessage(false)); }
};

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

TEST_F(GdbusHeader, NumbersTheMessageTypes) {
    EXPECT_EQ(0, TIIpcMessage::Signal);
    EXPECT_EQ(1, TIIpcMessage::MethodCall);
    EXPECT_EQ(2, TIIpcMessage::MethodReturn);
    EXPECT_EQ(3, TIIpcMessage::Error);
    EXPECT_EQ(4U, sizeof(Type));
}

TEST_F(GdbusHeader, InitializeBuildsAMethodCall) {
    ASSERT_TRUE(m_message.Initialize(TIIpcMessage::MethodCall, testBus, testPath, testInterface, testMember));
    EXPECT_EQ(G_DBUS_MESSAGE_TYPE_METHOD_CALL, g_dbus_message_get_message_type(Raw()));
    EXPECT_STREQ(testBus, m_message.GetDestination());
    EXPECT_STREQ(testPath, m_message.GetPath());
    EXPECT_STREQ(testInterface, m_message.GetInterface());
    EXPECT_STREQ(testMember, m_message.GetMember());
    EXPECT_EQ(nullptr, m_message.GetSender());
    EXPECT_EQ(nullptr, m_message.GetError());
    EXPECT_EQ(G_DBUS_MESSAGE_FLAGS_NONE, g_dbus_message_get_flags(Raw()));
}

TEST_F(GdbusHeader, InitializeBuildsASignalWithAndWithoutADestination) {
    for (const char* destination : {static_cast<const char*>(nullptr), testBus}) {
        ASSERT_TRUE(
            m_message.Initialize(TIIpcMessage::Signal, destination, testPath, testInterface, testMember));
        EXPECT_EQ(G_DBUS_MESSAGE_TYPE_SIGNAL, g_dbus_message_get_message_type(Raw()));
        EXPECT_STREQ(destination, m_message.GetDestination());
        EXPECT_STREQ(testPath, m_message.GetPath());
        EXPECT_STREQ(testInterface, m_message.GetInterface());
        EXPECT_STREQ(testMember, m_message.GetMember());
    }
}

TEST_F(GdbusHeader, InitializeRefusesOtherTypesAndEmptiesTheObject) {
    for (const Type type :
         {TIIpcMessage::MethodReturn, TIIpcMessage::Error, static_cast<Type>(4), static_cast<Type>(-1)}) {
        SCOPED_TRACE(type);
        Adopt(m_message, Built("(1,)"));
        EXPECT_FALSE(m_message.Initialize(type, testBus, testPath, testInterface, testMember));
        EXPECT_EQ(nullptr, m_message.GetRawMessage(false));
        ExpectLines("Initialize", "No message initialized");
    }
}

TEST_F(GdbusHeader, InitializeRefusesNamesThatTheBusDoesNotAllow) {
    const Names table[] = {
        {"", testPath, testInterface, testMember},
        {"noDot", testPath, testInterface, testMember},
        {"a b.c", testPath, testInterface, testMember},
        {longName.c_str(), testPath, testInterface, testMember},
        {testBus, nullptr, testInterface, testMember},
        {testBus, "", testInterface, testMember},
        {testBus, "no/slash", testInterface, testMember},
        {testBus, "/ends/", testInterface, testMember},
        {testBus, testPath, "", testMember},
        {testBus, testPath, "noDot", testMember},
        {testBus, testPath, "foo bar", testMember},
        {testBus, testPath, "com.norvale.\xff", testMember},
        {testBus, testPath, longName.c_str(), testMember},
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
            Adopt(m_message, Built());
            EXPECT_FALSE(m_message.Initialize(type, row.destination, row.path, row.interface, row.member));
            EXPECT_EQ(nullptr, m_message.GetRawMessage(false));
            ExpectLines("Initialize", "No message initialized");
        }
    }
}

TEST_F(GdbusHeader, InitializeTakesTheLongestNamesAndAUniqueName) {
    const Names table[] = {
        {":1.42", "/", longestName.c_str(), "m"},
        {longestName.c_str(), testPath, testInterface, longestMember.c_str()},
        {nullptr, testPath, testInterface, testMember},
    };
    for (const Names& row : table) {
        for (const Type type : {TIIpcMessage::Signal, TIIpcMessage::MethodCall}) {
            SCOPED_TRACE(testing::Message() << row << ", type " << type);
            EXPECT_TRUE(m_message.Initialize(type, row.destination, row.path, row.interface, row.member));
        }
    }
}

TEST_F(GdbusHeader, OnlyACallMayLackItsInterface) {
    EXPECT_TRUE(m_message.Initialize(TIIpcMessage::MethodCall, testBus, testPath, nullptr, testMember));
    EXPECT_EQ(nullptr, m_message.GetInterface());
    ExpectNoLines();
    EXPECT_FALSE(m_message.Initialize(TIIpcMessage::Signal, nullptr, testPath, nullptr, testMember));
    ExpectLines("Initialize", "No message initialized");
}

TEST_F(GdbusHeader, GettersOfAnEmptyObjectLogAndGiveNull) {
    const struct {
        const char* name;
        const char* (TCGdbusMessage::*get)();
    } table[] = {
        {"GetDestination", &TCGdbusMessage::GetDestination}, {"GetPath", &TCGdbusMessage::GetPath},
        {"GetInterface", &TCGdbusMessage::GetInterface},     {"GetMember", &TCGdbusMessage::GetMember},
        {"GetSender", &TCGdbusMessage::GetSender},           {"GetError", &TCGdbusMessage::GetError},
    };
    for (const auto& row : table) {
        EXPECT_EQ(nullptr, (m_message.*row.get)()) << row.name;
        ExpectLines(row.name, "Invalid message");
    }
}

TEST_F(GdbusHeader, GettersOfAReceivedErrorGiveSenderAndErrorName) {
    RawMessage call = Received(Built());
    Adopt(m_message,
          Received(RawMessage(g_dbus_message_new_method_error_literal(call.get(), "a.b.Broken", "why"))));
    EXPECT_STREQ("a.b.Broken", m_message.GetError());
    EXPECT_STREQ(":1.7", m_message.GetSender());
    EXPECT_EQ(nullptr, m_message.GetPath());
    EXPECT_EQ(nullptr, m_message.GetInterface());
    EXPECT_EQ(nullptr, m_message.GetMember());
}

TEST_F(GdbusHeader, SetNoReplyAddsItsFlagToTheOthers) {
    Adopt(m_message, Built());
    g_dbus_message_set_flags(Raw(), G_DBUS_MESSAGE_FLAGS_NO_AUTO_START);
    EXPECT_TRUE(m_message.SetNoReply());
    EXPECT_EQ(G_DBUS_MESSAGE_FLAGS_NO_AUTO_START | G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED,
              g_dbus_message_get_flags(Raw()));
}

TEST_F(GdbusHeader, SetNoReplyWithoutAMessageFails) {
    EXPECT_FALSE(m_message.SetNoReply());
    ExpectLines("SetNoReply", "No message");
}

TEST_F(GdbusHeader, SetNoReplyLeavesAReceivedMessageAlone) {
    Adopt(m_message, Received(Built("(1,)")));
    EXPECT_FALSE(m_message.SetNoReply());
    ExpectLines("SetNoReply", "Message is locked");
    EXPECT_EQ(G_DBUS_MESSAGE_FLAGS_NONE, g_dbus_message_get_flags(Raw()));
}

TEST_F(GdbusHeader, GetRawMessageTakesAReferenceOnlyWhenAsked) {
    EXPECT_EQ(nullptr, m_message.GetRawMessage(false));
    EXPECT_EQ(nullptr, m_message.GetRawMessage(true));
    Adopt(m_message, Built());
    const GObject* object = G_OBJECT(Raw());
    EXPECT_EQ(1U, object->ref_count);
    EXPECT_EQ(Raw(), m_message.GetRawMessage(false));
    EXPECT_EQ(1U, object->ref_count);
    const RawMessage kept(static_cast<GDBusMessage*>(m_message.GetRawMessage(true)));
    EXPECT_EQ(2U, object->ref_count);
    m_message.SetRawMessage(nullptr);
    EXPECT_EQ(1U, object->ref_count);
    EXPECT_EQ(nullptr, m_message.GetRawMessage(false));
}

TEST_F(GdbusHeader, TheObjectDropsItsReferenceWithItself) {
    const RawMessage kept = Built("(1,)");
    {
        TCGdbusMessage message;
        message.SetRawMessage(g_object_ref(kept.get()));
        EXPECT_EQ(2U, G_OBJECT(kept.get())->ref_count);
    }
    EXPECT_EQ(1U, G_OBJECT(kept.get())->ref_count);
}
