#include "MessageFixture.h"

using namespace MavixTest;

namespace MavixApiLite {

struct TestAccess {
    template <class Message>
    static int CursorOf(const Message& message) {
        return message.m_iteratorStatus;
    }
};

} // namespace MavixApiLite

namespace {

template <class Message>
class MessageCursor : public MessageFixture<Message> {};

TYPED_TEST_SUITE(MessageCursor, MessageTypes, MessageNames);

} // namespace

TYPED_TEST(MessageCursor, ReadingThenWritingFailsUntilItIsClosed) {
    this->Hold(this->m_message, Built("(int32 1, int32 2)"));
    std::int32_t value = 0;
    ASSERT_TRUE(this->m_message.PopInt(value));
    EXPECT_FALSE(this->m_message.PushInt(5));
    this->ExpectLines("m_SetupIterator", TestFixture::Kit::row.writeWhileReading);
    EXPECT_TRUE(this->m_message.PopInt(value)) << "reading goes on where it was";
    EXPECT_EQ(2, value);
    EXPECT_TRUE(this->m_message.PopEnd());
    EXPECT_TRUE(this->m_message.PushInt(5));
    EXPECT_TRUE(this->m_message.PushEnd());
    EXPECT_EQ(this->Pushed("1, 2", "5"), this->BodyOf(this->m_message));
}

TYPED_TEST(MessageCursor, PushEndWhileReadingFailsOrEndsTheReading) {
    this->Hold(this->m_message, Built("(int32 1, int32 2)"));
    std::int32_t value = 0;
    ASSERT_TRUE(this->m_message.PopInt(value));
    const bool fails = TestFixture::Kit::row.pushEndWithoutPush != nullptr;
    EXPECT_EQ(!fails, this->m_message.PushEnd());
    this->ExpectLines("PushEnd", TestFixture::Kit::row.pushEndWithoutPush);
    EXPECT_TRUE(this->m_message.PopInt(value));
    EXPECT_EQ(fails ? 2 : 1, value);
}

TYPED_TEST(MessageCursor, WritingThenReadingFailsUntilItIsClosed) {
    ASSERT_TRUE(this->InitializeCall());
    ASSERT_TRUE(this->m_message.PushInt(5));
    std::int32_t value = 99;
    EXPECT_FALSE(this->m_message.PopInt(value));
    EXPECT_FALSE(this->m_message.PopSkip());
    EXPECT_EQ(99, value);
    this->ExpectLines("m_SetupIterator", TestFixture::Kit::row.readWhileWriting, 2);
    ASSERT_TRUE(this->m_message.PushInt(6));
    ASSERT_TRUE(this->m_message.PushEnd());
    EXPECT_TRUE(this->m_message.PopInt(value));
    EXPECT_EQ(5, value);
    EXPECT_TRUE(this->m_message.PopInt(value));
    EXPECT_EQ(6, value);
}

TYPED_TEST(MessageCursor, EveryPushIsRefusedWhileReading) {
    this->Hold(this->m_message, Built("(int32 1,)"));
    ASSERT_TRUE(this->m_message.PopSkip());
    EXPECT_FALSE(this->m_message.PushBool(true));
    EXPECT_FALSE(this->m_message.PushByte(1));
    EXPECT_FALSE(this->m_message.PushInt(1));
    EXPECT_FALSE(this->m_message.PushUint(1));
    EXPECT_FALSE(this->m_message.PushString("text"));
    EXPECT_FALSE(this->m_message.PushBytes({1, 2}));
    EXPECT_FALSE(this->m_message.PushBytes({}));
    EXPECT_FALSE(this->m_message.PushByteRange("ab", 2));
    this->ExpectLines("m_SetupIterator", TestFixture::Kit::row.writeWhileReading, 8);
}

