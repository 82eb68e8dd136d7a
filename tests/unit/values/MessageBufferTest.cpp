#include "BufferBytes.h"
#include "RecordingPlatform.h"

#include <gtest/gtest.h>

#include <climits>
#include <stdexcept>
#include <string>

using namespace MavixTest;
using MavixApiLite::TCMessageBuffer;
using namespace std::string_literals;

namespace MavixApiLite {

struct TestAccess {
    static std::size_t Capacity(const TCMessageBuffer& buffer) { return buffer.m_bufferData.capacity(); }
    static std::size_t Size(const TCMessageBuffer& buffer) { return buffer.m_bufferData.size(); }
    static unsigned long long& NonPayloadSize(TCMessageBuffer& buffer) { return buffer.m_nonPayloadSize; }
    static unsigned long long Reserved(const TCMessageBuffer& buffer) { return buffer.m_reserved; }
};

} // namespace MavixApiLite

using MavixApiLite::TestAccess;

TEST(MessageBuffer, StartsEmpty) {
    TCMessageBuffer buffer;
    EXPECT_EQ(0u, buffer.PayloadSize());
    EXPECT_EQ(nullptr, buffer.GetAsCStr(0));
    EXPECT_EQ(0u, TestAccess::NonPayloadSize(buffer));
    EXPECT_EQ(0u, TestAccess::Reserved(buffer));
    EXPECT_EQ("", buffer.Sender());
    EXPECT_EQ("", buffer.SenderAppName());
}

TEST(MessageBuffer, PushCharAppendsTheByteAsGiven) {
    TCMessageBuffer buffer;
    EXPECT_TRUE(buffer.PushChar('a'));
    EXPECT_TRUE(buffer.PushChar('\0'));
    EXPECT_TRUE(buffer.PushChar(static_cast<char>(0xFF)));
    EXPECT_EQ("a\0\xFF"s, BytesOf(buffer));
}

TEST(MessageBuffer, PushShortStoresLowByteFirst) {
    TCMessageBuffer buffer;
    EXPECT_TRUE(buffer.PushShort(0x1234));
    EXPECT_TRUE(buffer.PushShort(-2));
    EXPECT_EQ("\x34\x12\xFE\xFF", BytesOf(buffer));
}

TEST(MessageBuffer, PushIntStoresLowByteFirst) {
    TCMessageBuffer buffer;
    EXPECT_TRUE(buffer.PushInt(0x12345678));
    EXPECT_TRUE(buffer.PushInt(-2));
    EXPECT_EQ("\x78\x56\x34\x12\xFE\xFF\xFF\xFF", BytesOf(buffer));
}

TEST(MessageBuffer, PushLongLongStoresLowByteFirst) {
    TCMessageBuffer buffer;
    EXPECT_TRUE(buffer.PushLongLong(0x123456789ABCDEF1));
    EXPECT_TRUE(buffer.PushLongLong(-2));
    EXPECT_EQ("\xF1\xDE\xBC\x9A\x78\x56\x34\x12\xFE\xFF\xFF\xFF\xFF\xFF\xFF\xFF", BytesOf(buffer));
}

TEST(MessageBuffer, ValuesFollowEachOtherWithoutAlignment) {
    TCMessageBuffer buffer;
    buffer.PushChar('a');
    buffer.PushInt(1);
    EXPECT_EQ("a\1\0\0\0"s, BytesOf(buffer));
    buffer.PushShort(2);
    buffer.PushLongLong(3);
    buffer.PushConcatenated(3, "xyz");
    EXPECT_EQ("a\1\0\0\0\2\0\3\0\0\0\0\0\0\0xyz"s, BytesOf(buffer));
}

TEST(MessageBuffer, PushConcatenatedAppendsTheBytesAlone) {
    TCMessageBuffer buffer = BufferOf("ab");
    EXPECT_TRUE(buffer.PushConcatenated(5, "c\0d\0e"));
    EXPECT_EQ("abc\0d\0e"s, BytesOf(buffer));
}

TEST(MessageBuffer, PushConcatenatedOfNothingChangesNothing) {
    TCMessageBuffer buffer = BufferOf("ab");
    EXPECT_TRUE(buffer.PushConcatenated(5, nullptr));
    EXPECT_TRUE(buffer.PushConcatenated(0, "xyz"));
    EXPECT_TRUE(buffer.PushConcatenated(0, nullptr));
    EXPECT_EQ("ab", BytesOf(buffer));
}

TEST(MessageBuffer, PushBufferAppendsAllBytesOfAnother) {
    TCMessageBuffer buffer = BufferOf("ab");
    TCMessageBuffer other = BufferOf("cdef");
    TestAccess::NonPayloadSize(other) = 3;
    other.SetSender("the sender");
    EXPECT_TRUE(buffer.PushBuffer(&other));
    EXPECT_EQ("abcdef", BytesOf(buffer)) << "what is no payload in the other buffer counts too";
    EXPECT_EQ("", buffer.Sender());
    EXPECT_EQ(4u, TestAccess::Size(other));
}

TEST(MessageBuffer, PushBufferOfAnEmptyOneChangesNothing) {
    TCMessageBuffer buffer = BufferOf("ab");
    TCMessageBuffer empty;
    EXPECT_TRUE(buffer.PushBuffer(&empty));
    EXPECT_EQ("ab", BytesOf(buffer));
    EXPECT_TRUE(empty.PushBuffer(&empty));
    EXPECT_EQ("", BytesOf(empty));
}

TEST(MessageBuffer, PushBufferOfItselfDoublesIt) {
    TCMessageBuffer buffer = BufferOf("abc");
    EXPECT_TRUE(buffer.PushBuffer(&buffer));
    EXPECT_EQ("abcabc", BytesOf(buffer));
}

