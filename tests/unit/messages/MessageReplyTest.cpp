#include "MessageFixture.h"

using namespace MavixTest;

namespace {

template <class Message>
class MessageReply : public MessageFixture<Message> {
protected:
    void SetUp() override { this->Receive(m_request, Built("(1,)")); }

    // Type and number of the call.
    void ExpectReply(TIIpcMessage& reply, GDBusMessageType type) {
        const GioMessage sent = this->OnTheWire(reply);
        EXPECT_EQ(type, g_dbus_message_get_message_type(sent.get()));
        EXPECT_EQ(7U, g_dbus_message_get_reply_serial(sent.get()));
        EXPECT_STREQ(":1.7", g_dbus_message_get_destination(sent.get()));
    }

    Message m_request;
};

TYPED_TEST_SUITE(MessageReply, MessageTypes, MessageNames);

} // namespace

TYPED_TEST(MessageReply, AnswersTheCall) {
    ASSERT_TRUE(this->m_message.InitializeReply(this->m_request));
    this->ExpectReply(this->m_message, G_DBUS_MESSAGE_TYPE_METHOD_RETURN);
    EXPECT_STREQ(":1.7", this->m_message.GetDestination());
    EXPECT_EQ(noBody, this->BodyOf(this->m_message));
    EXPECT_TRUE(this->m_message.PushInt(3));
    EXPECT_TRUE(this->m_message.PushEnd());
    EXPECT_EQ("(3,)", this->BodyOf(this->m_message));
}

TYPED_TEST(MessageReply, ErrorsCarryNameAndText) {
    for (const char* text : {"", "why", "\xc3\xbc"}) {
        ASSERT_TRUE(this->m_message.InitializeErrorReply(this->m_request, "com.norvale.Broken", text));
        this->ExpectReply(this->m_message, G_DBUS_MESSAGE_TYPE_ERROR);
        EXPECT_STREQ("com.norvale.Broken", this->m_message.GetError());
        std::string received;
        EXPECT_TRUE(this->m_message.PopString(received));
        EXPECT_EQ(text, received);
    }
}

TYPED_TEST(MessageReply, TakesNoReferenceOfTheRequest) {
    ASSERT_TRUE(this->m_message.InitializeReply(this->m_request));
    ASSERT_TRUE(this->m_message.InitializeErrorReply(this->m_request, "a.b", ""));
    bool gone = false;
    TestFixture::Kit::Watch(this->RawOf(this->m_request), &gone);
    this->m_request.SetRawMessage(nullptr);
    EXPECT_TRUE(gone);
}

TYPED_TEST(MessageReply, NeedsAMessageToReplyTo) {
    TypeParam empty;
    this->Hold(this->m_message, Built("(5,)"));
    EXPECT_FALSE(this->m_message.InitializeReply(empty));
    this->ExpectLines("InitializeReply", TestFixture::Kit::row.replyToNothing);
    EXPECT_FALSE(this->m_message.InitializeErrorReply(empty, "a.b", "text"));
    this->ExpectLines("InitializeErrorReply", TestFixture::Kit::row.replyToNothing);
    EXPECT_EQ("(5,)", this->BodyOf(this->m_message)) << "the old content stays";
}

TYPED_TEST(MessageReply, OfWhatWasNeverSentFailsAndKeepsTheOldContent) {
    TypeParam reply;
    ASSERT_TRUE(reply.InitializeReply(this->m_request));
    TypeParam error;
    ASSERT_TRUE(error.InitializeErrorReply(this->m_request, "a.b", ""));
    TypeParam signal;
    ASSERT_TRUE(signal.Initialize(TIIpcMessage::Signal, nullptr, testPath, testInterface, testMember));
    TypeParam neverSent;
    this->Hold(neverSent, Built());
    for (TypeParam* request : {&reply, &error, &signal, &neverSent}) {
        this->Hold(this->m_message, Built("(5,)"));
        EXPECT_FALSE(this->m_message.InitializeReply(*request));
        this->ExpectLines("InitializeReply", TestFixture::Kit::row.refusedReply);
        EXPECT_FALSE(this->m_message.InitializeErrorReply(*request, "a.b", "text"));
        this->ExpectLines("InitializeErrorReply", TestFixture::Kit::row.refusedReply);
        EXPECT_EQ("(5,)", this->BodyOf(this->m_message));
    }
}

