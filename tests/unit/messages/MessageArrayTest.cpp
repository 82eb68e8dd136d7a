#include "MessageFixture.h"

#include <cstring>

using namespace MavixTest;

namespace {

template <class Message>
class MessageArray : public MessageFixture<Message> {};

TYPED_TEST_SUITE(MessageArray, MessageTypes, MessageNames);

template <class Value>
Bytes BytesOf(const std::vector<Value>& values) {
    Bytes bytes(values.size() * sizeof(Value));
    if (!bytes.empty()) {
        std::memcpy(bytes.data(), values.data(), bytes.size());
    }
    return bytes;
}

// (yi) as GVariant lays it out: the integer at its alignment.
Bytes ByteAndInt(std::uint8_t first, std::int32_t second) {
    Bytes bytes(8, 0);
    bytes[0] = first;
    std::memcpy(&bytes[4], &second, sizeof second);
    return bytes;
}

} // namespace

TYPED_TEST(MessageArray, OfValuesOfOneSizeGivesTheirRawBytes) {
    const struct {
        const char* array;
        Bytes expected;
        std::size_t elements;
    } table[] = {
        {"[byte 1, 2, 255]", {1, 2, 255}, 3},
        {"@ay []", {}, 0},
        {"b'text'", {'t', 'e', 'x', 't', 0}, 5},
        {"@ab []", {}, 0},
        {"[int16 -1, 2]", BytesOf<std::int16_t>({-1, 2}), 2},
        {"[uint16 1, 2]", BytesOf<std::uint16_t>({1, 2}), 2},
        {"[int32 1, -2]", BytesOf<std::int32_t>({1, -2}), 2},
        {"@ai []", {}, 0},
        {"[uint32 1, 4294967295]", BytesOf<std::uint32_t>({1, 4294967295U}), 2},
        {"[int64 -1]", BytesOf<std::int64_t>({-1}), 1},
        {"[uint64 7]", BytesOf<std::uint64_t>({7}), 1},
        {"[1.5, -2.0]", BytesOf<double>({1.5, -2.0}), 2},
        {"@ad []", {}, 0},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.array);
        this->Receive(this->m_message, Built(std::string("(") + row.array + ", int32 42)"));
        Bytes expected = row.expected;
        if (!TestFixture::Kit::row.wideArraysAreWhole) {
            expected.resize(row.elements);
        }
        Bytes value{77};
        std::int32_t next = 0;
        EXPECT_TRUE(this->m_message.PopBytes(value));
        EXPECT_EQ(expected, value);
        EXPECT_TRUE(this->m_message.PopInt(next));
        EXPECT_EQ(42, next);
    }
}

// A boolean is one byte to GVariant and four on the wire.
TYPED_TEST(MessageArray, OfBooleansGivesBytes) {
    this->Receive(this->m_message, Built("([true, false],)"));
    Bytes value;
    EXPECT_TRUE(this->m_message.PopBytes(value));
    EXPECT_EQ((Bytes{1, 0}), value);
}

TYPED_TEST(MessageArray, OfStructuresOfOneSizeIsRawBytesOrRefused) {
    const struct {
        const char* array;
        Bytes expected;
    } table[] = {
        {"[handle 0, 1]", BytesOf<std::int32_t>({0, 1})},
        {"[(int32 1, int32 2), (3, 4)]", BytesOf<std::int32_t>({1, 2, 3, 4})},
        {"@a(ii) []", {}},
        {"[(byte 9, int32 5)]", ByteAndInt(9, 5)},
        {"[(byte 1, (byte 2, byte 3))]", {1, 2, 3}},
        {"{byte 1: byte 2, 3: 4}", {1, 2, 3, 4}},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.array);
        this->Receive(this->m_message, Built(std::string("(") + row.array + ", int32 42)"));
        Bytes value{77};
        std::int32_t next = 0;
        const bool accepted = TestFixture::Kit::row.structuresAreBytes;
        EXPECT_EQ(accepted, this->m_message.PopBytes(value));
        EXPECT_EQ(accepted ? row.expected : Bytes{77}, value);
        if (!accepted) {
            this->ExpectTypeError("PopBytes", "Expected array");
        }
        EXPECT_TRUE(this->m_message.PopInt(next));
        EXPECT_EQ(42, next);
    }
}

