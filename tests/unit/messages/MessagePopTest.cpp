#include "MessageFixture.h"

#include <functional>

using namespace MavixTest;

namespace {

// One Pop* operation; `pop` gives the output as text, "untouched" when it was not written.
struct PopOperation {
    const char* name;
    const char* accepted; // the type, or "a" for every array of values of one size
    const char* typeError;
    std::function<bool(TIIpcMessage&, std::string&)> pop;
};

template <class Value>
PopOperation Number(const char* name, const char* accepted, const char* typeError,
                    bool (TIIpcMessage::*pop)(Value&), Value untouched) {
    return {name, accepted, typeError, [pop, untouched](TIIpcMessage& message, std::string& text) {
                Value value = untouched;
                const bool result = (message.*pop)(value);
                text = value == untouched ? "untouched" : std::to_string(value);
                return result;
            }};
}

bool PopStringText(TIIpcMessage& message, std::string& text) {
    text = "untouched";
    return message.PopString(text);
}

std::string Text(const Bytes& bytes) {
    std::string text;
    for (const std::uint8_t byte : bytes) {
        text += std::to_string(byte) + ' ';
    }
    return text;
}

bool PopBytesText(TIIpcMessage& message, std::string& text) {
    const Bytes untouched{1, 2, 3, 4, 5, 6, 7};
    Bytes value = untouched;
    const bool result = message.PopBytes(value);
    text = value == untouched ? "untouched" : Text(value);
    return result;
}

// A boolean has no third value, so it is asked for twice.
bool PopBoolText(TIIpcMessage& message, std::string& text) {
    bool value = false;
    const bool result = message.PopBool(value);
    text = result ? std::to_string(value) : value ? "written" : "untouched";
    return result;
}

std::vector<PopOperation> Operations() {
    return {
        {"PopBool", "b", "Expected bool", PopBoolText},
        Number<std::uint8_t>("PopByte", "y", "Expected byte", &TIIpcMessage::PopByte, 99),
        Number<std::int32_t>("PopInt", "i", "Expected int32", &TIIpcMessage::PopInt, 99),
        Number<std::uint32_t>("PopUint", "u", "Expected uint32", &TIIpcMessage::PopUint, 99),
        {"PopString", "s", "Expected string", PopStringText},
        {"PopBytes", "a", "Expected array", PopBytesText},
    };
}

struct Argument {
    const char* text; // as GVariant text
    const char* type;
    const char* value; // as the accepting operation gives it
};

const Argument arguments[] = {
    {"true", "b", "1"},
    {"false", "b", "0"},
    {"byte 200", "y", "200"},
    {"int16 -3", "n", ""},
    {"uint16 3", "q", ""},
    {"int32 -5", "i", "-5"},
    {"int32 2147483647", "i", "2147483647"},
    {"int32 -2147483648", "i", "-2147483648"},
    {"uint32 4294967295", "u", "4294967295"},
    {"uint32 0", "u", "0"},
    {"int64 -7", "x", ""},
    {"uint64 7", "t", ""},
    {"1.5", "d", ""},
    {"handle 0", "h", ""},
    {"'text'", "s", "text"},
    {"''", "s", ""},
    {"'\xc3\xbc'", "s", "\xc3\xbc"},
    {"objectpath '/a'", "o", ""},
    {"signature 'ai'", "g", ""},
    {"<int32 5>", "v", ""},
    {"(int32 1, byte 2)", "(iy)", ""},
    {"[byte 1, 200]", "ay", "1 200 "},
};

bool Accepts(const PopOperation& operation, const Argument& argument) {
    return operation.accepted[0] == argument.type[0];
}

template <class Message>
class MessagePop : public MessageFixture<Message> {};

TYPED_TEST_SUITE(MessagePop, MessageTypes, MessageNames);

} // namespace

TYPED_TEST(MessagePop, ReadsItsTypeOnlyAndStepsOverEveryOther) {
    for (const PopOperation& operation : Operations()) {
        for (const Argument& argument : arguments) {
            const std::string body = std::string("(") + argument.text + ", int32 42)";
            SCOPED_TRACE(std::string(operation.name) + " on " + body);
            this->Receive(this->m_message, Built(body));
            std::string value;
            const bool accepted = Accepts(operation, argument);
            EXPECT_EQ(accepted, operation.pop(this->m_message, value));
            if (accepted) {
                EXPECT_EQ(argument.value, value);
                this->ExpectNoLines();
            } else {
                EXPECT_EQ("untouched", value);
                this->ExpectTypeError(operation.name, operation.typeError);
            }
            std::int32_t next = 0;
            EXPECT_TRUE(this->m_message.PopInt(next)) << "a wrong type is a step, too";
            EXPECT_EQ(42, next);
        }
    }
}

TYPED_TEST(MessagePop, BoolSucceedsForEveryBooleanAndGivesItsValue) {
    this->Receive(this->m_message, Built("(false, true, false)"));
    bool value = true;
    EXPECT_TRUE(this->m_message.PopBool(value));
    EXPECT_FALSE(value);
    EXPECT_TRUE(this->m_message.PopBool(value));
    EXPECT_TRUE(value);
    EXPECT_TRUE(this->m_message.PopBool(value));
    EXPECT_FALSE(value);
}

TYPED_TEST(MessagePop, BoolLeavesATrueOutputOnAWrongType) {
    this->Receive(this->m_message, Built("(1,)"));
    bool value = true;
    EXPECT_FALSE(this->m_message.PopBool(value));
    EXPECT_TRUE(value);
    this->ExpectTypeError("PopBool", "Expected bool");
}