TYPED_TEST(MessageReply, OfAReceivedSignalOrReplyFailsOrOnLibdbusIsBuilt) {
    const bool built = TestFixture::Kit::row.answersAnything;
    const GioMessage signal(g_dbus_message_new_signal(testPath, testInterface, testMember));
    const GioMessage error(
        g_dbus_message_new_method_error_literal(TCBlob(Built().get()).ForGio().get(), "a.b", ""));
    for (const GioMessage* request : {&signal, &error}) {
        this->Receive(this->m_request, *request);
        EXPECT_EQ(built, this->m_message.InitializeReply(this->m_request));
        this->ExpectLines("InitializeReply", TestFixture::Kit::row.refusedReply);
        EXPECT_EQ(built, this->m_message.InitializeErrorReply(this->m_request, "a.b", "text"));
        this->ExpectLines("InitializeErrorReply", TestFixture::Kit::row.refusedReply);
    }
}

TYPED_TEST(MessageReply, AnErrorWithoutTextFailsOrOnLibdbusHasNoArgument) {
    const bool built = !TestFixture::Kit::row.errorNeedsText;
    this->Hold(this->m_message, Built("(5,)"));
    EXPECT_EQ(built, this->m_message.InitializeErrorReply(this->m_request, "a.b", nullptr));
    this->ExpectLines("InitializeErrorReply", TestFixture::Kit::row.refusedReply);
    EXPECT_EQ(built ? noBody : "(5,)", this->BodyOf(this->m_message));
}

TYPED_TEST(MessageReply, ErrorsWithNamesOrTextsThatTheBusDoesNotAllowFail) {
    const std::string longName = "a." + std::string(254, 'b');
    const struct {
        const char* name;
        const char* text;
    } table[] = {
        {nullptr, "text"},          {"", "text"},     {"noDot", "text"},
        {"a b.c", "text"},          {":1.2", "text"}, {"a.b-c", "text"},
        {longName.c_str(), "text"}, {"a.b", "\xff"},  {"a.b", "cut \xc3"},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.name != nullptr ? row.name : "(null)");
        this->Hold(this->m_message, Built("(5,)"));
        EXPECT_FALSE(this->m_message.InitializeErrorReply(this->m_request, row.name, row.text));
        this->ExpectLines("InitializeErrorReply", TestFixture::Kit::row.refusedReply);
        EXPECT_EQ("(5,)", this->BodyOf(this->m_message));
    }
}

TYPED_TEST(MessageReply, AMessageCanBecomeTheReplyToItself) {
    ASSERT_TRUE(this->m_request.InitializeReply(this->m_request));
    this->ExpectReply(this->m_request, G_DBUS_MESSAGE_TYPE_METHOD_RETURN);
    bool gone = false;
    TestFixture::Kit::Watch(this->RawOf(this->m_request), &gone);
    this->m_request.SetRawMessage(nullptr);
    EXPECT_TRUE(gone);
}

TYPED_TEST(MessageReply, AMessageCanBecomeAnErrorReplyThatBorrowsItsOwnFields) {
    // The interface is a valid error name; both texts die with the old message.
    ASSERT_TRUE(this->m_request.InitializeErrorReply(this->m_request, this->m_request.GetInterface(),
                                                     this->m_request.GetMember()));
    EXPECT_STREQ(testInterface, this->m_request.GetError());
    std::string text;
    EXPECT_TRUE(this->m_request.PopString(text));
    EXPECT_EQ(testMember, text);
}

TYPED_TEST(MessageReply, ClosesTheCursorOfTheOldContent) {
    std::int32_t value = 0;
    ASSERT_TRUE(this->m_request.PopInt(value));
    ASSERT_TRUE(this->m_request.InitializeReply(this->m_request));
    EXPECT_TRUE(this->m_request.PushInt(2)) << "no more reading";
    ASSERT_TRUE(this->m_request.PushEnd());
    EXPECT_EQ("(2,)", this->BodyOf(this->m_request));
}
