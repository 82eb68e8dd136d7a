#include "MessageFixture.h"

#include <functional>

using namespace MavixTest;

namespace {

template <class Message>
class MessagePush : public MessageFixture<Message> {
protected:
    void SetUp() override { ASSERT_TRUE(this->InitializeCall()); }

    // The body as a peer reads it.
    std::string m_Wire() { return BodyText(this->OnTheWire(this->m_message).get()); }
};

TYPED_TEST_SUITE(MessagePush, MessageTypes, MessageNames);

} // namespace

TYPED_TEST(MessagePush, EachOperationAppendsItsType) {
    const std::uint8_t range[] = {7, 8};
    EXPECT_TRUE(this->m_message.PushBool(true));
    EXPECT_TRUE(this->m_message.PushBool(false));
    EXPECT_TRUE(this->m_message.PushByte(255));
    EXPECT_TRUE(this->m_message.PushInt(-1));
    EXPECT_TRUE(this->m_message.PushUint(4000000000U));
    EXPECT_TRUE(this->m_message.PushString("text"));
    EXPECT_TRUE(this->m_message.PushString(""));
    EXPECT_TRUE(this->m_message.PushBytes({1, 0, 255}));
    EXPECT_TRUE(this->m_message.PushBytes({}));
    EXPECT_TRUE(this->m_message.PushByteRange(range, sizeof range));
    EXPECT_TRUE(this->m_message.PushByteRange(nullptr, 0));
    EXPECT_TRUE(this->m_message.PushEnd());
    const std::string natural =
        TestFixture::Kit::row.typeOfPushUint == 'u' ? "uint32 4000000000" : "-294967296";
    EXPECT_EQ("(true, false, byte 0xff, -1, " + natural +
                  ", 'text', '', [byte 0x01, 0x00, 0xff], @ay [], [byte 0x07, 0x08], @ay [])",
              this->m_Wire());
}

TYPED_TEST(MessagePush, AnIntIsPoppedByItsCounterpart) {
    ASSERT_TRUE(this->m_message.PushInt(-7));
    ASSERT_TRUE(this->m_message.PushEnd());
    std::int32_t value = 0;
    EXPECT_TRUE(this->m_message.PopInt(value));
    EXPECT_EQ(-7, value);
}

TYPED_TEST(MessagePush, AUintIsPoppedByPopUintOrOnLibdbusByPopInt) {
    ASSERT_TRUE(this->m_message.PushUint(7));
    ASSERT_TRUE(this->m_message.PushEnd());
    const bool asUint = TestFixture::Kit::row.typeOfPushUint == 'u';
    std::uint32_t natural = 99;
    EXPECT_EQ(asUint, this->m_message.PopUint(natural));
    EXPECT_EQ(asUint ? 7U : 99U, natural);
    if (!asUint) {
        this->ExpectLines("PopUint", "Expected uint32");
    }
    EXPECT_TRUE(this->m_message.PopEnd());
    std::int32_t value = 99;
    EXPECT_EQ(!asUint, this->m_message.PopInt(value));
    EXPECT_EQ(asUint ? 99 : 7, value);
    if (asUint) {
        this->ExpectLines("PopInt", "Expected int32!");
    }
}

TYPED_TEST(MessagePush, EndBeforeAnyArgumentFailsOrDoesNothing) {
    EXPECT_EQ(TestFixture::Kit::row.pushEndWithoutPush == nullptr, this->m_message.PushEnd());
    this->ExpectLines("PushEnd", TestFixture::Kit::row.pushEndWithoutPush);
    EXPECT_EQ(noBody, this->BodyOf(this->m_message));
}

TYPED_TEST(MessagePush, EndTwiceFailsTheSecondTimeOrDoesNothing) {
    ASSERT_TRUE(this->m_message.PushInt(1));
    EXPECT_TRUE(this->m_message.PushEnd());
    EXPECT_EQ(TestFixture::Kit::row.pushEndWithoutPush == nullptr, this->m_message.PushEnd());
    this->ExpectLines("PushEnd", TestFixture::Kit::row.pushEndWithoutPush);
    EXPECT_EQ("(1,)", this->BodyOf(this->m_message));
}

TYPED_TEST(MessagePush, WithoutEndThereIsNoBodyOrOnLibdbusItIsThereAllTheSame) {
    ASSERT_TRUE(this->m_message.PushInt(1));
    ASSERT_TRUE(this->m_message.PushString("text"));
    const char* expected = TestFixture::Kit::row.needsPushEnd ? noBody : "(1, 'text')";
    EXPECT_EQ(expected, this->BodyOf(this->m_message));
    EXPECT_EQ(expected, this->m_Wire());
}

