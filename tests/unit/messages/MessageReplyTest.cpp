#include "GdbusFixture.h"

using namespace MavixTest;

namespace {

class GdbusReply : public GdbusMessageFixture {
protected:
    GDBusMessage* Raw() { return static_cast<GDBusMessage*>(m_message.GetRawMessage(false)); }
    static GDBusMessage* Raw(TIIpcMessage& message) {
        return static_cast<GDBusMessage*>(message.GetRawMessage(false));
    }

    void SetUp() override { Adopt(m_request, Received(Built("(1,)"))); }

    TCGdbusMessage m_request;
};

} // namespace

TEST_F(GdbusReply, AnswersTheCall) {
    ASSERT_TRUE(m_message.InitializeReply(m_request));
    EXPECT_EQ(G_DBUS_MESSAGE_TYPE_METHOD_RETURN, g_dbus_message_get_message_type(Raw()));
    EXPECT_EQ(7U, g_dbus_message_get_reply_serial(Raw()));
    EXPECT_STREQ(":1.7", m_message.GetDestination());
    EXPECT_EQ("no body", BodyOf(m_message));
    EXPECT_TRUE(m_message.PushInt(3));
    EXPECT_TRUE(m_message.PushEnd());
    EXPECT_EQ("(3,)", BodyOf(m_message));
}

TEST_F(GdbusReply, ErrorsCarryNameAndText) {
    for (const char* text : {"", "why", "\xc3\xbc"}) {
        ASSERT_TRUE(m_message.InitializeErrorReply(m_request, "com.norvale.Broken", text));
        EXPECT_EQ(G_DBUS_MESSAGE_TYPE_ERROR, g_dbus_message_get_message_type(Raw()));
        EXPECT_EQ(7U, g_dbus_message_get_reply_serial(Raw()));
        EXPECT_STREQ("com.norvale.Broken", m_message.GetError());
        std::string received;
        EXPECT_TRUE(m_message.PopString(received));
        EXPECT_EQ(text, received);
    }
}

TEST_F(GdbusReply, TakesNoReferenceOfTheRequest) {
    ASSERT_TRUE(m_message.InitializeReply(m_request));
    ASSERT_TRUE(m_message.InitializeErrorReply(m_request, "a.b", ""));
    EXPECT_EQ(1U, G_OBJECT(Raw(m_request))->ref_count);
}

TEST_F(GdbusReply, NeedsAMessageToReplyTo) {
    TCGdbusMessage empty;
    Adopt(m_message, Built("(5,)"));
    EXPECT_FALSE(m_message.InitializeReply(empty));
    ExpectLines("InitializeReply", "No message to reply");
    EXPECT_FALSE(m_message.InitializeErrorReply(empty, "a.b", "text"));
    ExpectLines("InitializeErrorReply", "No message to reply");
    EXPECT_EQ("(5,)", BodyOf(m_message)) << "the old content stays";
}

TEST_F(GdbusReply, OfAnythingButAReceivedCallFailsAndKeepsTheOldContent) {
    TCGdbusMessage reply;
    ASSERT_TRUE(reply.InitializeReply(m_request));
    TCGdbusMessage error;
    ASSERT_TRUE(error.InitializeErrorReply(m_request, "a.b", ""));
    TCGdbusMessage signal;
    ASSERT_TRUE(signal.Initialize(TIIpcMessage::Signal, nullptr, testPath, testInterface, testMember));
    TCGdbusMessage neverSent;
    Adopt(neverSent, Built());
    for (TCGdbusMessage* request : {&reply, &error, &signal, &neverSent}) {
        Adopt(m_message, Built("(5,)"));
        EXPECT_FALSE(m_message.InitializeReply(*request));
        ExpectLines("InitializeReply", "new reply failed");
        EXPECT_FALSE(m_message.InitializeErrorReply(*request, "a.b", "text"));
        ExpectLines("InitializeErrorReply", "new reply failed");
        EXPECT_EQ("(5,)", BodyOf(m_message));
    }
}

TEST_F(GdbusReply, ErrorsWithNamesOrTextsThatTheBusDoesNotAllowFail) {
    const std::string longName = "a." + std::string(254, 'b');
    const struct {
        const char* name;
        const char* text;
    } table[] = {
        {nullptr, "text"}, {"", "text"},        {"noDot", "text"},          {"a b.c", "text"},
        {":1.2", "text"},  {"a.b-c", "text"},   {longName.c_str(), "text"}, {"a.b", nullptr},
        {"a.b", "\xff"},   {"a.b", "cut \xc3"},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.name != nullptr ? row.name : "(null)");
        Adopt(m_message, Built("(5,)"));
        EXPECT_FALSE(m_message.InitializeErrorReply(m_request, row.name, row.text));
        ExpectLines("InitializeErrorReply", "new reply failed");
        EXPECT_EQ("(5,)", BodyOf(m_message));
    }
}

TEST_F(GdbusReply, AMessageCanBecomeTheReplyToItself) {
    ASSERT_TRUE(m_request.InitializeReply(m_request));
    EXPECT_EQ(G_DBUS_MESSAGE_TYPE_METHOD_RETURN, g_dbus_message_get_message_type(Raw(m_request)));
    EXPECT_EQ(7U, g_dbus_message_get_reply_serial(Raw(m_request)));
    EXPECT_STREQ(":1.7", m_request.GetDestination());
    EXPECT_EQ(1U, G_OBJECT(Raw(m_request))->ref_count);
}

TEST_F(GdbusReply, AMessageCanBecomeAnErrorReplyThatBorrowsItsOwnFields) {
    // The interface is a valid error name; both texts die with the old message.
    ASSERT_TRUE(m_request.InitializeErrorReply(m_request, m_request.GetInterface(), m_request.GetMember()));
    EXPECT_STREQ(testInterface, m_request.GetError());
    std::string text;
    EXPECT_TRUE(m_request.PopString(text));
    EXPECT_EQ(testMember, text);
}

TEST_F(GdbusReply, ClosesTheCursorOfTheOldContent) {
    std::int32_t value = 0;
    ASSERT_TRUE(m_request.PopInt(value));
    ASSERT_TRUE(m_request.InitializeReply(m_request));
    EXPECT_TRUE(m_request.PushInt(2)) << "no more reading";
    ASSERT_TRUE(m_request.PushEnd());
    EXPECT_EQ("(2,)", BodyOf(m_request));
}
