#include "GdbusFixture.h"

#include <cstring>

using namespace MavixTest;

namespace {

class GdbusArray : public GdbusMessageFixture {};

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

TEST_F(GdbusArray, OfValuesOfOneSizeGivesTheirRawBytes) {
    const struct {
        const char* array;
        Bytes expected;
    } table[] = {
        {"[byte 1, 2, 255]", {1, 2, 255}},
        {"@ay []", {}},
        {"b'text'", {'t', 'e', 'x', 't', 0}},
        {"[true, false]", {1, 0}},
        {"@ab []", {}},
        {"[int16 -1, 2]", BytesOf<std::int16_t>({-1, 2})},
        {"[uint16 1, 2]", BytesOf<std::uint16_t>({1, 2})},
        {"[int32 1, -2]", BytesOf<std::int32_t>({1, -2})},
        {"@ai []", {}},
        {"[uint32 1, 4294967295]", BytesOf<std::uint32_t>({1, 4294967295U})},
        {"[handle 0, 1]", BytesOf<std::int32_t>({0, 1})},
        {"[int64 -1]", BytesOf<std::int64_t>({-1})},
        {"[uint64 7]", BytesOf<std::uint64_t>({7})},
        {"[1.5, -2.0]", BytesOf<double>({1.5, -2.0})},
        {"@ad []", {}},
        {"[(int32 1, int32 2), (3, 4)]", BytesOf<std::int32_t>({1, 2, 3, 4})},
        {"@a(ii) []", {}},
        {"[(byte 9, int32 5)]", ByteAndInt(9, 5)},
        {"[(byte 1, (byte 2, byte 3))]", {1, 2, 3}},
        {"{byte 1: byte 2, 3: 4}", {1, 2, 3, 4}},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.array);
        Adopt(m_message, Received(Built(std::string("(") + row.array + ", int32 42)")));
        Bytes value{77};
        std::int32_t next = 0;
        EXPECT_TRUE(m_message.PopBytes(value));
        EXPECT_EQ(row.expected, value);
        EXPECT_TRUE(m_message.PopInt(next));
        EXPECT_EQ(42, next);
    }
}

TEST_F(GdbusArray, OfValuesOfDifferentSizesIsRefused) {
    for (const char* array :
         {"['a', 'b']", "@as []", "[objectpath '/a']", "@ao []", "[signature 'i']", "@ag []", "[<1>, <'a'>]",
          "@av []", "[[byte 1], [byte 2]]", "@aay []", "[(int32 1, 'a')]", "@a(is) []", "{1: 'a'}",
          "@a{sv} {}", "[(byte 1, <2>)]", "[(byte 1, (byte 2, ['a']))]"}) {
        SCOPED_TRACE(array);
        Adopt(m_message, Received(Built(std::string("(") + array + ", int32 42)")));
        Bytes value{77};
        std::int32_t next = 0;
        EXPECT_FALSE(m_message.PopBytes(value));
        EXPECT_EQ(Bytes{77}, value);
        ExpectLines("PopBytes", "Expected array!");
        EXPECT_TRUE(m_message.PopInt(next)) << "a refused array is a step, too";
        EXPECT_EQ(42, next);
    }
}

TEST_F(GdbusArray, IsLentWithoutACopy) {
    Adopt(m_message, Received(Built("([byte 1, 2, 3], @ay [], 'x')")));
    const std::uint8_t* data = nullptr;
    std::size_t size = 99;
    Bytes storage{77};
    ASSERT_TRUE(m_message.PopByteRange(data, size, storage));
    EXPECT_EQ((Bytes{1, 2, 3}), Bytes(data, data + size));
    EXPECT_EQ(Bytes{77}, storage) << "the bytes stay in the body";
    const std::uint8_t* const lent = data;
    ASSERT_TRUE(m_message.PopByteRange(data, size, storage));
    EXPECT_EQ(0U, size);
    // A failure leaves the outputs alone.
    data = lent;
    size = 3;
    EXPECT_FALSE(m_message.PopByteRange(data, size, storage));
    ExpectLines("PopBytes", "Expected array!");
    EXPECT_FALSE(m_message.PopByteRange(data, size, storage));
    ExpectLines("m_SetupIterator", "No more params");
    EXPECT_EQ(lent, data);
    EXPECT_EQ(3U, size);
    // The lent bytes live as long as the content.
    EXPECT_EQ((Bytes{1, 2, 3}), Bytes(data, data + size));
}

TEST_F(GdbusArray, OfManyBytesComesBackWhole) {
    Bytes sent(1U << 20U);
    for (std::size_t at = 0; at < sent.size(); ++at) {
        sent[at] = static_cast<std::uint8_t>(at * 7 + at / 251);
    }
    ASSERT_TRUE(m_message.Initialize(TIIpcMessage::MethodCall, testBus, testPath, testInterface, testMember));
    ASSERT_TRUE(m_message.PushBytes(sent));
    ASSERT_TRUE(m_message.PushEnd());
    TCGdbusMessage received;
    Adopt(received, Received(RawMessage(static_cast<GDBusMessage*>(m_message.GetRawMessage(true)))));
    Bytes value;
    ASSERT_TRUE(received.PopBytes(value));
    EXPECT_TRUE(value == sent);
}