TYPED_TEST(MessagePush, StringRefusesWhatTheBusCannotCarryAndGoesOn) {
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
    ASSERT_TRUE(this->m_message.PushInt(1));
    for (const std::string& text : table) {
        SCOPED_TRACE(testing::PrintToString(text));
        EXPECT_FALSE(this->m_message.PushString(text));
        this->ExpectLines("PushString", "Invalid string");
    }
    EXPECT_TRUE(this->m_message.PushString("\xc3\xbc \xf0\x9f\x98\x80"));
    EXPECT_TRUE(this->m_message.PushEnd());
    EXPECT_EQ("(1, '\xc3\xbc \xf0\x9f\x98\x80')", this->m_Wire());
}

TYPED_TEST(MessagePush, ARefusedFirstStringDoesNotStartWriting) {
    EXPECT_FALSE(this->m_message.PushString("\xff"));
    this->ExpectLines("PushString", "Invalid string");
    this->m_message.PushEnd();
    this->ExpectLines("PushEnd", TestFixture::Kit::row.pushEndWithoutPush);
    EXPECT_EQ(noBody, this->m_Wire());
}

TYPED_TEST(MessagePush, IntoAReceivedMessageFailsAtItsEndOrOnLibdbusExtendsIt) {
    this->Receive(this->m_message, Built("(int32 1,)"));
    EXPECT_TRUE(this->m_message.PushString("text"));
    EXPECT_TRUE(this->m_message.PushBytes({7}));
    const bool extended = TestFixture::Kit::row.receivedCanBeExtended;
    EXPECT_EQ(extended, this->m_message.PushEnd());
    this->ExpectLines("PushEnd", extended ? nullptr : "Message is locked");
    EXPECT_EQ(extended ? "(1, 'text', [byte 0x07])" : "(1,)", this->BodyOf(this->m_message));
    std::int32_t value = 0;
    EXPECT_TRUE(this->m_message.PopInt(value)) << "it can be read as before";
    EXPECT_EQ(1, value);
}

// These leak when clean-up forgets the arguments that were not finished.
TYPED_TEST(MessagePush, HalfBuiltBodiesAreDropped) {
    const auto build = [](TIIpcMessage& message) {
        ASSERT_TRUE(message.PushString("text"));
        ASSERT_TRUE(message.PushBytes(Bytes(1000, 1)));
    };
    for (int at = 0; at < 3; ++at) {
        build(this->m_message);
        ASSERT_TRUE(this->InitializeCall());
    }
    build(this->m_message);
    ASSERT_TRUE(this->m_message.PopEnd());
    build(this->m_message);
    ASSERT_TRUE(this->m_message.PopEnd());
    build(this->m_message);
    this->Hold(this->m_message, Built());
    build(this->m_message);
    EXPECT_FALSE(
        this->m_message.Initialize(TIIpcMessage::Error, testBus, testPath, testInterface, testMember));
    this->ExpectLines("Initialize", TestFixture::Kit::row.refusedInitialize);
    TypeParam dying;
    this->Hold(dying, Built());
    build(dying);
}

// A signature, with a code for each argument and two for bytes, ends at 255.
TYPED_TEST(MessagePush, MoreArgumentsThanASignatureHoldsAreRefusedWhereTheyWouldLeave) {
    const auto count = [this](const std::function<bool()>& push) {
        EXPECT_TRUE(this->InitializeCall());
        int pushed = 0;
        while (pushed < 300 && push()) {
            ++pushed;
        }
        return pushed;
    };
    const bool unlimited = TestFixture::Kit::row.argumentsAreUnlimited;
    EXPECT_EQ(unlimited ? 300 : 255, count([this] { return this->m_message.PushInt(1); }));
    this->ExpectLines("m_StartPushing", unlimited ? nullptr : "Too many arguments");
    EXPECT_EQ(unlimited ? 300 : 127, count([this] { return this->m_message.PushBytes({1}); }));
    this->ExpectLines("m_StartPushing", unlimited ? nullptr : "Too many arguments");
    if (!unlimited) {
        EXPECT_TRUE(this->m_message.PushInt(1)) << "one code is left";
        EXPECT_FALSE(this->m_message.PushInt(1));
        this->ExpectLines("m_StartPushing", "Too many arguments");
        EXPECT_EQ(std::string("([byte 0x01], "), this->m_Wire().substr(0, 14));
    }
}

TYPED_TEST(MessagePush, ManyArgumentsStayInOrder) {
    constexpr std::int32_t count = TestFixture::Kit::row.argumentsAreUnlimited ? 1000 : 255;
    for (std::int32_t at = 0; at < count; ++at) {
        ASSERT_TRUE(this->m_message.PushInt(at));
    }
    ASSERT_TRUE(this->m_message.PushEnd());
    for (std::int32_t at = 0; at < count; ++at) {
        std::int32_t value = -1;
        ASSERT_TRUE(this->m_message.PopInt(value));
        ASSERT_EQ(at, value);
    }
    EXPECT_FALSE(this->m_message.PopSkip());
    this->ExpectLines("m_SetupIterator", TestFixture::Kit::row.noMoreArguments);
}
