#include "GdbusFixture.h"

using namespace MavixTest;

namespace MavixApiLite {

struct TestAccess {
    static int CursorOf(const TCGdbusMessage& message) { return message.m_iteratorStatus; }
};

} // namespace MavixApiLite

namespace {

class GdbusCursor : public GdbusMessageFixture {};

} // namespace

TEST_F(GdbusCursor, ReadingThenWritingFailsUntilItIsClosed) {
    Adopt(m_message, Built("(int32 1, int32 2)"));
    std::int32_t value = 0;
    ASSERT_TRUE(m_message.PopInt(value));
    EXPECT_FALSE(m_message.PushInt(5));
    ExpectLines("m_SetupIterator", "Attempt to write while reading");
    EXPECT_FALSE(m_message.PushEnd());
    ExpectLines("PushEnd", "Pushing not started!");
    EXPECT_TRUE(m_message.PopInt(value)) << "reading goes on where it was";
    EXPECT_EQ(2, value);
    EXPECT_TRUE(m_message.PopEnd());
    EXPECT_TRUE(m_message.PushInt(5));
    EXPECT_TRUE(m_message.PushEnd());
    EXPECT_EQ("(5,)", BodyOf(m_message)) << "the new arguments are the body";
}

TEST_F(GdbusCursor, WritingThenReadingFailsUntilItIsClosed) {
    Adopt(m_message, Built("(int32 1,)"));
    ASSERT_TRUE(m_message.PushInt(5));
    std::int32_t value = 99;
    EXPECT_FALSE(m_message.PopInt(value));
    EXPECT_FALSE(m_message.PopSkip());
    EXPECT_EQ(99, value);
    ExpectLines("m_SetupIterator", "Attempt to read while writing", 2);
    ASSERT_TRUE(m_message.PushInt(6));
    ASSERT_TRUE(m_message.PushEnd());
    EXPECT_TRUE(m_message.PopInt(value));
    EXPECT_EQ(5, value);
    EXPECT_TRUE(m_message.PopInt(value));
    EXPECT_EQ(6, value);
}

TEST_F(GdbusCursor, EveryPushIsRefusedWhileReading) {
    Adopt(m_message, Built("(int32 1,)"));
    ASSERT_TRUE(m_message.PopSkip());
    EXPECT_FALSE(m_message.PushBool(true));
    EXPECT_FALSE(m_message.PushByte(1));
    EXPECT_FALSE(m_message.PushInt(1));
    EXPECT_FALSE(m_message.PushUint(1));
    EXPECT_FALSE(m_message.PushString("text"));
    EXPECT_FALSE(m_message.PushBytes({1, 2}));
    EXPECT_FALSE(m_message.PushBytes({}));
    EXPECT_FALSE(m_message.PushByteRange("ab", 2));
    ExpectLines("m_SetupIterator", "Attempt to write while reading", 8);
}

TEST_F(GdbusCursor, EverythingOnAnEmptyObjectFails) {
    EXPECT_FALSE(m_message.PushBool(true));
    EXPECT_FALSE(m_message.PushByte(1));
    EXPECT_FALSE(m_message.PushInt(1));
    EXPECT_FALSE(m_message.PushUint(1));
    EXPECT_FALSE(m_message.PushString("text"));
    EXPECT_FALSE(m_message.PushBytes({1, 2}));
    EXPECT_FALSE(m_message.PushByteRange("ab", 2));
    EXPECT_FALSE(m_message.PopSkip());
    EXPECT_FALSE(m_message.PopEnd());
    ExpectLines("m_SetupIterator", "No message", 9);
    EXPECT_FALSE(m_message.PushEnd());
    ExpectLines("PushEnd", "Pushing not started!");
}

TEST_F(GdbusCursor, PopEndStartsReadingAnew) {
    Adopt(m_message, Received(Built("(int32 1, int32 2)")));
    for (int at = 0; at < 3; ++at) {
        std::int32_t value = 0;
        EXPECT_TRUE(m_message.PopInt(value));
        EXPECT_EQ(1, value);
        EXPECT_TRUE(m_message.PopEnd());
        EXPECT_TRUE(m_message.PopEnd()) << "closing twice is no failure";
    }
}

TEST_F(GdbusCursor, PopEndWhileWritingLosesTheArguments) {
    Adopt(m_message, Built("(int32 1,)"));
    ASSERT_TRUE(m_message.PushString("lost"));
    EXPECT_TRUE(m_message.PopEnd());
    EXPECT_FALSE(m_message.PushEnd());
    ExpectLines("PushEnd", "Pushing not started!");
    EXPECT_EQ("(1,)", BodyOf(m_message)) << "the body stays";
    EXPECT_TRUE(m_message.PushInt(2));
    EXPECT_TRUE(m_message.PushEnd());
    EXPECT_EQ("(2,)", BodyOf(m_message));
}

TEST_F(GdbusCursor, IsClosedByNewContent) {
    const auto isClosed = [this] {
        // Writing would be refused while reading, and PushEnd would succeed while writing.
        const bool notWriting = !m_message.PushEnd();
        ExpectLines("PushEnd", "Pushing not started!");
        const bool notReading = m_message.PushInt(3) && m_message.PushEnd();
        return notWriting && notReading && BodyOf(m_message) == "(3,)";
    };
    for (const bool reading : {true, false}) {
        const auto open = [&] {
            Adopt(m_message, Built("(int32 1,)"));
            ASSERT_TRUE(reading ? m_message.PopSkip() : m_message.PushInt(1));
        };
        open();
        Adopt(m_message, Built());
        EXPECT_TRUE(isClosed()) << "SetRawMessage, reading " << reading;
        open();
        ASSERT_TRUE(
            m_message.Initialize(TIIpcMessage::MethodCall, testBus, testPath, testInterface, testMember));
        EXPECT_TRUE(isClosed()) << "Initialize, reading " << reading;
        TCGdbusMessage request;
        Adopt(request, Received(Built()));
        open();
        ASSERT_TRUE(m_message.InitializeReply(request));
        EXPECT_TRUE(isClosed()) << "InitializeReply, reading " << reading;
        open();
        ASSERT_TRUE(m_message.InitializeErrorReply(request, "a.b", "text"));
        EXPECT_TRUE(isClosed()) << "InitializeErrorReply, reading " << reading;
    }
}

TEST_F(GdbusCursor, IsNeitherReadingNorWritingUntilTheFirstArgument) {
    constexpr int none = 0;
    constexpr int reading = 1;
    constexpr int writing = 2;
    using MavixApiLite::TestAccess;
    EXPECT_EQ(none, TestAccess::CursorOf(m_message));
    Adopt(m_message, Built("(1,)"));
    EXPECT_EQ(none, TestAccess::CursorOf(m_message));
    ASSERT_TRUE(m_message.PopSkip());
    EXPECT_EQ(reading, TestAccess::CursorOf(m_message));
    ASSERT_TRUE(m_message.PopEnd());
    EXPECT_EQ(none, TestAccess::CursorOf(m_message));
    ASSERT_TRUE(m_message.PushInt(1));
    EXPECT_EQ(writing, TestAccess::CursorOf(m_message));
    ASSERT_TRUE(m_message.PushEnd());
    EXPECT_EQ(none, TestAccess::CursorOf(m_message));
}