TYPED_TEST(MessagePop, ReadsArgumentsInTheirOrder) {
    this->Receive(this->m_message, Built("(int32 1, 'two', byte 3, [byte 4], true, uint32 6)"));
    std::int32_t first = 0;
    std::string second;
    std::uint8_t third = 0;
    Bytes fourth;
    bool fifth = false;
    std::uint32_t sixth = 0;
    EXPECT_TRUE(this->m_message.PopInt(first));
    EXPECT_TRUE(this->m_message.PopString(second));
    EXPECT_TRUE(this->m_message.PopByte(third));
    EXPECT_TRUE(this->m_message.PopBytes(fourth));
    EXPECT_TRUE(this->m_message.PopBool(fifth));
    EXPECT_TRUE(this->m_message.PopUint(sixth));
    EXPECT_EQ(1, first);
    EXPECT_EQ("two", second);
    EXPECT_EQ(3, third);
    EXPECT_EQ(Bytes{4}, fourth);
    EXPECT_TRUE(fifth);
    EXPECT_EQ(6U, sixth);
}

TYPED_TEST(MessagePop, SkipStepsOverOneArgumentOfAnyType) {
    for (const Argument& argument : arguments) {
        SCOPED_TRACE(argument.text);
        this->Receive(this->m_message, Built(std::string("(") + argument.text + ", int32 42)"));
        std::int32_t value = 0;
        EXPECT_TRUE(this->m_message.PopSkip());
        EXPECT_TRUE(this->m_message.PopInt(value));
        EXPECT_EQ(42, value);
    }
}

TYPED_TEST(MessagePop, FarPastTheEndFailsEachTimeAndTouchesNothing) {
    for (const PopOperation& operation : Operations()) {
        SCOPED_TRACE(operation.name);
        this->Receive(this->m_message, Built("(int32 1, int32 2)"));
        ASSERT_TRUE(this->m_message.PopSkip());
        ASSERT_TRUE(this->m_message.PopSkip());
        for (int at = 0; at < 100; ++at) {
            std::string value;
            EXPECT_FALSE(operation.pop(this->m_message, value));
            EXPECT_EQ("untouched", value);
        }
        this->ExpectLines("m_SetupIterator", TestFixture::Kit::row.noMoreArguments, 100);
        for (int at = 0; at < 100; ++at) {
            EXPECT_FALSE(this->m_message.PopSkip());
        }
        this->ExpectLines("m_SetupIterator", TestFixture::Kit::row.noMoreArguments, 100);
        // Read anew, the arguments are there.
        std::int32_t first = 0;
        EXPECT_TRUE(this->m_message.PopEnd());
        EXPECT_TRUE(this->m_message.PopInt(first));
        EXPECT_EQ(1, first);
    }
}

TYPED_TEST(MessagePop, WithoutABodyOrAMessageFails) {
    for (const PopOperation& operation : Operations()) {
        SCOPED_TRACE(operation.name);
        std::string value;
        this->m_message.SetRawMessage(nullptr);
        EXPECT_FALSE(operation.pop(this->m_message, value));
        EXPECT_EQ("untouched", value);
        this->ExpectLines("m_SetupIterator", TestFixture::Kit::row.cursorOfEmptyObject);
        this->Hold(this->m_message, Built());
        EXPECT_FALSE(operation.pop(this->m_message, value));
        EXPECT_FALSE(operation.pop(this->m_message, value));
        EXPECT_EQ("untouched", value);
        this->ExpectLines("m_SetupIterator", TestFixture::Kit::row.noArguments, 2);
    }
}

// Only GIO tells an empty body from none, and only before the message has travelled.
using GdbusPop = MessagePop<TCGdbusMessage>;

TEST_F(GdbusPop, WithAnEmptyBodyFails) {
    for (const PopOperation& operation : Operations()) {
        SCOPED_TRACE(operation.name);
        std::string value;
        Hold(m_message, Built("()"));
        EXPECT_FALSE(operation.pop(m_message, value));
        EXPECT_FALSE(operation.pop(m_message, value));
        EXPECT_EQ("untouched", value);
        ExpectLines("m_SetupIterator", "No children", 2);
    }
}

TYPED_TEST(MessagePop, AReceivedMessageWithoutArgumentsHasNoBody) {
    for (const char* body : {"", "()"}) {
        this->Receive(this->m_message, Built(body));
        std::int32_t value = 99;
        EXPECT_FALSE(this->m_message.PopInt(value));
        EXPECT_EQ(99, value);
        this->ExpectLines("m_SetupIterator", TestFixture::Kit::row.noArguments);
    }
}

TYPED_TEST(MessagePop, KeepsTheBodyThatItBorrows) {
    this->Receive(this->m_message, Built("(int32 1, 'text')"));
    bool gone = false;
    TestFixture::Kit::Watch(this->RawOf(this->m_message), &gone);
    for (int at = 0; at < 3; ++at) {
        TypeParam message;
        message.SetRawMessage(this->m_message.GetRawMessage(true));
        std::int32_t value = 0;
        std::string text;
        EXPECT_TRUE(message.PopInt(value));
        EXPECT_TRUE(message.PopString(text));
        EXPECT_EQ("text", text);
    }
    EXPECT_FALSE(gone);
    this->m_message.SetRawMessage(nullptr);
    EXPECT_TRUE(gone);
}