TEST(MessageBuffer, ReserveGrowsTheStorageToExactlyThatNumber) {
    TCMessageBuffer buffer = BufferOf("ab");
    buffer.Reserve(1000);
    EXPECT_EQ(1000u, TestAccess::Capacity(buffer));
    buffer.Reserve(10);
    EXPECT_EQ(1000u, TestAccess::Capacity(buffer));
    EXPECT_EQ("ab", BytesOf(buffer));
    const char* before = buffer.GetAsCStr(0);
    buffer.PushConcatenated(998, std::string(998, 'x').data());
    EXPECT_EQ(before, buffer.GetAsCStr(0)) << "what fits is not moved";
}

TEST(MessageBuffer, ResizeAddsZeroBytesAndNeverShrinks) {
    TCMessageBuffer buffer = BufferOf("ab");
    buffer.Resize(3);
    EXPECT_EQ("ab\0\0\0"s, BytesOf(buffer));
    buffer.Resize(0);
    EXPECT_EQ(5u, buffer.PayloadSize());
    buffer.Resize(1);
    EXPECT_EQ(6u, buffer.PayloadSize());
}

TEST(MessageBuffer, CleanEmptiesThePayloadAndKeepsStorageAndSenders) {
    TCMessageBuffer buffer = BufferOf("abcdef");
    buffer.Reserve(100);
    buffer.SetSender("the sender");
    buffer.SetSenderAppName("the application");
    TestAccess::NonPayloadSize(buffer) = 2;
    buffer.Clean();
    EXPECT_EQ(0u, buffer.PayloadSize());
    EXPECT_EQ(0u, TestAccess::NonPayloadSize(buffer));
    EXPECT_EQ(100u, TestAccess::Capacity(buffer));
    EXPECT_EQ("the sender", buffer.Sender());
    EXPECT_EQ("the application", buffer.SenderAppName());
}

TEST(MessageBuffer, WritesInsertAndNeverOverwrite) {
    TCMessageBuffer buffer;
    buffer.PushInt(1);
    EXPECT_TRUE(buffer.WriteInt(7, 0));
    EXPECT_EQ("\7\0\0\0\1\0\0\0"s, BytesOf(buffer));
    EXPECT_TRUE(buffer.WriteLongLong(9, 4));
    EXPECT_EQ("\7\0\0\0\t\0\0\0\0\0\0\0\1\0\0\0"s, BytesOf(buffer));
    char bytes[] = "xy";
    EXPECT_TRUE(buffer.WriteConcatenated(2, bytes, 1));
    EXPECT_EQ("\7xy\0\0\0\t\0\0\0\0\0\0\0\1\0\0\0"s, BytesOf(buffer));
}

TEST(MessageBuffer, WritesAtTheEndAppend) {
    char bytes[] = "xy";
    for (const bool byOffset : {false, true}) {
        TCMessageBuffer buffer = BufferOf("ab");
        EXPECT_TRUE(buffer.WriteInt(7, byOffset ? 2 : -1));
        EXPECT_TRUE(buffer.WriteLongLong(8, byOffset ? 6 : -1));
        EXPECT_TRUE(buffer.WriteConcatenated(2, bytes, byOffset ? 14 : -1));
        EXPECT_EQ("ab\7\0\0\0\10\0\0\0\0\0\0\0xy"s, BytesOf(buffer));
    }
    EXPECT_TRUE(TCRecordingPlatform::Get().Lines().empty());
}

TEST(MessageBuffer, WritesIntoAnEmptyBuffer) {
    TCMessageBuffer buffer;
    EXPECT_TRUE(buffer.WriteInt(7, 0));
    EXPECT_EQ("\7\0\0\0"s, BytesOf(buffer));
}

TEST(MessageBuffer, WriteConcatenatedOfNoBytesChangesNothing) {
    TCMessageBuffer buffer = BufferOf("ab");
    EXPECT_TRUE(buffer.WriteConcatenated(0, nullptr, 1));
    EXPECT_TRUE(buffer.WriteConcatenated(0, nullptr, -1));
    EXPECT_EQ("ab", BytesOf(buffer));
}

TEST(MessageBuffer, RefusesMoreBytesThanAnyArrayHolds) {
    TCMessageBuffer empty;
    char byte = 'x';
    EXPECT_THROW(empty.PushConcatenated(ULONG_MAX, &byte), std::length_error);
    EXPECT_THROW(empty.WriteConcatenated(ULONG_MAX, &byte, 0), std::length_error);
    TCMessageBuffer buffer = BufferOf("ab");
    // Sizes that wrap to a small sum are no exception.
    for (const unsigned long size : {ULONG_MAX, ULONG_MAX - 1, static_cast<unsigned long>(LONG_MAX)}) {
        EXPECT_THROW(buffer.PushConcatenated(size, &byte), std::length_error) << size;
        EXPECT_THROW(buffer.WriteConcatenated(size, &byte, 1), std::length_error) << size;
    }
    EXPECT_EQ("ab", BytesOf(buffer));
}

TEST(MessageBuffer, PayloadEndsBeforeWhatIsNone) {
    TCMessageBuffer buffer = BufferOf("abcdef");
    TestAccess::NonPayloadSize(buffer) = 2;
    EXPECT_EQ(4u, buffer.PayloadSize());
    EXPECT_EQ("abcd", BytesOf(buffer));
}

TEST(MessageBuffer, CopiesAreIndependent) {
    TCMessageBuffer buffer = BufferOf("ab");
    buffer.SetSender("the sender");
    TCMessageBuffer copy = buffer;
    copy.PushChar('c');
    buffer.Clean();
    EXPECT_EQ("abc", BytesOf(copy));
    EXPECT_EQ("the sender", copy.Sender());
}