TYPED_TEST(MessageCursor, EverythingOnAnEmptyObjectFails) {
    EXPECT_FALSE(this->m_message.PushBool(true));
    EXPECT_FALSE(this->m_message.PushByte(1));
    EXPECT_FALSE(this->m_message.PushInt(1));
    EXPECT_FALSE(this->m_message.PushUint(1));
    EXPECT_FALSE(this->m_message.PushString("text"));
    EXPECT_FALSE(this->m_message.PushBytes({1, 2}));
    EXPECT_FALSE(this->m_message.PushByteRange("ab", 2));
    EXPECT_FALSE(this->m_message.PopSkip());
    this->ExpectLines("m_SetupIterator", TestFixture::Kit::row.cursorOfEmptyObject, 8);
    // Nothing is open, so for libdbus nothing is to be closed.
    const bool fails = TestFixture::Kit::row.cursorOfEmptyObject != nullptr;
    EXPECT_EQ(!fails, this->m_message.PopEnd());
    this->ExpectLines("m_SetupIterator", TestFixture::Kit::row.cursorOfEmptyObject);
    EXPECT_EQ(!fails, this->m_message.PushEnd());
    this->ExpectLines("PushEnd", TestFixture::Kit::row.pushEndWithoutPush);
}

TYPED_TEST(MessageCursor, PopEndStartsReadingAnew) {
    this->Receive(this->m_message, Built("(int32 1, int32 2)"));
    for (int at = 0; at < 3; ++at) {
        std::int32_t value = 0;
        EXPECT_TRUE(this->m_message.PopInt(value));
        EXPECT_EQ(1, value);
        EXPECT_TRUE(this->m_message.PopEnd());
        EXPECT_TRUE(this->m_message.PopEnd()) << "closing twice is no failure";
    }
}

TYPED_TEST(MessageCursor, PopEndWhileWritingLosesWhatNeedsItsPushEnd) {
    const bool lost = TestFixture::Kit::row.needsPushEnd;
    this->Hold(this->m_message, Built("(int32 1,)"));
    ASSERT_TRUE(this->m_message.PushString("text"));
    EXPECT_TRUE(this->m_message.PopEnd());
    EXPECT_EQ(!lost, this->m_message.PushEnd());
    this->ExpectLines("PushEnd", TestFixture::Kit::row.pushEndWithoutPush);
    EXPECT_EQ(lost ? "(1,)" : "(1, 'text')", this->BodyOf(this->m_message));
    EXPECT_TRUE(this->m_message.PushInt(2));
    EXPECT_TRUE(this->m_message.PushEnd());
    EXPECT_EQ(this->Pushed("1, 'text'", "2"), this->BodyOf(this->m_message));
}

TYPED_TEST(MessageCursor, IsClosedByNewContent) {
    constexpr int none = 0;
    const auto isClosed = [this] { return MavixApiLite::TestAccess::CursorOf(this->m_message) == none; };
    for (const bool reading : {true, false}) {
        const auto open = [&] {
            this->Hold(this->m_message, Built("(int32 1,)"));
            ASSERT_TRUE(reading ? this->m_message.PopSkip() : this->m_message.PushInt(1));
        };
        open();
        this->Hold(this->m_message, Built());
        EXPECT_TRUE(isClosed()) << "SetRawMessage, reading " << reading;
        open();
        ASSERT_TRUE(this->InitializeCall());
        EXPECT_TRUE(isClosed()) << "Initialize, reading " << reading;
        TypeParam request;
        this->Receive(request, Built());
        open();
        ASSERT_TRUE(this->m_message.InitializeReply(request));
        EXPECT_TRUE(isClosed()) << "InitializeReply, reading " << reading;
        open();
        ASSERT_TRUE(this->m_message.InitializeErrorReply(request, "a.b", "text"));
        EXPECT_TRUE(isClosed()) << "InitializeErrorReply, reading " << reading;
    }
}

TYPED_TEST(MessageCursor, IsNeitherReadingNorWritingUntilTheFirstArgument) {
    constexpr int none = 0;
    constexpr int reading = 1;
    constexpr int writing = 2;
    using MavixApiLite::TestAccess;
    EXPECT_EQ(none, TestAccess::CursorOf(this->m_message));
    this->Hold(this->m_message, Built("(1,)"));
    EXPECT_EQ(none, TestAccess::CursorOf(this->m_message));
    ASSERT_TRUE(this->m_message.PopSkip());
    EXPECT_EQ(reading, TestAccess::CursorOf(this->m_message));
    ASSERT_TRUE(this->m_message.PopEnd());
    EXPECT_EQ(none, TestAccess::CursorOf(this->m_message));
    ASSERT_TRUE(this->m_message.PushInt(1));
    EXPECT_EQ(writing, TestAccess::CursorOf(this->m_message));
    ASSERT_TRUE(this->m_message.PushEnd());
    EXPECT_EQ(none, TestAccess::CursorOf(this->m_message));
}
