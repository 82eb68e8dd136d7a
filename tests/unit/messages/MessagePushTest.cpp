#include "GdbusFixture.h"

using namespace MavixTest;

namespace {

class GdbusPush : public GdbusMessageFixture {
protected:
    void SetUp() override {
        ASSERT_TRUE(
            m_message.Initialize(TIIpcMessage::MethodCall, testBus, testPath, testInterface, testMember));
    }

    // The body as a peer reads it.
    std::string m_Wire() {
        TCGdbusMessage received;
        Adopt(received, Received(RawMessage(static_cast<GDBusMessage*>(m_message.GetRawMessage(true)))));
        return BodyOf(received);
    }
};

} // namespace

TEST_F(GdbusPush, EachOperationAppendsItsType) {
    const std::uint8_t range[] = {7, 8};
    EXPECT_TRUE(m_message.PushBool(true));
    EXPECT_TRUE(m_message.PushBool(false));
    EXPECT_TRUE(m_message.PushByte(255));
    EXPECT_TRUE(m_message.PushInt(-1));
    EXPECT_TRUE(m_message.PushUint(4294967295U));
    EXPECT_TRUE(m_message.PushString("text"));
    EXPECT_TRUE(m_message.PushString(""));
    EXPECT_TRUE(m_message.PushBytes({1, 0, 255}));
    EXPECT_TRUE(m_message.PushBytes({}));
    EXPECT_TRUE(m_message.PushByteRange(range, sizeof range));
    EXPECT_TRUE(m_message.PushByteRange(nullptr, 0));
    EXPECT_TRUE(m_message.PushEnd());
    EXPECT_EQ("(true, false, byte 0xff, -1, uint32 4294967295, 'text', '', [byte 0x01, 0x00, 0xff], "
              "@ay [], [byte 0x07, 0x08], @ay [])",
              m_Wire());
}

TEST_F(GdbusPush, WhatIsPushedIsPoppedByItsCounterpart) {
    ASSERT_TRUE(m_message.PushUint(7));
    ASSERT_TRUE(m_message.PushInt(-7));
    ASSERT_TRUE(m_message.PushEnd());
    std::uint32_t number = 0;
    std::int32_t integer = 0;
    EXPECT_TRUE(m_message.PopUint(number));
    EXPECT_TRUE(m_message.PopInt(integer));
    EXPECT_EQ(7U, number);
    EXPECT_EQ(-7, integer);
}

TEST_F(GdbusPush, EndBeforeAnyArgumentFails) {
    EXPECT_FALSE(m_message.PushEnd());
    ExpectLines("PushEnd", "Pushing not started!");
    EXPECT_EQ("no body", BodyOf(m_message));
}

TEST_F(GdbusPush, EndTwiceFailsTheSecondTime) {
    ASSERT_TRUE(m_message.PushInt(1));
    EXPECT_TRUE(m_message.PushEnd());
    EXPECT_FALSE(m_message.PushEnd());
    ExpectLines("PushEnd", "Pushing not started!");
    EXPECT_EQ("(1,)", BodyOf(m_message));
}

TEST_F(GdbusPush, WithoutEndThereIsNoBody) {
    ASSERT_TRUE(m_message.PushInt(1));
    ASSERT_TRUE(m_message.PushString("text"));
    EXPECT_EQ("no body", BodyOf(m_message));
    EXPECT_EQ("no body", m_Wire());
}

TEST_F(GdbusPush, StringRefusesWhatTheBusCannotCarryAndGoesOn) {
    const std::string table[] = {
        "\xff",
        "good \xff no",
        "cut \xc3",
        "\xc0\x80",
        "\xed\xa0\x80",
        "\xf4\x90\x80\x80",
        std::string(1, '\0'),
        std::string("a\0b", 3),
        std::string("a\0", 2),
    };
    ASSERT_TRUE(m_message.PushInt(1));
    for (const std::string& text : table) {
        SCOPED_TRACE(testing::PrintToString(text));
        EXPECT_FALSE(m_message.PushString(text));
        ExpectLines("PushString", "Invalid string");
    }
    EXPECT_TRUE(m_message.PushString("\xc3\xbc \xf0\x9f\x98\x80"));
    EXPECT_TRUE(m_message.PushEnd());
    EXPECT_EQ("(1, '\xc3\xbc \xf0\x9f\x98\x80')", m_Wire());
}

TEST_F(GdbusPush, ARefusedFirstStringDoesNotStartWriting) {
    EXPECT_FALSE(m_message.PushString("\xff"));
    ExpectLines("PushString", "Invalid string");
    EXPECT_FALSE(m_message.PushEnd());
    ExpectLines("PushEnd", "Pushing not started!");
}

TEST_F(GdbusPush, IntoAReceivedMessageFailsAtItsEndAndKeepsTheBody) {
    Adopt(m_message, Received(Built("(int32 1,)")));
    EXPECT_TRUE(m_message.PushString("text"));
    EXPECT_TRUE(m_message.PushBytes(Bytes(1000, 1)));
    EXPECT_FALSE(m_message.PushEnd());
    ExpectLines("PushEnd", "Message is locked");
    EXPECT_EQ("(1,)", BodyOf(m_message));
    std::int32_t value = 0;
    EXPECT_TRUE(m_message.PopInt(value)) << "it can be read as before";
    EXPECT_EQ(1, value);
}

// These leak when clean-up forgets the arguments that were not finished.
TEST_F(GdbusPush, HalfBuiltBodiesAreDropped) {
    const auto build = [](TIIpcMessage& message) {
        ASSERT_TRUE(message.PushString("text"));
        ASSERT_TRUE(message.PushBytes(Bytes(1000, 1)));
    };
    for (int at = 0; at < 3; ++at) {
        build(m_message);
        ASSERT_TRUE(
            m_message.Initialize(TIIpcMessage::MethodCall, testBus, testPath, testInterface, testMember));
    }
    build(m_message);
    ASSERT_TRUE(m_message.PopEnd());
    build(m_message);
    ASSERT_TRUE(m_message.PopEnd());
    build(m_message);
    Adopt(m_message, Built());
    build(m_message);
    EXPECT_FALSE(m_message.Initialize(TIIpcMessage::Error, testBus, testPath, testInterface, testMember));
    ExpectLines("Initialize", "No message initialized");
    TCGdbusMessage dying;
    Adopt(dying, Built());
    build(dying);
}

TEST_F(GdbusPush, ManyArgumentsStayInOrder) {
    constexpr std::int32_t count = 1000;
    for (std::int32_t at = 0; at < count; ++at) {
        ASSERT_TRUE(m_message.PushInt(at));
    }
    ASSERT_TRUE(m_message.PushEnd());
    for (std::int32_t at = 0; at < count; ++at) {
        std::int32_t value = -1;
        ASSERT_TRUE(m_message.PopInt(value));
        ASSERT_EQ(at, value);
    }
    EXPECT_FALSE(m_message.PopSkip());
    ExpectLines("m_SetupIterator", "No more params");
}