TYPED_TEST(MessageArray, OfValuesOfDifferentSizesIsRefused) {
    for (const char* array :
         {"['a', 'b']", "@as []", "[objectpath '/a']", "@ao []", "[signature 'i']", "@ag []", "[<1>, <'a'>]",
          "@av []", "[[byte 1], [byte 2]]", "@aay []", "[(int32 1, 'a')]", "@a(is) []", "{1: 'a'}",
          "@a{sv} {}", "[(byte 1, <2>)]", "[(byte 1, (byte 2, ['a']))]"}) {
        SCOPED_TRACE(array);
        this->Receive(this->m_message, Built(std::string("(") + array + ", int32 42)"));
        Bytes value{77};
        std::int32_t next = 0;
        EXPECT_FALSE(this->m_message.PopBytes(value));
        EXPECT_EQ(Bytes{77}, value);
        this->ExpectTypeError("PopBytes", "Expected array");
        EXPECT_TRUE(this->m_message.PopInt(next)) << "a refused array is a step, too";
        EXPECT_EQ(42, next);
    }
}

TYPED_TEST(MessageArray, IsLentWithoutACopy) {
    this->Receive(this->m_message, Built("([byte 1, 2, 3], @ay [], 'x')"));
    const std::uint8_t* data = nullptr;
    std::size_t size = 99;
    Bytes storage{77};
    ASSERT_TRUE(this->m_message.PopByteRange(data, size, storage));
    EXPECT_EQ((Bytes{1, 2, 3}), Bytes(data, data + size));
    EXPECT_EQ(Bytes{77}, storage) << "the bytes stay in the body";
    const std::uint8_t* const lent = data;
    ASSERT_TRUE(this->m_message.PopByteRange(data, size, storage));
    EXPECT_EQ(0U, size);
    // A failure leaves the outputs alone.
    data = lent;
    size = 3;
    EXPECT_FALSE(this->m_message.PopByteRange(data, size, storage));
    this->ExpectTypeError("PopBytes", "Expected array");
    EXPECT_FALSE(this->m_message.PopByteRange(data, size, storage));
    this->ExpectLines("m_SetupIterator", TestFixture::Kit::row.noMoreArguments);
    EXPECT_EQ(lent, data);
    EXPECT_EQ(3U, size);
    // The lent bytes live as long as the content.
    EXPECT_EQ((Bytes{1, 2, 3}), Bytes(data, data + size));
}

TYPED_TEST(MessageArray, OfManyBytesComesBackWhole) {
    Bytes sent(1U << 20U);
    for (std::size_t at = 0; at < sent.size(); ++at) {
        sent[at] = static_cast<std::uint8_t>(at * 7 + at / 251);
    }
    ASSERT_TRUE(this->InitializeCall());
    ASSERT_TRUE(this->m_message.PushBytes(sent));
    ASSERT_TRUE(this->m_message.PushEnd());
    TypeParam received;
    this->Receive(received, this->OnTheWire(this->m_message));
    Bytes value;
    ASSERT_TRUE(received.PopBytes(value));
    EXPECT_TRUE(value == sent);
}

TYPED_TEST(MessageArray, OfBytesThatAreHandedOverComesBackWhole) {
    for (const std::string& sent : {std::string(), std::string("b"), std::string(100000, 'b')}) {
        SCOPED_TRACE(sent.size());
        ASSERT_TRUE(this->InitializeCall());
        ASSERT_TRUE(this->m_message.PushOwnedBytes({sent.begin(), sent.end()}));
        ASSERT_TRUE(this->m_message.PushEnd());
        TypeParam received;
        this->Receive(received, this->OnTheWire(this->m_message));
        Bytes value;
        ASSERT_TRUE(received.PopBytes(value));
        EXPECT_TRUE(value == Bytes(sent.begin(), sent.end()));
    }
}
